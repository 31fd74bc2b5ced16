#include "reply_path.h"

#include <cstdio>

#include "hex_text.h"

namespace varkel::sim {
namespace {

// A log reply is tens of MiB; a trace line shows its start and its size.
constexpr size_t kMaxTraceBytes = 512;

std::string TraceHex(const uint8_t* data, size_t len) {
  if (len <= kMaxTraceBytes) return quarn::lidar::ToHexSpaced(data, len);
  return quarn::lidar::ToHexSpaced(data, kMaxTraceBytes) + " ... (" + std::to_string(len) + " bytes in all)";
}

}  // namespace

bool ReplyPath::Send(const char* channel, const std::vector<uint8_t>& bytes, const Writer& write) {
  if (link_lost_.load()) {
    if (verbose_.load())
      Print(std::string(channel) + " out: (link lost, " + std::to_string(bytes.size()) + " bytes dropped)");
    return false;
  }
  if (verbose_.load()) Print(std::string(channel) + " out: " + TraceHex(bytes.data(), bytes.size()));
  return write(bytes);
}

void ReplyPath::TraceIn(const char* channel, const uint8_t* data, size_t len) {
  if (verbose_.load()) Print(std::string(channel) + " in:  " + TraceHex(data, len));
}

void ReplyPath::Note(const std::string& line) {
  if (verbose_.load()) Print(line);
}

void ReplyPath::Print(const std::string& line) {
  std::lock_guard<std::mutex> lock(print_mu_);
  std::fprintf(stdout, "[varkel-sim] %s\n", line.c_str());
  std::fflush(stdout);
}

}  // namespace varkel::sim
