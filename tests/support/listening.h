#pragma once
// A virtual lidar that restarts is away for a while; tests wait until it listens again.

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>

#include "wait_until.h"

namespace vktest {

// True once a connection to `port` on loopback is accepted (the probe is closed at once).
inline bool WaitListening(uint16_t port, std::chrono::milliseconds timeout = std::chrono::seconds(20)) {
  return PollUntil(
      [port] {
        const int fd = socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in addr{};
        addr.sin_family = AF_INET;
        addr.sin_port = htons(port);
        addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        const bool up = connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0;
        close(fd);
        return up;
      },
      timeout);
}

// A socket of `type` (SOCK_DGRAM, SOCK_STREAM) bound on `address` at a port the system
// picks, which goes to *port; -1 when it cannot be bound.
inline int HoldPort(int type, uint16_t* port, uint32_t address = INADDR_ANY) {
  const int fd = socket(AF_INET, type, 0);
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_addr.s_addr = htonl(address);
  socklen_t len = sizeof(a);
  if (bind(fd, reinterpret_cast<sockaddr*>(&a), len) != 0) {
    close(fd);
    return -1;
  }
  getsockname(fd, reinterpret_cast<sockaddr*>(&a), &len);
  *port = ntohs(a.sin_port);
  return fd;
}

// A port of `type` nobody holds now (bound once, then released).
inline uint16_t FreePort(int type) {
  uint16_t port = 0;
  close(HoldPort(type, &port));
  return port;
}
inline uint16_t FreeUdpPort() {
  return FreePort(SOCK_DGRAM);
}

}  // namespace vktest
