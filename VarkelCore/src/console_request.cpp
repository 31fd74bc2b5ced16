#include "console_request.h"

namespace varkel {
namespace {

std::string WithoutHexPrefix(const std::string& text) {
  if (text.size() >= 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X')) return text.substr(2);
  return text;
}

std::string TrimBlanks(const std::string& text) {
  const size_t first = text.find_first_not_of(" \t");
  if (first == std::string::npos) return "";
  return text.substr(first, text.find_last_not_of(" \t") - first + 1);
}

}  // namespace

HexFault ParseHexByte(const std::string& text, uint8_t& out) {
  if (text.empty()) return HexFault::kInvalid;
  unsigned value = 0;
  bool too_big = false;
  for (char c : text) {
    unsigned digit;
    if (c >= '0' && c <= '9')
      digit = static_cast<unsigned>(c - '0');
    else if (c >= 'a' && c <= 'f')
      digit = static_cast<unsigned>(c - 'a' + 10);
    else if (c >= 'A' && c <= 'F')
      digit = static_cast<unsigned>(c - 'A' + 10);
    else
      return HexFault::kInvalid;
    if (!too_big) {
      value = value * 16 + digit;
      too_big = value > 0xFF;
    }
  }
  if (too_big) return HexFault::kOutOfRange;
  out = static_cast<uint8_t>(value);
  return HexFault::kNone;
}

ConsoleRequest ParseConsoleRequest(const std::string& cmd, const std::string& payload) {
  ConsoleRequest request;
  request.cmd_text = WithoutHexPrefix(TrimBlanks(cmd));
  std::vector<std::string> pieces;
  const std::string payload_in = TrimBlanks(payload);
  if (!payload_in.empty()) {
    size_t start = 0;
    while (true) {
      const size_t blank = payload_in.find(' ', start);
      pieces.push_back(WithoutHexPrefix(payload_in.substr(start, blank - start)));
      if (blank == std::string::npos) break;
      start = blank + 1;
    }
  }
  for (size_t i = 0; i < pieces.size(); ++i) request.payload_text += (i > 0 ? " " : "") + pieces[i];

  request.hex_fault = ParseHexByte(request.cmd_text, request.cmd);
  if (request.hex_fault != HexFault::kNone) {
    request.fault = ConsoleRequest::Fault::kHeader;
    return request;
  }
  request.payload.reserve(pieces.size());
  for (const std::string& piece : pieces) {
    uint8_t byte = 0;
    request.hex_fault = ParseHexByte(piece, byte);
    if (request.hex_fault != HexFault::kNone) {
      request.fault = ConsoleRequest::Fault::kPayload;
      request.payload.clear();
      return request;
    }
    request.payload.push_back(byte);
  }
  return request;
}

std::string UpperHexSpaced(const uint8_t* data, size_t length) {
  static const char kDigits[] = "0123456789ABCDEF";
  std::string text;
  text.reserve(length * 3);
  for (size_t i = 0; i < length; ++i) {
    if (i > 0) text += ' ';
    text += kDigits[data[i] >> 4];
    text += kDigits[data[i] & 0x0F];
  }
  return text;
}

}  // namespace varkel
