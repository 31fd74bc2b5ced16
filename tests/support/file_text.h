#pragma once
// What a file holds, read whole: "" (or nothing) when it cannot be read.

#include <cstdint>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

namespace vktest {

inline std::string FileText(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}
inline std::vector<uint8_t> FileBytes(const std::string& path) {
  const std::string text = FileText(path);
  return {text.begin(), text.end()};
}

}  // namespace vktest
