#include "ktc_command_text.h"

#include <cctype>

namespace quarn::lidar {
namespace {

bool Fail(std::string* error, const char* reason) {
  if (error != nullptr) *error = reason;
  return false;
}

}  // namespace

bool ParseKtcCommandText(const std::string& text, KtcCommandText& out, std::string* error) {
  const size_t first = text.find_first_not_of(" \t\r\n");
  if (first == std::string::npos) return Fail(error, "empty command text");
  const size_t last = text.find_last_not_of(" \t\r\n");
  const std::string trimmed = text.substr(first, last - first + 1);

  size_t pos = 0;
  if (trimmed.size() >= 2 && trimmed[0] == '0' && (trimmed[1] == 'x' || trimmed[1] == 'X')) pos = 2;
  if (pos == trimmed.size()) return Fail(error, "command text has no digits");

  uint64_t value = 0;
  for (; pos < trimmed.size(); ++pos) {
    const unsigned char c = static_cast<unsigned char>(trimmed[pos]);
    if (!std::isxdigit(c)) return Fail(error, "command text is not hexadecimal");
    const uint64_t digit = std::isdigit(c) ? c - '0' : static_cast<uint64_t>(std::tolower(c) - 'a' + 10);
    value = value * 16 + digit;
    if (value > 0xFFFFFFFFull) return Fail(error, "command code exceeds 32 bits");
  }

  out.code = static_cast<uint32_t>(value);
  out.extended = trimmed.size() >= kKtcExtendedTextLength;
  out.cmd = out.extended ? kKtcExtendedCmd : static_cast<uint8_t>(value & 0xFF);
  return true;
}

std::vector<uint8_t> BuildCommandPayload(const KtcCommandText& command, const std::vector<uint8_t>& payload) {
  if (!command.extended) return payload;
  std::vector<uint8_t> out;
  out.reserve(4 + payload.size());
  out.push_back(static_cast<uint8_t>(command.code >> 24));
  out.push_back(static_cast<uint8_t>(command.code >> 16));
  out.push_back(static_cast<uint8_t>(command.code >> 8));
  out.push_back(static_cast<uint8_t>(command.code));
  out.insert(out.end(), payload.begin(), payload.end());
  return out;
}

}  // namespace quarn::lidar
