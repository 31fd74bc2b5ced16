#include "command_key.h"

#include <cctype>

namespace varkel::sim {
namespace {

// Value of one digit in `base`, or -1 when it is no digit of that base.
int DigitValue(char c, int base) {
  const unsigned char u = static_cast<unsigned char>(c);
  int v = -1;
  if (std::isdigit(u)) {
    v = c - '0';
  } else if (std::isalpha(u)) {
    v = std::tolower(u) - 'a' + 10;
  }
  return v < base ? v : -1;
}

// The whole of `digits` as a number of `base`; nullopt when empty, not all digits or
// over 32 bits.
std::optional<uint32_t> ReadNumber(const std::string& digits, int base) {
  if (digits.empty()) return std::nullopt;
  uint64_t v = 0;
  for (char c : digits) {
    const int d = DigitValue(c, base);
    if (d < 0) return std::nullopt;
    v = v * static_cast<uint64_t>(base) + static_cast<uint64_t>(d);
    if (v > 0xFFFFFFFFull) return std::nullopt;
  }
  return static_cast<uint32_t>(v);
}

bool HasHexPrefix(const std::string& t) {
  return t.size() >= 2 && t[0] == '0' && (t[1] == 'x' || t[1] == 'X');
}

}  // namespace

std::optional<CommandKey> ParseCommandText(const std::string& text) {
  const size_t first = text.find_first_not_of(" \t\r\n");
  if (first == std::string::npos) return std::nullopt;
  const std::string t = text.substr(first, text.find_last_not_of(" \t\r\n") - first + 1);
  CommandKey key;
  key.extended = t.size() >= 5;
  std::optional<uint32_t> v;
  if (key.extended) {
    v = ReadNumber(HasHexPrefix(t) ? t.substr(2) : t, 16);
  } else if (HasHexPrefix(t)) {
    v = ReadNumber(t.substr(2), 16);
  } else if (t.size() > 1 && t[0] == '0') {
    v = ReadNumber(t.substr(1), 8);
  } else {
    v = ReadNumber(t, 10);
  }
  if (!v) return std::nullopt;
  key.code = key.extended ? *v : (*v & 0xFFu);
  return key;
}

}  // namespace varkel::sim
