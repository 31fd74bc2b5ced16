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

// kSliced[k][b]: the CRC contribution of byte b followed by k zero bytes, so sixteen bytes
// are folded per step with independent look-ups instead of sixteen dependent ones (the
// file pieces of an upgrade are checksummed at this rate).
constexpr size_t kSlices = 16;
using SlicedTables = std::array<std::array<uint32_t, 256>, kSlices>;

constexpr SlicedTables MakeSliced() {
  SlicedTables t{};
  t[0] = MakeTable();
  for (size_t k = 1; k < kSlices; ++k)
    for (uint32_t b = 0; b < 256; ++b) t[k][b] = (t[k - 1][b] << 8) ^ t[0][t[k - 1][b] >> 24];
  return t;
}

constexpr SlicedTables kSliced = MakeSliced();

uint32_t Word(const uint8_t* p) {
  return (static_cast<uint32_t>(p[0]) << 24) | (static_cast<uint32_t>(p[1]) << 16) |
         (static_cast<uint32_t>(p[2]) << 8) | static_cast<uint32_t>(p[3]);
}

}  // namespace

uint32_t Crc32Mpeg2Update(uint32_t crc, const uint8_t* data, size_t len) {
  size_t i = 0;
  for (; i + kSlices <= len; i += kSlices) {
    const uint32_t w = crc ^ Word(data + i);
    const uint8_t* p = data + i;
    crc = kSliced[15][w >> 24] ^ kSliced[14][(w >> 16) & 0xFFu] ^ kSliced[13][(w >> 8) & 0xFFu] ^
          kSliced[12][w & 0xFFu] ^ kSliced[11][p[4]] ^ kSliced[10][p[5]] ^ kSliced[9][p[6]] ^ kSliced[8][p[7]] ^
          kSliced[7][p[8]] ^ kSliced[6][p[9]] ^ kSliced[5][p[10]] ^ kSliced[4][p[11]] ^ kSliced[3][p[12]] ^
          kSliced[2][p[13]] ^ kSliced[1][p[14]] ^ kSliced[0][p[15]];
  }
  for (; i < len; ++i) crc = (crc << 8) ^ kTable[((crc >> 24) ^ data[i]) & 0xFFu];
  return crc;
}

uint32_t Crc32Mpeg2ZeroPadded4(const uint8_t* data, size_t len) {
  static const uint8_t kZeros[3] = {0, 0, 0};
  const uint32_t crc = Crc32Mpeg2Update(kCrc32Mpeg2Init, data, len);
  return Crc32Mpeg2Update(crc, kZeros, (4 - len % 4) % 4);
}

}  // namespace quarn::lidar
