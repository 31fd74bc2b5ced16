#include "small_sensor_messages.h"

#include <cctype>
#include <cstdio>

namespace quarn::lidar::small_sensor {
namespace {

constexpr size_t kVersionRequestLength = 27;
constexpr size_t kVersionReplyLength = 30;
constexpr size_t kVersionTextLength = 24;
constexpr size_t kSerialReplyLength = 20;
constexpr size_t kSerialTextLength = 16;
constexpr uint8_t kSafetyMark = 0xA1;
constexpr size_t kNetworkBlockLength = 18;
constexpr size_t kMaxCorrectionPieceData = 250;

bool Echoes(const std::vector<uint8_t>& body, uint8_t type, uint8_t item) {
  return body.size() >= 3 && body[1] == type && body[2] == item;
}

std::string TextUpToNul(const std::vector<uint8_t>& body, size_t from, size_t length) {
  std::string text;
  for (size_t i = from; i < from + length && i < body.size() && body[i] != 0; ++i)
    text.push_back(static_cast<char>(body[i]));
  return text;
}

std::string Dotted(const uint8_t* b) {
  return std::to_string(b[0]) + "." + std::to_string(b[1]) + "." + std::to_string(b[2]) + "." + std::to_string(b[3]);
}

}  // namespace

std::vector<uint8_t> VersionRequest(uint8_t which) {
  std::vector<uint8_t> p(kVersionRequestLength, 0);
  p[0] = kItemVersion;
  p[1] = which;
  return p;
}

std::vector<uint8_t> CorrectionRequest(uint8_t piece) {
  if (piece == 0) return {kItemCorrection};
  return {kItemCorrection, piece};
}

int ImuAngularCode(int index) {
  static constexpr int kCodes[] = {0, 1, 2, 3, 4, 8};
  if (index < 0 || index > 5) return -1;
  return kCodes[index];
}

int SetReplyStatus(const std::vector<uint8_t>& body, uint8_t item) {
  if (body.size() != 5 || !Echoes(body, kSet, item)) return kBadShape;
  return body[4];
}

std::optional<CorrectionPiece> ParseCorrectionPiece(const std::vector<uint8_t>& body) {
  if (body.size() < 6 || !Echoes(body, kGet, kItemCorrection)) return std::nullopt;
  const size_t n = body[4];
  // A serial reply's length byte keeps a piece within 250 bytes; a KTC payload has no such
  // bound, so the rule is checked here.
  if (n > kMaxCorrectionPieceData || body.size() != n + 6 || body[3] == 0) return std::nullopt;
  CorrectionPiece piece;
  piece.pieces = body[3];
  piece.data.assign(body.begin() + 5, body.begin() + 5 + static_cast<std::ptrdiff_t>(n));
  return piece;
}

std::optional<SafetyState> ParseSafety(const std::vector<uint8_t>& body) {
  if (body.size() < 5 || !Echoes(body, kGet, kItemSafety) || body[3] != kSafetyMark) return std::nullopt;
  if ((body.size() - 5) % 2 != 0) return std::nullopt;
  SafetyState s;
  s.state = body[4];
  for (size_t i = 5; i + 1 < body.size(); i += 2) {
    const auto code = static_cast<uint16_t>(body[i] | (body[i + 1] << 8));
    if (code != 0) s.faults.push_back(code);
  }
  return s;
}

std::string SafetyStateText(uint8_t state) {
  switch (state) {
    case 0:
      return "Normal";
    case 1:
      return "Warning";
    case 2:
      return "Shutdown";
    default:
      return std::to_string(state);
  }
}

std::string FaultCodeText(uint16_t code) {
  char text[8];
  std::snprintf(text, sizeof(text), "0x%02X", static_cast<unsigned>(code));
  return text;
}

std::optional<std::string> ParseSerialNumber(const std::vector<uint8_t>& body) {
  if (body.size() != kSerialReplyLength || !Echoes(body, kGet, kItemSerialNumber) || body[3] != 1) return std::nullopt;
  return TextUpToNul(body, 4, kSerialTextLength);
}

bool ValidSerialNumber(const std::string& text) {
  if (text.empty() || text.size() > kSerialTextLength) return false;
  for (char c : text)
    if (!std::isalnum(static_cast<unsigned char>(c)) && c != '-' && c != '_') return false;
  return true;
}

int ImuReplyStatus(const std::vector<uint8_t>& body) {
  if (body.size() != 6 || !Echoes(body, kGet, kItemImuRange)) return kBadShape;
  return body[3];
}

int ParseVersion(const std::vector<uint8_t>& body, uint8_t which, std::string& text) {
  text.clear();
  if (body.size() != kVersionReplyLength || !Echoes(body, kGet, kItemVersion) || body[3] != which) return kBadShape;
  if (body[4 + kVersionTextLength] != 0) return body[4 + kVersionTextLength];
  text = TextUpToNul(body, 4, kVersionTextLength);
  const auto first = text.find_first_not_of(' ');
  const auto last = text.find_last_not_of(' ');
  text = first == std::string::npos ? std::string() : text.substr(first, last - first + 1);
  return 0;
}

std::vector<uint8_t> BaudRateQuery() {
  return {0x00, 0x01};
}

int OtaReplyStatus(const std::vector<uint8_t>& body, uint8_t type) {
  if (body.size() != 3 || body[0] != 1 || body[1] != type) return kBadShape;
  return body[2];
}

int ChangeModeReplyStatus(const std::vector<uint8_t>& body, uint8_t mode, uint32_t& partition) {
  if (body.size() != 6 || body[0] != 4 || !Echoes(body, kSet, kItemWorkMode) || body[3] != mode) return kBadShape;
  if (body[4] == 0) partition = body[5];
  return body[4];
}

std::vector<uint8_t> BaudRateSet(uint32_t rate) {
  return {0x00,
          0x01,
          0x39,
          static_cast<uint8_t>(rate >> 24),
          static_cast<uint8_t>(rate >> 16),
          static_cast<uint8_t>(rate >> 8),
          static_cast<uint8_t>(rate)};
}

std::optional<uint32_t> ParseBaudRate(const std::vector<uint8_t>& payload) {
  if (payload.size() != 4) return std::nullopt;
  return (uint32_t{payload[0]} << 24) | (uint32_t{payload[1]} << 16) | (uint32_t{payload[2]} << 8) | payload[3];
}

std::optional<NetworkBlock> ParseNetworkBlock(const std::vector<uint8_t>& payload) {
  if (payload.size() < kNetworkBlockLength) return std::nullopt;
  NetworkBlock b;
  b.lidar_ip = Dotted(payload.data());
  b.destination_ip = Dotted(payload.data() + 12);
  b.destination_port = static_cast<uint16_t>((payload[16] << 8) | payload[17]);
  return b;
}

std::optional<std::vector<uint8_t>> DestinationPayload(const std::string& ip, int port) {
  if (port < 0 || port > 0xFFFF) return std::nullopt;
  std::vector<uint8_t> p;
  size_t start = 0;
  for (int part = 0; part < 4; ++part) {
    const size_t dot = ip.find('.', start);
    const std::string piece = ip.substr(start, dot == std::string::npos ? std::string::npos : dot - start);
    if ((part < 3) == (dot == std::string::npos)) return std::nullopt;
    if (piece.empty() || piece.size() > 3) return std::nullopt;
    int value = 0;
    for (char c : piece) {
      if (!std::isdigit(static_cast<unsigned char>(c))) return std::nullopt;
      value = value * 10 + (c - '0');
    }
    if (value > 255) return std::nullopt;
    p.push_back(static_cast<uint8_t>(value));
    start = dot + 1;
  }
  p.push_back(static_cast<uint8_t>(port >> 8));
  p.push_back(static_cast<uint8_t>(port));
  return p;
}

}  // namespace quarn::lidar::small_sensor
