#pragma once
// Why the point data does not reach this machine, in words: the sensor's destination
// variables against this machine's addresses, the port listened on and what arrived.

#include <optional>
#include <string>
#include <vector>

#include "stream_monitor.h"

namespace quarn::lidar {

// The table rows that say where a sensor sends its data.
inline constexpr const char* kDestinationIpName = "Destination IP";
inline constexpr const char* kDataPortName = "Data Port";
inline constexpr const char* kDestinationModeName = "Destination Mode";

struct StreamContext {
  bool sensor_connected = false;
  std::string sensor_address;  // the connected sensor's address
  // The address this machine reaches the sensor from: where the data should go.
  std::string local_address;
  // The sensor's destination variables; nullopt when its table lacks them or they could
  // not be read.
  std::optional<std::string> destination_ip;
  std::optional<uint16_t> data_port;
  std::optional<std::string> destination_mode;  // the option's text, such as "1_Multicast"
  // This machine's addresses, and those that reach every host of one of its networks.
  std::vector<std::string> local_addresses;
  std::vector<std::string> broadcast_addresses;
};

struct StreamDiagnosis {
  std::vector<std::string> lines;  // empty: nothing to say
  // Variables to write so that the data comes here, in order (name, value); empty when
  // writing would not help.
  std::vector<std::pair<std::string, std::string>> fix;
};

StreamDiagnosis Diagnose(const StreamFigures& figures, const StreamContext& context);

// This machine's IPv4 interface addresses and their broadcast addresses (getifaddrs).
void LocalAddresses(std::vector<std::string>* addresses, std::vector<std::string>* broadcasts);
// The local address the system sends from to reach `peer` ("" when there is no route);
// no datagram leaves.
std::string LocalAddressTowards(const std::string& peer);

}  // namespace quarn::lidar
