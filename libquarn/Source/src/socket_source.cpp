#include "socket_source.h"
#include "platform/net.h"
#include "platform/net_socket_options.h"

#include <arpa/inet.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "logger.h"

namespace quarn::lidar {

SocketSource::SocketSource(uint16_t port, const std::string& local_address, const std::string& multicast_group)
    : port_(port), multicast_group_(multicast_group), local_address_(local_address) {}

SocketSource::~SocketSource() {
  Close();
}

bool SocketSource::Open() {
  // Opening again starts afresh rather than leaking the old socket.
  if (sock_ != net::kInvalidSocket) Close();
  if (!net::Startup()) {
    LOG_ERROR("Initilize winsock error !");
    return false;
  }
  sock_ = ::socket(AF_INET, SOCK_DGRAM, 0);
  if (sock_ == net::kInvalidSocket) {
    net::Cleanup();
    return false;
  }

  sockaddr_in bind_address{};
  bind_address.sin_family = AF_INET;
  bind_address.sin_port = htons(port_);
  bool address_ok = true;
  if (local_address_.empty()) {
    bind_address.sin_addr.s_addr = htonl(INADDR_ANY);
  } else {
    address_ok = inet_pton(AF_INET, local_address_.c_str(), &bind_address.sin_addr) == 1;
  }

  const int on = 1;
  const bool reuse_ok = setsockopt(sock_, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on)) == 0;
  const int reuse_errno = errno;

  int requested = static_cast<int>(kRequestedReceiveBuffer);
  setsockopt(sock_, SOL_SOCKET, SO_RCVBUF, &requested, sizeof(requested));
  int granted = 0;
  socklen_t granted_size = sizeof(granted);
  if (getsockopt(sock_, SOL_SOCKET, SO_RCVBUF, &granted, &granted_size) != 0) {
    LOG_WARNING("getsockopt error=%d(%s)!!!", errno, net::ErrorText(errno).c_str());
  }
  LOG_PROGRESS("OS current udp socket recv buff size is: %d", granted);

  bool timeout_ok = true;
  if (!reuse_ok) {
    LOG_ERROR("setsockopt SO_REUSEADDR failed, errno:%d", reuse_errno);
  } else if (!net::SetReceiveTimeoutMs(sock_, kReceiveTimeoutMs)) {
    timeout_ok = false;
    LOG_ERROR("setsockopt SO_RCVTIMEO failed, errno:%d", net::LastSocketError());
  } else {
    int bound = -1;
    int err = EINVAL;  // an unreadable local address fails like a refused bind
    if (address_ok) {
      bound = ::bind(sock_, reinterpret_cast<const sockaddr*>(&bind_address), sizeof(bind_address));
      err = net::LastSocketError();
    }
    if (bound == 0) {
      LOG_PROGRESS("SocketSource::Open succeed, sock:%d", sock_);
    } else if (!net::IsInProgress(err) && !net::IsWouldBlock(err)) {
      net::CloseSocket(sock_);
      sock_ = net::kInvalidSocket;
      net::Cleanup();
      LOG_ERROR("SocketSource::Open(), bind failed, errno: %d", err);
      return false;
    }
  }

  if (!net::SetNonBlocking(sock_, true)) LOG_ERROR("non-block");
  SetReceiveBufferSize(kFinalReceiveBuffer);

  // Reuse or time-out refused: the socket stays as it is, but the open reports failure.
  const bool ok = reuse_ok && timeout_ok;
  if (multicast_group_.empty()) return ok;

