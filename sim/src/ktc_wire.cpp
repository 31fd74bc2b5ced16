#include "ktc_wire.h"

#include <algorithm>

namespace varkel::sim {

uint32_t ReadU32BE(const uint8_t* p) {
  return (uint32_t{p[0]} << 24) | (uint32_t{p[1]} << 16) | (uint32_t{p[2]} << 8) | uint32_t{p[3]};
}

void WriteU32BE(uint8_t* p, uint32_t v) {
  p[0] = static_cast<uint8_t>(v >> 24);
  p[1] = static_cast<uint8_t>(v >> 16);
  p[2] = static_cast<uint8_t>(v >> 8);
  p[3] = static_cast<uint8_t>(v);
}

const KtcLayout& KtcLayoutOf(int version) {
  static const KtcLayout kV1{0x47, 0x74, 8, 2, 3, 4};
  static const KtcLayout kV2{0x57, 0x75, 12, 3, 4, 8};
  return version == 2 ? kV2 : kV1;
}

void KtcRequestReader::Feed(const uint8_t* data, size_t len) {
  buf_.insert(buf_.end(), data, data + len);
}

std::optional<KtcRequest> KtcRequestReader::Next() {
  if (broken_) return std::nullopt;
  // Hunt for the identifier pair; keep a trailing first identifier, its partner may follow.
  size_t start = 0;
  while (start + 1 < buf_.size() && !(buf_[start] == layout_.id0 && buf_[start + 1] == layout_.id1)) ++start;
  if (start + 1 >= buf_.size() && !(start < buf_.size() && buf_[start] == layout_.id0)) start = buf_.size();
  if (start > 0) {
    discarded_ += start;
    buf_.erase(buf_.begin(), buf_.begin() + static_cast<std::ptrdiff_t>(start));
  }
  if (buf_.size() < layout_.header_size) return std::nullopt;
  const uint32_t n = ReadU32BE(buf_.data() + layout_.len_at);
  if (n > kMaxPayload) {
    broken_ = true;
    return std::nullopt;
  }
  const size_t total = layout_.header_size + n;
  if (buf_.size() < total) return std::nullopt;
  KtcRequest req;
  req.cmd = buf_[layout_.cmd_at];
  req.frame.assign(buf_.begin(), buf_.begin() + static_cast<std::ptrdiff_t>(total));
  req.payload.assign(req.frame.begin() + static_cast<std::ptrdiff_t>(layout_.header_size), req.frame.end());
  buf_.erase(buf_.begin(), buf_.begin() + static_cast<std::ptrdiff_t>(total));
  return req;
}

std::vector<uint8_t> BuildKtcReply(int version, uint8_t cmd, uint8_t return_code, const std::vector<uint8_t>& payload) {
  const KtcLayout& l = KtcLayoutOf(version);
  std::vector<uint8_t> frame(l.header_size, 0);
  frame[0] = l.id0;
  frame[1] = l.id1;
  if (version == 2) frame[2] = 0x01;
  frame[l.cmd_at] = cmd;
  frame[l.rc_at] = return_code;
  WriteU32BE(frame.data() + l.len_at, static_cast<uint32_t>(payload.size()));
  frame.insert(frame.end(), payload.begin(), payload.end());
  return frame;
}

std::optional<KtcRequest> ParseWholeV1Frame(const uint8_t* data, size_t len) {
  const KtcLayout& l = KtcLayoutOf(1);
  if (len < l.header_size || data[0] != l.id0 || data[1] != l.id1) return std::nullopt;
  if (ReadU32BE(data + l.len_at) != len - l.header_size) return std::nullopt;
  KtcRequest req;
  req.cmd = data[l.cmd_at];
  req.frame.assign(data, data + len);
  req.payload.assign(data + l.header_size, data + len);
  return req;
}

}  // namespace varkel::sim
