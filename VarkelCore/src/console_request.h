#pragma once
// What the user types into a console (the window's or the command line's): a command byte
// and a payload as hexadecimal text, read strictly so that a slip never sends a command
// that was not meant.

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace varkel {

// Codes after whose reply the sensor goes away to restart.
constexpr uint8_t kConsoleRestartCmd = 0x10;
constexpr uint8_t kConsoleResetCmd = 0x25;

enum class HexFault { kNone, kInvalid, kOutOfRange };

struct ConsoleRequest {
  enum class Fault { kNone, kHeader, kPayload };
  // The texts as they are recorded: blanks around and "0x" prefixes gone, payload pieces
  // joined by one blank, in the case typed.
  std::string cmd_text;
  std::string payload_text;
  uint8_t cmd = 0;
  std::vector<uint8_t> payload;
  Fault fault = Fault::kNone;
  HexFault hex_fault = HexFault::kNone;  // why the header or a payload piece was refused
};

// The whole text must be hexadecimal digits ("1g" is refused, not read as 1); anything
// above one byte is out of range, however many digits it has.
HexFault ParseHexByte(const std::string& text, uint8_t& out);

// Reads a command and a payload typed by hand. The payload is split at each blank; an
// empty piece (two blanks in a row, a lone "0x") is refused rather than skipped, since
// skipping it would move every later byte.
ConsoleRequest ParseConsoleRequest(const std::string& cmd, const std::string& payload);

// "0A FF 01": upper-case pairs, one blank between bytes.
std::string UpperHexSpaced(const uint8_t* data, size_t length);

}  // namespace varkel
