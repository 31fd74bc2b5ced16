#pragma once
// Request payloads and reply checks of the small serial sensors' functions. Pure: no I/O,
// no Qt. The bodies are serial reply bodies, [length, request type, item, ...], whichever
// link carried them (docs/small-sensors.md).

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace quarn::lidar::small_sensor {

constexpr uint8_t kGet = 2;
constexpr uint8_t kSet = 3;

constexpr uint8_t kItemWorking = 0;
constexpr uint8_t kItemCorrection = 7;
constexpr uint8_t kItemStrongestReturn = 8;
constexpr uint8_t kItemSafety = 8;
constexpr uint8_t kItemLastReturn = 9;
constexpr uint8_t kItemSpinRate = 10;
constexpr uint8_t kItemSerialNumber = 10;
constexpr uint8_t kItemStandby = 11;
constexpr uint8_t kItemImuRange = 11;
constexpr uint8_t kItemVersion = 15;
constexpr uint8_t kItemWorkMode = 12;  // set: the work mode; 4 = upgrade

constexpr uint8_t kVersionBmbFpga = 0;
constexpr uint8_t kVersionTmbFpga = 1;
constexpr uint8_t kVersionBmbMcu = 2;
constexpr uint8_t kVersionPbl = 5;

constexpr int kBadShape = -2;

// [15, which, 25 zero bytes].
std::vector<uint8_t> VersionRequest(uint8_t which);
// [7] for piece 0, [7, k] after it.
std::vector<uint8_t> CorrectionRequest(uint8_t piece);
// Angular index 0-5 -> sensor code (5 is sent as 8); -1 for an index outside the table.
int ImuAngularCode(int index);

// Status of a 5-byte set reply for `item`: 0, the sensor's code, or kBadShape.
int SetReplyStatus(const std::vector<uint8_t>& body, uint8_t item);

struct CorrectionPiece {
  uint8_t pieces = 0;
  std::vector<uint8_t> data;
};
std::optional<CorrectionPiece> ParseCorrectionPiece(const std::vector<uint8_t>& body);

struct SafetyState {
  uint8_t state = 0;
  std::vector<uint16_t> faults;  // empty slots (0) left out
};
std::optional<SafetyState> ParseSafety(const std::vector<uint8_t>& body);
// "Normal", "Warning", "Shutdown", or the number in decimal.
std::string SafetyStateText(uint8_t state);
// "0x" + at least two upper-case hexadecimal digits.
std::string FaultCodeText(uint16_t code);

// The text up to the first NUL of a 20-byte serial-number reply; nullopt for another shape.
std::optional<std::string> ParseSerialNumber(const std::vector<uint8_t>& body);
bool ValidSerialNumber(const std::string& text);

// Status of a 6-byte IMU range reply: 0, the sensor's code, or kBadShape.
int ImuReplyStatus(const std::vector<uint8_t>& body);

// Version reply of `which`: 0 with the text (up to NUL, blanks trimmed), the sensor's
// status code, or kBadShape.
int ParseVersion(const std::vector<uint8_t>& body, uint8_t which, std::string& text);

// Status of an OTA reply body [1, echoed type, status] for a frame of `type`: the status
// (0 taken), or kBadShape for another shape or echo.
int OtaReplyStatus(const std::vector<uint8_t>& body, uint8_t type);

// Status of the change-mode reply [4, 3, 12, mode, status, partition]: the status, with
// `partition` set when it is 0; kBadShape for another shape.
int ChangeModeReplyStatus(const std::vector<uint8_t>& body, uint8_t mode, uint32_t& partition);

// KTC 0xFF payloads of the baud rate.
constexpr uint8_t kBaudRateCmd = 0xFF;
std::vector<uint8_t> BaudRateQuery();
std::vector<uint8_t> BaudRateSet(uint32_t rate);
std::optional<uint32_t> ParseBaudRate(const std::vector<uint8_t>& payload);

struct NetworkBlock {
  std::string lidar_ip;
  std::string destination_ip;
  uint16_t destination_port = 0;
};
// The 0x08 reply: at least 18 bytes.
std::optional<NetworkBlock> ParseNetworkBlock(const std::vector<uint8_t>& payload);
// The 0x20 payload from a dotted address text and a port; nullopt when either is malformed.
std::optional<std::vector<uint8_t>> DestinationPayload(const std::string& ip, int port);

}  // namespace quarn::lidar::small_sensor
