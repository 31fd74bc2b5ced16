#pragma once
// One received datagram (or, from a serial source, one run of streamed bytes).

#include <cstddef>
#include <cstdint>

namespace quarn::lidar {

// Big enough for any datagram, so a datagram is never cut; callers read at most 1500.
constexpr size_t kUdpPacketDataSize = 65536;

struct UdpPacket {
  uint8_t data[kUdpPacketDataSize];
  uint32_t sender_ip = 0;    // IPv4, network order
  uint16_t sender_port = 0;  // host order
  bool timeout = false;      // the last receive waited its full time-out
};

}  // namespace quarn::lidar
