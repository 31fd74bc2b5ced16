#pragma once
// Bytes written as text in the tests: "47 74 0a" or "47740a".

#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

namespace vktest {

inline std::vector<uint8_t> FromHex(const std::string& text) {
  std::vector<uint8_t> out;
  std::string digits;
  for (char c : text)
    if (c != ' ' && c != '\n') digits += c;
  if (digits.size() % 2 != 0) throw std::invalid_argument("odd hex text: " + text);
  for (size_t i = 0; i < digits.size(); i += 2)
    out.push_back(static_cast<uint8_t>(std::stoul(digits.substr(i, 2), nullptr, 16)));
  return out;
}

}  // namespace vktest
