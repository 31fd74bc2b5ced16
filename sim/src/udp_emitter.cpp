#include "udp_emitter.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <chrono>
#include <cstdlib>
#include <cstring>

#include "platform/net.h"
#include "point_cloud.h"

namespace varkel::sim {

namespace net = quarn::lidar::net;

bool ParseHostPort(const std::string& text, uint32_t* addr, uint16_t* port, std::string* error) {
  const size_t colon = text.rfind(':');
  if (colon == std::string::npos || colon == 0 || colon + 1 == text.size()) {
    if (error) *error = "expected HOST:PORT, got \"" + text + "\"";
    return false;
  }
  const std::string host = text.substr(0, colon);
  char* end = nullptr;
  const long p = std::strtol(text.c_str() + colon + 1, &end, 10);
  if (*end != '\0' || p < 1 || p > 65535) {
    if (error) *error = "bad port in \"" + text + "\"";
    return false;
  }
  in_addr a{};
  if (inet_pton(AF_INET, host.c_str(), &a) != 1) {
    addrinfo hints{};
    hints.ai_family = AF_INET;
    hints.ai_socktype = SOCK_DGRAM;
    addrinfo* res = nullptr;
    if (getaddrinfo(host.c_str(), nullptr, &hints, &res) != 0 || res == nullptr) {
      if (error) *error = "cannot resolve host \"" + host + "\"";
      return false;
    }
    a = reinterpret_cast<sockaddr_in*>(res->ai_addr)->sin_addr;
    freeaddrinfo(res);
  }
  *addr = a.s_addr;
  *port = static_cast<uint16_t>(p);
  return true;
}

bool UdpEmitter::Start(const std::string& target, int rate, std::string* error) {
  if (rate <= 0) {
    if (error) *error = "the datagram rate must be at least 1 per second";
    return false;
  }
  if (!ParseHostPort(target, &addr_, &port_, error)) return false;
  net::Startup();
  fd_ = socket(AF_INET, SOCK_DGRAM, 0);
  if (fd_ < 0) {
    if (error) *error = std::string("udp socket: ") + quarn::lidar::net::ErrorText(errno);
    net::Cleanup();
    return false;
  }
  const uint32_t host_order = ntohl(addr_);
  if ((host_order >> 28) == 0xE) {
    const unsigned char ttl = 1;
    const unsigned char loop = 1;
    in_addr lo{};
    lo.s_addr = htonl(INADDR_LOOPBACK);
    setsockopt(fd_, IPPROTO_IP, IP_MULTICAST_TTL, &ttl, sizeof(ttl));
    setsockopt(fd_, IPPROTO_IP, IP_MULTICAST_LOOP, &loop, sizeof(loop));
    setsockopt(fd_, IPPROTO_IP, IP_MULTICAST_IF, &lo, sizeof(lo));
  }
  rate_ = rate;
  {
    std::lock_guard<std::mutex> lock(mu_);
    stop_ = false;
  }
  thread_ = std::thread(&UdpEmitter::Run, this);
  return true;
}

void UdpEmitter::Stop() {
  {
    std::lock_guard<std::mutex> lock(mu_);
    stop_ = true;
  }
  cv_.notify_all();
  if (thread_.joinable()) thread_.join();
  if (fd_ >= 0) {
    net::CloseSocket(fd_);
    net::Cleanup();
    fd_ = -1;
  }
}

void UdpEmitter::Run() {
  using clock = std::chrono::steady_clock;
  const auto start = clock::now();
  const auto period = std::chrono::microseconds(1000000 / rate_);
  auto next = start;
  sockaddr_in to{};
  to.sin_family = AF_INET;
  to.sin_addr.s_addr = addr_;
  to.sin_port = htons(port_);
  for (uint32_t seq = 0;; ++seq) {
    {
      std::unique_lock<std::mutex> lock(mu_);
      if (cv_.wait_until(lock, next, [this] { return stop_; })) return;
    }
    next += period;
    const auto us = std::chrono::duration_cast<std::chrono::microseconds>(clock::now() - start).count();
    const auto packet = BuildPointCloudPacket(seq, static_cast<uint64_t>(us));
    path_.Send("UDP", packet, [&](const std::vector<uint8_t>& bytes) {
      const ssize_t n = sendto(fd_, bytes.data(), bytes.size(), 0, reinterpret_cast<const sockaddr*>(&to), sizeof(to));
      if (n == static_cast<ssize_t>(bytes.size())) sent_.fetch_add(1);
      return n == static_cast<ssize_t>(bytes.size());
    });
  }
}

}  // namespace varkel::sim
