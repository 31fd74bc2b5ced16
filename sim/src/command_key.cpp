#include "command_key.h"

#include <cctype>

namespace varkel::sim {
namespace {

// The value of `digits` in `radix`, or nullopt when a character is not a digit of it or the
// value needs more than 32 bits.
std::optional<uint32_t> ReadNumber(const std::string& digits, uint32_t radix) {
  if (digits.empty()) return std::nullopt;
  uint64_t v = 0;
  for (char c : digits) {
    const int lower = std::tolower(static_cast<unsigned char>(c));
    uint32_t digit = radix;
    if (std::isdigit(lower)) digit = static_cast<uint32_t>(lower - '0');
    if (lower >= 'a' && lower <= 'f') digit = static_cast<uint32_t>(lower - 'a' + 10);
    if (digit >= radix) return std::nullopt;
    v = v * radix + digit;
    if (v > 0xFFFFFFFFu) return std::nullopt;
  }
  return static_cast<uint32_t>(v);
}

}  // namespace

std::optional<CommandKey> ParseCommandText(const std::string& text) {
  const bool hex_prefix = text.size() >= 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X');
  CommandKey key;
  key.extended = text.size() >= 5;
  std::optional<uint32_t> value;
  if (key.extended || hex_prefix) {
    value = ReadNumber(text.substr(hex_prefix ? 2 : 0), 16);
  } else if (text.size() > 1 && text[0] == '0') {
    value = ReadNumber(text.substr(1), 8);  // a leading zero: octal, as the tables allow
  } else {
    value = ReadNumber(text, 10);
  }
  if (!value) return std::nullopt;
  // A plain command is the low byte of its number.
  key.code = key.extended ? *value : (*value & 0xFFu);
  return key;
}

}  // namespace varkel::sim
