#include "ktc_command_text.h"

#include <cctype>

namespace quarn::lidar {
namespace {

bool Fail(std::string* error, const char* reason) {
  if (error != nullptr) *error = reason;
  return false;
}

}  // namespace

bool ParseKtcCommandText(const std::string& text, KtcCommandText& out, std::string* error, CommandTextBase base) {
  const size_t first = text.find_first_not_of(" \t\r\n");
  if (first == std::string::npos) return Fail(error, "empty command text");
  const size_t last = text.find_last_not_of(" \t\r\n");
  const std::string trimmed = text.substr(first, last - first + 1);
  const bool extended = trimmed.size() >= kKtcExtendedTextLength;

  size_t pos = 0;
  uint64_t radix = 16;
  const bool hex_prefix = trimmed.size() >= 2 && trimmed[0] == '0' && (trimmed[1] == 'x' || trimmed[1] == 'X');
  if (hex_prefix) {
    pos = 2;
  } else if (!extended && base == CommandTextBase::kAuto) {
    // As a C integer literal: a leading 0 means octal, otherwise decimal.
    radix = trimmed.size() > 1 && trimmed[0] == '0' ? 8 : 10;
  }
  if (pos == trimmed.size()) return Fail(error, "command text has no digits");

  uint64_t value = 0;
  for (; pos < trimmed.size(); ++pos) {
    const int c = std::tolower(static_cast<unsigned char>(trimmed[pos]));
    uint64_t digit = radix;  // not a digit unless found below
    if (c >= '0' && c <= '9') digit = static_cast<uint64_t>(c - '0');
    if (c >= 'a' && c <= 'f') digit = static_cast<uint64_t>(c - 'a' + 10);
    if (digit >= radix) {
      return Fail(error, radix == 16  ? "command text is not hexadecimal"
                         : radix == 8 ? "command text is not octal"
                                      : "command text is not a decimal number");
    }
    value = value * radix + digit;
    if (value > 0xFFFFFFFFull) return Fail(error, "command code exceeds 32 bits");
  }

  out.code = static_cast<uint32_t>(value);
  out.extended = extended;
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
