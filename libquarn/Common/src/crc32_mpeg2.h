#pragma once
// CRC-32/MPEG-2: polynomial 0x04C11DB7, initial 0xFFFFFFFF, not reflected, no final xor.
// Used by KTC file-stream pieces and by the serial "$LDCMD,"/"$LDOTA," frames.

#include <cstddef>
#include <cstdint>
#include <vector>

namespace quarn::lidar {

constexpr uint32_t kCrc32Mpeg2Init = 0xFFFFFFFFu;

// Continues `crc` over `len` bytes; start with kCrc32Mpeg2Init.
uint32_t Crc32Mpeg2Update(uint32_t crc, const uint8_t* data, size_t len);

inline uint32_t Crc32Mpeg2(const uint8_t* data, size_t len) {
  return Crc32Mpeg2Update(kCrc32Mpeg2Init, data, len);
}
inline uint32_t Crc32Mpeg2(const std::vector<uint8_t>& data) { return Crc32Mpeg2(data.data(), data.size()); }

// CRC over `len` bytes followed by zero bytes up to the next multiple of 4; the serial
// frames pad this way (the padding enters the CRC only, it is never sent).
uint32_t Crc32Mpeg2ZeroPadded4(const uint8_t* data, size_t len);

}  // namespace quarn::lidar
