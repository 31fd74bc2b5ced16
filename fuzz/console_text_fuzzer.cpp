// What a user types into the console (command and payload, split at the first line break
// of the input), the command texts of the model tables, and the hexadecimal dumps the
// console and the logs show. Checked: an accepted request reads the same from its own
// history text and from every dump of its payload, and accepted command texts agree with
// the C library's reading of the same digits.
#include <algorithm>
#include <cctype>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "console_request.h"
#include "hex_text.h"
#include "ktc_command_text.h"

namespace {

using Bytes = std::vector<uint8_t>;

bool AllHex(const std::string& text) {
  return !text.empty() &&
         std::all_of(text.begin(), text.end(), [](char ch) { return std::isxdigit(static_cast<unsigned char>(ch)); });
}

void CheckHexByte(const std::string& text) {
  uint8_t out = 0x5A;
  const varkel::HexFault fault = varkel::ParseHexByte(text, out);
  if (fault == varkel::HexFault::kInvalid) {
    if (AllHex(text)) __builtin_trap();
    return;
  }
  if (!AllHex(text)) __builtin_trap();
  // All digits; the value may be far beyond what strtoul holds, so compare significant digits.
  const size_t first = text.find_first_not_of('0');
  const std::string digits = first == std::string::npos ? "0" : text.substr(first);
  const bool fits = digits.size() <= 2;
  if ((fault == varkel::HexFault::kNone) != fits) __builtin_trap();
  if (fits && out != std::strtoul(digits.c_str(), nullptr, 16)) __builtin_trap();
}

void CheckCommandText(const std::string& text) {
  for (auto base : {quarn::lidar::CommandTextBase::kAuto, quarn::lidar::CommandTextBase::kHex}) {
    quarn::lidar::KtcCommandText command;
    std::string error;
    if (!quarn::lidar::ParseKtcCommandText(text, command, &error, base)) {
      if (error.empty()) __builtin_trap();
      continue;
    }
    const size_t first = text.find_first_not_of(" \t\r\n");
    const std::string trimmed = text.substr(first, text.find_last_not_of(" \t\r\n") - first + 1);
    if (command.extended != (trimmed.size() >= quarn::lidar::kKtcExtendedTextLength)) __builtin_trap();
    if (command.cmd != (command.extended ? quarn::lidar::kKtcExtendedCmd : (command.code & 0xFF))) __builtin_trap();
    // Accepted digits only, so the C library reads the same value: hexadecimal, or for a
    // short table text the C literal's own base.
    const int c_base = command.extended || base == quarn::lidar::CommandTextBase::kHex ? 16 : 0;
    char* end = nullptr;
    const unsigned long long value = std::strtoull(trimmed.c_str(), &end, c_base);
    if (*end != '\0' || value != command.code) __builtin_trap();
    const Bytes payload = quarn::lidar::BuildCommandPayload(command, {0x01});
    if (payload.size() != quarn::lidar::ReplyFieldOffset(command) + 1 || payload.back() != 0x01) __builtin_trap();
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string input(reinterpret_cast<const char*>(data), size);
  const size_t split = input.find('\n');
  const std::string cmd = input.substr(0, split);
  const std::string payload = split == std::string::npos ? std::string() : input.substr(split + 1);

  CheckHexByte(cmd);
  CheckCommandText(cmd);

  const varkel::ConsoleRequest request = varkel::ParseConsoleRequest(cmd, payload);
  if (request.fault == varkel::ConsoleRequest::Fault::kNone) {
    if (request.hex_fault != varkel::HexFault::kNone) __builtin_trap();
    // The history text is the same request.
    const varkel::ConsoleRequest again = varkel::ParseConsoleRequest(request.cmd_text, request.payload_text);
    if (again.fault != varkel::ConsoleRequest::Fault::kNone || again.cmd != request.cmd ||
        again.payload != request.payload || again.cmd_text != request.cmd_text ||
        again.payload_text != request.payload_text)
      __builtin_trap();
    const size_t pieces = request.payload_text.empty()
                              ? 0
                              : std::count(request.payload_text.begin(), request.payload_text.end(), ' ') + 1;
    if (request.payload.size() != pieces) __builtin_trap();
  } else {
    if (request.hex_fault == varkel::HexFault::kNone || !request.payload.empty()) __builtin_trap();
  }

  // Dumps of the bytes, as the console and the logs show them, read back as the same payload.
  const Bytes bytes(data, data + std::min<size_t>(size, 64));
  const std::string upper = varkel::UpperHexSpaced(bytes.data(), bytes.size());
  const std::string lower = quarn::lidar::ToHexSpaced(bytes);
  if (upper.size() != (bytes.empty() ? 0 : bytes.size() * 3 - 1) || lower.size() != bytes.size() * 3) __builtin_trap();
  for (const std::string& dump : {upper, lower}) {
    const varkel::ConsoleRequest read = varkel::ParseConsoleRequest("0x10", dump);
    if (read.fault != varkel::ConsoleRequest::Fault::kNone || read.payload != bytes || read.cmd != 0x10)
      __builtin_trap();
  }
  return 0;
}
