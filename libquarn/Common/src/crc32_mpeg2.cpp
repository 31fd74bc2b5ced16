#include "crc32_mpeg2.h"

#include <array>

namespace quarn::lidar {
namespace {

constexpr std::array<uint32_t, 256> MakeTable() {
  std::array<uint32_t, 256> table{};
  for (uint32_t i = 0; i < 256; ++i) {
    uint32_t c = i << 24;
    for (int bit = 0; bit < 8; ++bit) c = (c & 0x80000000u) ? (c << 1) ^ 0x04C11DB7u : (c << 1);
    table[i] = c;
  }
  return table;
}

constexpr std::array<uint32_t, 256> kTable = MakeTable();

}  // namespace

uint32_t Crc32Mpeg2Update(uint32_t crc, const uint8_t* data, size_t len) {
  for (size_t i = 0; i < len; ++i) crc = (crc << 8) ^ kTable[((crc >> 24) ^ data[i]) & 0xFFu];
  return crc;
}

uint32_t Crc32Mpeg2ZeroPadded4(const uint8_t* data, size_t len) {
  static const uint8_t kZeros[3] = {0, 0, 0};
  const uint32_t crc = Crc32Mpeg2Update(kCrc32Mpeg2Init, data, len);
  return Crc32Mpeg2Update(crc, kZeros, (4 - len % 4) % 4);
}

}  // namespace quarn::lidar
