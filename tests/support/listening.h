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

// A UDP port nobody holds now on any address (bound once, then released).
inline uint16_t FreeUdpPort() {
  const int fd = socket(AF_INET, SOCK_DGRAM, 0);
  sockaddr_in a{};
  a.sin_family = AF_INET;
  socklen_t len = sizeof(a);
  bind(fd, reinterpret_cast<sockaddr*>(&a), len);
  getsockname(fd, reinterpret_cast<sockaddr*>(&a), &len);
  close(fd);
  return ntohs(a.sin_port);
}

}  // namespace vktest
