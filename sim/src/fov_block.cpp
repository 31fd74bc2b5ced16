#include "fov_block.h"

namespace varkel::sim {
namespace {

void PutU16(std::vector<uint8_t>& out, uint16_t v) {
  out.push_back(static_cast<uint8_t>(v >> 8));
  out.push_back(static_cast<uint8_t>(v));
}

}  // namespace

std::vector<uint8_t> FovBlock::Reply(uint8_t channel) const {
  std::lock_guard<std::mutex> lock(mu_);
  std::vector<uint8_t> out{channel};
  for (uint16_t v : start_) PutU16(out, v);
  for (uint16_t v : end_) PutU16(out, v);
  return out;
}

bool FovBlock::Write(const std::vector<uint8_t>& payload) {
  if (payload.size() != 1 + 2 * start_.size()) return false;
  Angles values{};
  for (size_t i = 0; i < values.size(); ++i) {
    values[i] = static_cast<uint16_t>((payload[1 + 2 * i] << 8) | payload[2 + 2 * i]);
    if (values[i] > kMaxAngle) return false;
  }
  std::lock_guard<std::mutex> lock(mu_);
  start_ = values;
  return true;
}

void FovBlock::Set(const Angles& start, const Angles& end) {
  std::lock_guard<std::mutex> lock(mu_);
  start_ = start;
  end_ = end;
}

void FovBlock::RestoreDefaults() {
  Set(kDefaultStart, kDefaultEnd);
}

FovBlock::Angles FovBlock::Start() const {
  std::lock_guard<std::mutex> lock(mu_);
  return start_;
}

FovBlock::Angles FovBlock::End() const {
  std::lock_guard<std::mutex> lock(mu_);
  return end_;
}

}  // namespace varkel::sim
