// What the parts of VirtualLidar share: wire constants, the write helper, and the types
// behind its private declarations. Included only by the virtual_lidar*.cpp files.
#pragma once

#include <atomic>
#include <cstdint>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "device_log.h"
#include "ktc_wire.h"
#include "virtual_lidar.h"

namespace varkel::sim {

namespace lidar_parts {

inline constexpr int kPollMs = 100;
inline constexpr int kDefaultUdpRate = 10;
// The registers a sensor's data stream follows.
inline constexpr const char* kDestinationIpRegister = "Destination IP";
inline constexpr const char* kDataPortRegister = "Data Port";
// The small serial sensors' KTC side: 0xFF with 00 01 39 + rate sets the baud rate,
// 0xFF with 00 01 asks for it.
inline constexpr uint8_t kBaudPrefix[] = {0x00, 0x01, 0x39};
// The small sensors' network block (read) and destination (write) over KTC.
inline constexpr uint8_t kNetworkBlockCmd = 0x08;
inline constexpr uint8_t kSetDestinationCmd = 0x20;
// A whole "$LDOTA," frame carried by KTC, and the junction box's file command.
inline constexpr uint8_t kOtaCmd = 0x84;
inline constexpr uint8_t kJunctionBoxCmd = 0x83;
inline constexpr uint32_t kBaudRates[] = {9600,    19200,   38400,   57600,   115200,  230400,  460800, 921600,
                                          1000000, 1500000, 2000000, 3000000, 3125000, 4000000, 5000000};

// A KTC client reading a log of tens of MiB slowly is still reading; one that takes
// nothing for this long is gone. A serial line nobody reads gives up much sooner, so the
// serial thread is not held up.
inline constexpr int kSocketStallMs = 30000;
inline constexpr int kSerialStallMs = 1000;
// A client that has not finished the TLS handshake by then is not going to.
inline constexpr int kTlsHandshakeMs = 10000;

// Writes everything, waiting while the descriptor is full, until it took nothing for the
// stall limit. A socket shut down by Stop or a restart fails the write at once.
bool WriteAll(int fd, const std::vector<uint8_t>& bytes, bool socket);

inline std::vector<uint8_t> CodeBytes(uint32_t code) {
  std::vector<uint8_t> b(4);
  WriteU32BE(b.data(), code);
  return b;
}

// The title of a log's lines: the variable's name, and for the operation log the part the
// selector picks. nullopt when the selector does not fit the log.
template <typename Log>
std::optional<std::string> LogTitle(const Log& log, std::optional<uint16_t> selector) {
  if (!log.operation) return selector ? std::nullopt : std::optional<std::string>(log.name);
  if (!selector) return std::nullopt;
  const auto part = OperationLogPartOf(*selector);
  if (!part) return std::nullopt;
  return log.name + " " + part->name;
}

}  // namespace lidar_parts

struct VirtualLidar::Connection {
  int fd = -1;  // guarded by conn_mu_ once the thread runs
  std::thread thread;
  std::atomic<bool> done{false};
};

struct VirtualLidar::Reply {
  bool send = true;
  uint8_t return_code = 0;
  std::vector<uint8_t> payload;
  bool close_after = false;
  Lifecycle lifecycle = Lifecycle::kNone;  // what the sensor does once the reply is out
};

}  // namespace varkel::sim
