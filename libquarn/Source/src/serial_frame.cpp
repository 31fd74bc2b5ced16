#include "serial_frame.h"

#include <cstring>
#include <random>

#include "crc32_mpeg2.h"

namespace quarn::lidar {
namespace {

void PutLe32(uint8_t* out, uint32_t v) {
  for (int i = 0; i < 4; ++i) out[i] = static_cast<uint8_t>(v >> (8 * i));
}

void PutBe32(uint8_t* out, uint32_t v) {
  for (int i = 0; i < 4; ++i) out[i] = static_cast<uint8_t>(v >> (8 * (3 - i)));
}

uint32_t GetLe32(const uint8_t* in) {
  return static_cast<uint32_t>(in[0]) | static_cast<uint32_t>(in[1]) << 8 | static_cast<uint32_t>(in[2]) << 16 |
         static_cast<uint32_t>(in[3]) << 24;
}

uint32_t GetBe32(const uint8_t* in) {
  return static_cast<uint32_t>(in[0]) << 24 | static_cast<uint32_t>(in[1]) << 16 | static_cast<uint32_t>(in[2]) << 8 |
         static_cast<uint32_t>(in[3]);
}

}  // namespace

uint32_t FreshNonce() {
  std::random_device device;
  std::mt19937 generator(device());
  return static_cast<uint32_t>(generator());
}

std::vector<uint8_t> BuildCommandFrame(uint8_t cmd, const std::vector<uint8_t>& payload, uint32_t nonce) {
  const size_t n = payload.size();
  std::vector<uint8_t> frame(kSerialTagSize + 1 + 1 + n + 4 + 4 + 2, 0);
  frame[7] = static_cast<uint8_t>((n + 1) % 256);
  frame[8] = cmd;
  if (n != 0) std::memcpy(&frame[9], payload.data(), n);
  PutLe32(&frame[9 + n], nonce);
  // From the length byte through the nonce.
  PutLe32(&frame[13 + n], Crc32Mpeg2ZeroPadded4(&frame[7], 6 + n));
  frame[17 + n] = kSerialTrailer0;
  frame[18 + n] = kSerialTrailer1;
  std::memcpy(frame.data(), kCommandTag, kSerialTagSize);
  return frame;
}

std::vector<uint8_t> BuildOtaFrame(uint8_t frame_type, uint32_t value1, uint32_t value2, const uint8_t* data,
                                   size_t length) {
  const size_t m = length;
  std::vector<uint8_t> frame(23 + m + 4 + 2, 0);
  frame[10] = frame_type;
  PutBe32(&frame[11], value1);
  PutBe32(&frame[15], value2);
  PutBe32(&frame[19], static_cast<uint32_t>(m));
  if (m != 0) std::memcpy(&frame[23], data, m);
  PutBe32(&frame[23 + m], Crc32Mpeg2ZeroPadded4(&frame[7], 16 + m));
  frame[27 + m] = kSerialTrailer0;
  frame[28 + m] = kSerialTrailer1;
  std::memcpy(frame.data(), kOtaTag, kSerialTagSize);
  return frame;
}

bool CheckReply(int kind, const uint8_t* block, size_t length, std::vector<uint8_t>& body) {
  body.clear();
  if (block == nullptr || length < kMinSerialReplySize) return false;
  if (block[length - 2] != kSerialTrailer0 || block[length - 1] != kSerialTrailer1) return false;
  const uint8_t* stored = block + length - 6;
  uint32_t expected = 0;
  if (kind == kReplyCheckCommand) {
    expected = GetLe32(stored);
  } else if (kind == kReplyCheckOta) {
    expected = GetBe32(stored);
  } else {
    return false;
  }
  if (Crc32Mpeg2ZeroPadded4(block + kSerialTagSize, length - 13) != expected) return false;
  const size_t body_length = length - 17;
  if (static_cast<size_t>(block[kSerialTagSize]) + 2 != body_length) return false;
  body.assign(block + kSerialTagSize, block + kSerialTagSize + body_length);
  return true;
}

}  // namespace quarn::lidar
