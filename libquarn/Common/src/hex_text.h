#pragma once
// Byte dumps as the log callbacks show them: two lower-case digits and one blank per byte.

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace quarn::lidar {

std::string ToHexSpaced(const uint8_t* data, size_t len);
inline std::string ToHexSpaced(const std::vector<uint8_t>& data) { return ToHexSpaced(data.data(), data.size()); }

}  // namespace quarn::lidar
