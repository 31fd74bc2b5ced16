#include "command_key.h"

#include <cctype>

namespace varkel::sim {

std::optional<CommandKey> ParseCommandText(const std::string& text) {
  std::string digits = text;
  if (digits.size() >= 2 && digits[0] == '0' && (digits[1] == 'x' || digits[1] == 'X')) digits = digits.substr(2);
  if (digits.empty() || digits.size() > 8) return std::nullopt;
  uint32_t v = 0;
  for (char c : digits) {
    if (!std::isxdigit(static_cast<unsigned char>(c))) return std::nullopt;
    v = (v << 4) |
        static_cast<uint32_t>(std::isdigit(static_cast<unsigned char>(c)) ? c - '0' : std::tolower(c) - 'a' + 10);
  }
  CommandKey key;
  key.extended = text.size() >= 5;
  key.code = key.extended ? v : (v & 0xFFu);
  if (!key.extended && v > 0xFF) return std::nullopt;
  return key;
}

}  // namespace varkel::sim