  ip_mreq membership{};
  bool joined = inet_pton(AF_INET, multicast_group_.c_str(), &membership.imr_multiaddr) == 1;
  membership.imr_interface.s_addr = htonl(INADDR_ANY);
  if (joined && !local_address_.empty()) {
    joined = inet_pton(AF_INET, local_address_.c_str(), &membership.imr_interface) == 1;
  }
  if (joined) {
    joined = setsockopt(sock_, IPPROTO_IP, IP_ADD_MEMBERSHIP, &membership, sizeof(membership)) == 0;
  }
  if (joined) {
    LOG_PROGRESS("Recive data from multicast ip address %s", multicast_group_.c_str());
  } else {
    LOG_ERROR("Multicast IP error, set correct multicast ip address or keep it empty");
  }
  return ok;
}

void SocketSource::Close() {
  LOG_PROGRESS("SocketSource::Close()");
  if (sock_ == net::kInvalidSocket) return;
  net::CloseSocket(sock_);
  net::Cleanup();
  sock_ = net::kInvalidSocket;
}

bool SocketSource::IsOpened() {
  if (sock_ != net::kInvalidSocket) return true;
  LOG_WARNING("SocketSource::IsOpened(), port %d, sock %d is not open", port_, sock_);
  return false;
}

bool SocketSource::SetClientAddress(const std::string& ip, uint16_t port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  if (inet_pton(AF_INET, ip.c_str(), &address.sin_addr) != 1) {
    LOG_ERROR("SocketSource::SetClientAddress, not an IPv4 address: %s", ip.c_str());
    return false;
  }
  client_ip_ = ip;
  client_address_ = address;
  return true;
}

int SocketSource::Send(const uint8_t* data, uint16_t length, int flags) {
  if (sock_ == net::kInvalidSocket) {
    LOG_ERROR("SocketSource::Send, port %d, sock %d is not open", port_, sock_);
    return -1;
  }
  if (client_ip_.empty()) {
    LOG_ERROR("SocketSource::Send, client ip is empty");
    return -1;
  }
  const ssize_t sent = ::sendto(sock_, data, length, flags, reinterpret_cast<const sockaddr*>(&client_address_),
                                sizeof(client_address_));
  if (sent < 0) {
    LOG_ERROR("SocketSource::Send, errno:%d", net::LastSocketError());
    Close();
    return -1;
  }
  return static_cast<int>(sent);
}

int SocketSource::Receive(UdpPacket& packet, uint16_t length, int flags, int timeout_us) {
  packet.timeout = false;
  if (sock_ == net::kInvalidSocket && !Open()) return -1;
  const size_t capacity = std::min<size_t>(length, sizeof(packet.data));

  auto receive = [&]() {
    sockaddr_in from{};
    socklen_t from_size = sizeof(from);
    const ssize_t n = ::recvfrom(sock_, packet.data, capacity, flags, reinterpret_cast<sockaddr*>(&from), &from_size);
    if (n >= 0) {
      packet.sender_ip = from.sin_addr.s_addr;
      packet.sender_port = ntohs(from.sin_port);
    }
    return static_cast<int>(n);
  };

  if (!select_mode_) {
    const int n = receive();
    if (n >= 0) return n;
    // Nothing waiting: the next call waits for the socket instead.
    select_mode_ = true;
    return -1;
  }

  const int ready = net::WaitReadable(sock_, static_cast<uint32_t>(std::max(timeout_us, 0)));
  if (ready > 0) {
    select_mode_ = false;
    return receive();
  }
  if (ready == 0) {
    packet.timeout = true;
    return 0;
  }
  LOG_WARNING("Select timeout error");
  return -1;
}

void SocketSource::SetReceiveBufferSize(uint32_t size) {
  const int value = static_cast<int>(size);
  setsockopt(sock_, SOL_SOCKET, SO_RCVBUF, &value, sizeof(value));
}

uint16_t SocketSource::BoundPort() const {
  if (sock_ == net::kInvalidSocket) return 0;
  sockaddr_in address{};
  socklen_t size = sizeof(address);
  if (getsockname(sock_, reinterpret_cast<sockaddr*>(&address), &size) != 0) return 0;
  return ntohs(address.sin_port);
}

}  // namespace quarn::lidar
