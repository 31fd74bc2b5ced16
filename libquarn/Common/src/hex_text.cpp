#include "hex_text.h"

namespace quarn::lidar {

std::string ToHexSpaced(const uint8_t* data, size_t len) {
  static const char kDigits[] = "0123456789abcdef";
  std::string out;
  out.resize(len * 3);
  for (size_t i = 0; i < len; ++i) {
    out[i * 3] = kDigits[data[i] >> 4];
    out[i * 3 + 1] = kDigits[data[i] & 0x0F];
    out[i * 3 + 2] = ' ';
  }
  return out;
}

}  // namespace quarn::lidar
