#pragma once
// Command texts of the model tables and the console, e.g. "0x21" or "0x1A05".
// A text of five or more characters is an extended command: it travels as KTC command
// 0xFF with its 4-byte big-endian code ahead of the payload, and its reply carries the
// same four bytes ahead of its fields. Shorter texts are plain commands (the low byte).

#include <cstdint>
#include <string>
#include <vector>

namespace quarn::lidar {

constexpr uint8_t kKtcExtendedCmd = 0xFF;
// Texts at least this long are extended commands.
constexpr size_t kKtcExtendedTextLength = 5;

struct KtcCommandText {
  uint8_t cmd = 0;
  bool extended = false;
  uint32_t code = 0;  // the whole value; for plain commands cmd is its low byte
};

// How a plain (shorter than five characters) command text is read.
enum class CommandTextBase {
  kAuto,  // the model tables: "0x21" hexadecimal, "010" octal, "21" decimal
  kHex,   // typed by hand: always hexadecimal, "0x" optional
};

// Surrounding blanks are ignored. Extended texts are hexadecimal with or without
// "0x"/"0X", at most 32 bits; plain ones are read in `base` and keep their low byte.
// Returns false (with a reason in *error when given) for anything else.
bool ParseKtcCommandText(const std::string& text, KtcCommandText& out, std::string* error = nullptr,
                         CommandTextBase base = CommandTextBase::kAuto);

// The request payload: the 4-byte code ahead of `payload` for extended commands.
std::vector<uint8_t> BuildCommandPayload(const KtcCommandText& command, const std::vector<uint8_t>& payload);

// Bytes an extended command's reply carries ahead of its fields.
inline size_t ReplyFieldOffset(const KtcCommandText& command) {
  return command.extended ? 4 : 0;
}

}  // namespace quarn::lidar
