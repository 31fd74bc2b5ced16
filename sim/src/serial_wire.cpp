#include "serial_wire.h"

#include <cstring>

#include "crc32_mpeg2.h"
#include "ktc_wire.h"

namespace varkel::sim {
namespace {

constexpr char kCmdTag[] = "$LDCMD,";
constexpr char kOtaTag[] = "$LDOTA,";
constexpr size_t kTag = 7;

uint32_t ReadU32LE(const uint8_t* p) {
  return uint32_t{p[0]} | (uint32_t{p[1]} << 8) | (uint32_t{p[2]} << 16) | (uint32_t{p[3]} << 24);
}

std::vector<uint8_t> BuildReply(const char* tag, bool crc_big_endian, uint8_t cmd, const std::vector<uint8_t>& rest,
                                uint32_t nonce) {
  std::vector<uint8_t> f(tag, tag + kTag);
  f.push_back(static_cast<uint8_t>(rest.size()));
  f.push_back(cmd);
  f.insert(f.end(), rest.begin(), rest.end());
  for (int i = 0; i < 4; ++i) f.push_back(static_cast<uint8_t>(nonce >> (8 * i)));
  const uint32_t crc = quarn::lidar::Crc32Mpeg2ZeroPadded4(f.data() + kTag, f.size() - kTag);
  for (int i = 0; i < 4; ++i) f.push_back(static_cast<uint8_t>(crc >> (crc_big_endian ? 24 - 8 * i : 8 * i)));
  f.push_back(0xEE);
  f.push_back(0xFF);
  return f;
}

}  // namespace

std::vector<uint8_t> BuildSerialCommandReply(uint8_t cmd, const std::vector<uint8_t>& rest, uint32_t nonce) {
  return BuildReply(kCmdTag, false, cmd, rest, nonce);
}

std::vector<uint8_t> BuildSerialOtaReply(uint8_t cmd, const std::vector<uint8_t>& rest, uint32_t nonce) {
  return BuildReply(kOtaTag, true, cmd, rest, nonce);
}

void SerialRequestReader::Feed(const uint8_t* data, size_t len) {
  buf_.insert(buf_.end(), data, data + len);
}

std::optional<SerialRequest> SerialRequestReader::Next() {
  for (;;) {
    // Hunt for a tag; keep a tail that may be the start of one.
    size_t start = 0;
    bool found = false;
    for (; start + kTag <= buf_.size(); ++start) {
      if (std::memcmp(buf_.data() + start, kCmdTag, kTag) == 0 ||
          std::memcmp(buf_.data() + start, kOtaTag, kTag) == 0) {
        found = true;
        break;
      }
    }
    if (!found) start = buf_.size() > kTag ? buf_.size() - (kTag - 1) : 0;
    if (start > 0) {
      skipped_ += start;
      buf_.erase(buf_.begin(), buf_.begin() + static_cast<std::ptrdiff_t>(start));
    }
    if (!found) return std::nullopt;

    const bool ota = buf_[3] == 'O';
    size_t total = 0;
    size_t crc_end = 0;  // CRC covers [7, crc_end)
    if (!ota) {
      if (buf_.size() < kTag + 1) return std::nullopt;
      const size_t counted = buf_[kTag];  // command byte + payload
      total = kTag + 1 + counted + 4 + 4 + 2;
      crc_end = kTag + 1 + counted + 4;
    } else {
      if (buf_.size() < 23) return std::nullopt;
      const uint32_t m = ReadU32BE(buf_.data() + 19);
      if (m > kMaxOtaData) {
        ++rejected_;
        buf_.erase(buf_.begin());
        continue;
      }
      total = 23 + size_t{m} + 4 + 2;
      crc_end = 23 + size_t{m};
    }
    if (buf_.size() < total) return std::nullopt;

    const uint8_t* f = buf_.data();
    const uint32_t stored = ota ? ReadU32BE(f + crc_end) : ReadU32LE(f + crc_end);
    const bool good = (!ota ? buf_[kTag] >= 1 : true) && f[total - 2] == 0xEE && f[total - 1] == 0xFF &&
                      quarn::lidar::Crc32Mpeg2ZeroPadded4(f + kTag, crc_end - kTag) == stored;
    if (!good) {
      // Not a frame after all: skip this tag and look for the next one.
      ++rejected_;
      buf_.erase(buf_.begin());
      continue;
    }
    SerialRequest req;
    req.ota = ota;
    req.frame.assign(f, f + total);
    if (!ota) {
      req.cmd = f[kTag + 1];
      req.payload.assign(f + kTag + 2, f + kTag + 1 + buf_[kTag]);
    } else {
      req.cmd = f[10];
      req.value1 = ReadU32BE(f + 11);
      req.value2 = ReadU32BE(f + 15);
      req.payload.assign(f + 23, f + crc_end);
    }
    buf_.erase(buf_.begin(), buf_.begin() + static_cast<std::ptrdiff_t>(total));
    return req;
  }
}

}  // namespace varkel::sim
