#include "udp_emitter.h"

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>
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

bool StaysOnThisMachine(uint32_t addr) {
  const uint32_t host = ntohl(addr);
  if ((host >> 24) == 127 || (host >> 28) == 0xE) return true;
  if (host == 0 || host == 0xFFFFFFFFu) return false;
  ifaddrs* list = nullptr;
  if (getifaddrs(&list) != 0) return false;
  bool local = false;
  for (const ifaddrs* i = list; i && !local; i = i->ifa_next) {
    if (i->ifa_addr && i->ifa_addr->sa_family == AF_INET)
      local = reinterpret_cast<const sockaddr_in*>(i->ifa_addr)->sin_addr.s_addr == addr;
  }
  freeifaddrs(list);
  return local;
}

bool UdpEmitter::Start(const std::string& target, int rate, size_t size, std::string* error, TargetSource source) {
  if (rate <= 0) {
    if (error) *error = "the datagram rate must be at least 1 per second";
    return false;
  }
  if (size != 0 && (size < kMinSize || size > kMaxSize)) {
    if (error) *error = "the datagram size must be from 64 to 1472 bytes";
    return false;
  }
  Target t;
  if (!ParseHostPort(target, &t.addr, &t.port, error)) return false;
  net::Startup();
  fd_ = socket(AF_INET, SOCK_DGRAM, 0);
  if (fd_ < 0) {
    if (error) *error = std::string("udp socket: ") + quarn::lidar::net::ErrorText(errno);
    net::Cleanup();
    return false;
  }
  // Groups go out of loopback only and die at the first router.
  const unsigned char ttl = 1;
  const unsigned char loop = 1;
  in_addr lo{};
  lo.s_addr = htonl(INADDR_LOOPBACK);
  setsockopt(fd_, IPPROTO_IP, IP_MULTICAST_TTL, &ttl, sizeof(ttl));
  setsockopt(fd_, IPPROTO_IP, IP_MULTICAST_LOOP, &loop, sizeof(loop));
  setsockopt(fd_, IPPROTO_IP, IP_MULTICAST_IF, &lo, sizeof(lo));
  rate_ = rate;
  size_ = size;
  source_ = std::move(source);
  {
    std::lock_guard<std::mutex> lock(mu_);
    stop_ = false;
    addr_ = 0;
    port_ = 0;
  }
  Retarget(t);
  thread_ = std::thread(&UdpEmitter::Run, this);
  return true;
}

void UdpEmitter::Retarget(const Target& t) {
  {
    std::lock_guard<std::mutex> lock(mu_);
    if (t.addr == addr_ && t.port == port_) return;
  }
  const bool on_wire = StaysOnThisMachine(t.addr);
  {
    std::lock_guard<std::mutex> lock(mu_);
    addr_ = t.addr;
    port_ = t.port;
    on_wire_ = on_wire;
  }
  in_addr a{};
  a.s_addr = t.addr;
  const std::string where = std::string(inet_ntoa(a)) + ":" + std::to_string(t.port);
  path_.Note(on_wire
                 ? "UDP: datagrams to " + where
                 : "UDP: datagrams to " + where + " are counted but not sent: it is not an address of this machine");
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

std::vector<uint8_t> UdpEmitter::Packet(uint32_t seq, uint64_t time_us) const {
  if (size_ == 0) return BuildPointCloudPacket(seq, time_us);
  const size_t points = std::min<size_t>(255, (size_ - kPointCloudHeader) / kPointSize);
  auto packet = BuildPointCloudPacket(seq, time_us, static_cast<uint8_t>(points));
  packet.resize(size_, 0);
  return packet;
}

void UdpEmitter::Run() {
  using clock = std::chrono::steady_clock;
  const auto start = clock::now();
  const auto period = std::chrono::nanoseconds(1000000000LL / rate_);
  const auto retarget_every = std::chrono::milliseconds(100);
  auto next = start;
  auto next_retarget = start + retarget_every;
  for (uint32_t seq = 0;; ++seq) {
    sockaddr_in to{};
    to.sin_family = AF_INET;
    bool on_wire = true;
    {
      std::unique_lock<std::mutex> lock(mu_);
      // Behind schedule (high rates): no wait at all, only the stop check.
      if (next <= clock::now() ? stop_ : cv_.wait_until(lock, next, [this] { return stop_; })) return;
      to.sin_addr.s_addr = addr_;
      to.sin_port = htons(port_);
      on_wire = on_wire_;
    }
    next += period;
    const auto now = clock::now();
    if (source_ && now >= next_retarget) {
      next_retarget = now + retarget_every;
      if (const auto t = source_()) Retarget(*t);
    }
    const auto us = std::chrono::duration_cast<std::chrono::microseconds>(now - start).count();
    const auto packet = Packet(seq, static_cast<uint64_t>(us));
    // The trace line of a datagram for another host says it never left.
    path_.Send(on_wire ? "UDP" : "UDP (another host, not on the wire)", packet, [&](const std::vector<uint8_t>& bytes) {
      if (!on_wire) {
        // As a datagram that leaves for another host: gone from here, never seen again.
        withheld_.fetch_add(1);
        sent_.fetch_add(1);
        return true;
      }
      const ssize_t n = sendto(fd_, bytes.data(), bytes.size(), 0, reinterpret_cast<const sockaddr*>(&to), sizeof(to));
      if (n == static_cast<ssize_t>(bytes.size())) sent_.fetch_add(1);
      return n == static_cast<ssize_t>(bytes.size());
    });
  }
}

}  // namespace varkel::sim
