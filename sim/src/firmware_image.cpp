#include "firmware_image.h"

#include <algorithm>
#include <cstring>

namespace varkel::sim {

std::optional<std::string> ImageVersion(const std::vector<uint8_t>& image) {
  static constexpr char kKey[] = "VERSION=";
  constexpr size_t kKeyLen = sizeof(kKey) - 1;
  constexpr size_t kMaxText = 64;
  const uint8_t* key = reinterpret_cast<const uint8_t*>(kKey);
  auto at = image.begin();
  while ((at = std::search(at, image.end(), key, key + kKeyLen)) != image.end()) {
    const bool line_start = at == image.begin() || *(at - 1) == '\n';
    const auto text = at + static_cast<std::ptrdiff_t>(kKeyLen);
    if (line_start) {
      auto end = text;
      while (end != image.end() && *end != '\n' && *end != '\r' && *end != '\0') ++end;
      const size_t n = static_cast<size_t>(end - text);
      if (n == 0 || n > kMaxText) return std::nullopt;
      return std::string(text, end);
    }
    at = text;
  }
  return std::nullopt;
}

}  // namespace varkel::sim
