#include "tcp_client.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cerrno>
#include <chrono>
#include <climits>
#include <cstdio>

#include "logger.h"
#include "platform/net_socket_options.h"

namespace quarn::lidar {
namespace {

bool ParseIpv4(const std::string& ip, uint16_t port, sockaddr_in& addr) {
  addr = sockaddr_in{};
  addr.sin_family = AF_INET;
  addr.sin_port = htons(port);
  return inet_pton(AF_INET, ip.c_str(), &addr.sin_addr) == 1;
}

void LogSlowReceive(std::chrono::steady_clock::time_point start) {
  const auto us = std::chrono::duration_cast<std::chrono::microseconds>(std::chrono::steady_clock::now() - start);
  if (us.count() >= 1000000) LOG_TIMING("Receive executed: %dus", static_cast<int>(us.count()));
}

}  // namespace

TcpClient::~TcpClient() {
  Close();
}

bool TcpClient::Open(const std::string& ip, uint16_t port, bool, const char*, const char*, const char*) {
  if (IsOpened() && ip == lidar_ip_ && port == lidar_port_) return true;
  LOG_PROGRESS("Open() IP %s port %u", ip.c_str(), static_cast<unsigned>(port));
  Close();
  lidar_ip_ = ip;
  lidar_port_ = port;
  return PlainOpen();
}

bool TcpClient::PlainOpen() {
  CloseSocketOnly();
  if (!net::Startup()) {
    std::fprintf(stderr, "Initilize winsock error !\n");
    return false;
  }
  socket_ = ::socket(AF_INET, SOCK_STREAM, 0);
  if (socket_ == net::kInvalidSocket) {
    net::Cleanup();
    return false;
  }
  sockaddr_in addr{};
  if (!ParseIpv4(lidar_ip_, lidar_port_, addr)) {
    Close();
    LOG_ERROR("Open inet_pton error:%s", lidar_ip_.c_str());
    return false;
  }
  if (::connect(socket_, reinterpret_cast<const sockaddr*>(&addr), sizeof(addr)) != 0) {
    const int err = errno;
    if (err == EINPROGRESS) {
      LOG_WARNING("connect lidar time out");
    } else if (err != EWOULDBLOCK) {
      LOG_ERROR("connect failed %d", err);
    }
    Close();
    LOG_ERROR("connect lidar fail errno %d", err);
    return false;
  }
  LOG_PROGRESS(" succeed, IP %s port %u", lidar_ip_.c_str(), static_cast<unsigned>(lidar_port_));
  // The stored time-outs bound every read and write from the start, so a silent peer
  // cannot hold a caller that never sets its own.
  net::SetReceiveTimeoutMs(socket_, receive_timeout_ms_);
  net::SetSendTimeoutMs(socket_, send_timeout_ms_);
  interrupt_.Arm(socket_);
  opened_.store(true, std::memory_order_release);
  return true;
}

bool TcpClient::TryOpen(uint16_t local_port, const std::string& ip, uint16_t port, bool, const char*, const char*,
                        const char*, uint32_t timeout_s) {
  if (IsOpened() && ip == lidar_ip_ && port == lidar_port_) return true;
  if (IsOpened()) Close();
  CloseSocketOnly();
  lidar_ip_ = ip;
  lidar_port_ = port;
  if (!net::Startup()) {
    LOG_ERROR("Initilize winsock error !");
    return false;
  }
  socket_ = ::socket(AF_INET, SOCK_STREAM, 0);
  if (socket_ == net::kInvalidSocket) {
    net::Cleanup();
    return false;
  }
  if (local_port != 0 && !net::BindLocalPort(socket_, local_port))
    LOG_ERROR("Failed to bind local port, system will auto assign one");
  sockaddr_in addr{};
  if (!ParseIpv4(ip, port, addr)) {
    Close();
    LOG_ERROR("TryOpen inet_pton error:%s", ip.c_str());
    return false;
  }
  net::SetNonBlocking(socket_, true);
  if (::connect(socket_, reinterpret_cast<const sockaddr*>(&addr), sizeof(addr)) != 0) {
    const int err = net::LastSocketError();
    if (!net::IsInProgress(err) && !net::IsWouldBlock(err)) {
      LOG_ERROR("socket Connection error.");
      Close();
      return false;
    }
  }
  if (net::WaitWritable(socket_, timeout_s, 0) <= 0) {
    Close();
    return false;
  }
  int pending = 0;
  if (!net::GetPendingError(socket_, pending) || pending != 0) {
    Close();
    return false;
  }
  LOG_PROGRESS("TryOpen succeed, IP %s port %u", ip.c_str(), static_cast<unsigned>(port));
  net::SetNonBlocking(socket_, false);
  net::SetReceiveTimeoutMs(socket_, receive_timeout_ms_);
  net::SetSendTimeoutMs(socket_, send_timeout_ms_);
  interrupt_.Arm(socket_);
  opened_.store(true, std::memory_order_release);
  return true;
}

void TcpClient::CloseSocketOnly() {
  if (socket_ != net::kInvalidSocket) {
    interrupt_.Disarm();
    net::CloseSocket(socket_);
    net::Cleanup();
    socket_ = net::kInvalidSocket;
  }
}

void TcpClient::Close() {
  opened_.store(false, std::memory_order_release);
  CloseSocketOnly();
}

int TcpClient::Send(const uint8_t* data, uint16_t length, int flags) {
  if (!IsOpened() && !PlainOpen()) return -1;
  const ssize_t sent = ::send(socket_, data, length, flags | net::SendFlagsNoSignal());
  if (sent == static_cast<ssize_t>(length)) return static_cast<int>(sent);
  // The C-library error number on purpose, not the socket error.
  const int err = errno;
  if (err != EINTR && err != EAGAIN && err != EWOULDBLOCK) LOG_ERROR("Send errno %d", err);
  return static_cast<int>(sent);
}

int TcpClient::Receive(uint8_t* buffer, uint32_t length, int flags) {
  const auto start = std::chrono::steady_clock::now();
  if (!IsOpened() && !PlainOpen()) {
    LogSlowReceive(start);
    return -1;
  }
  const size_t want = length > INT_MAX ? static_cast<size_t>(INT_MAX) : length;
  int result;
  if (flags == kReceiveNonBlocking) {
    // One call, not a mode switch round a receive: the drain before every exchange uses it.
    result = net::ReceiveNoWait(socket_, buffer, want);
  } else {
    result = static_cast<int>(::recv(socket_, buffer, want, flags));
    if (result == 0) {
      LOG_ERROR("Connection closed by peer, recv returned 0");
    } else if (result < 0) {
      const int err = net::LastSocketError();
      // Would-block and time-out are the normal end of a wait.
      if (!net::IsWouldBlock(err) && err != ETIMEDOUT) LOG_ERROR("Receive failed, WSA error: %d", err);
    }
  }
  LogSlowReceive(start);
  return result;
}

bool TcpClient::SetReceiveTimeout(uint32_t ms) {
  if (socket_ == net::kInvalidSocket) {
    LOG_WARNING("TcpClient not open");
    return false;
  }
  return net::SetReceiveTimeoutMs(socket_, ms);
}

int TcpClient::SetTimeout(uint32_t receive_ms, uint32_t send_ms) {
  if (socket_ == net::kInvalidSocket) {
    LOG_WARNING("TcpClient not open");
    return -1;
  }
  receive_timeout_ms_ = receive_ms;
  send_timeout_ms_ = send_ms;
  if (!net::SetReceiveTimeoutMs(socket_, receive_ms)) return -1;
  return net::SetSendTimeoutMs(socket_, send_ms) ? 0 : -1;
}

void TcpClient::SetReceiveBufferSize(const uint32_t& size) {
  if (socket_ == net::kInvalidSocket) {
    LOG_WARNING("TcpClient not open");
    return;
  }
  receive_buffer_size_ = size;
  uint32_t current = 0;
  if (net::GetReceiveBufferSize(socket_, current) && current < size) net::SetReceiveBufferSize(socket_, size);
}

uint32_t TcpClient::GetSocketReceiveBufferSize() const {
  uint32_t size = 0;
  if (socket_ != net::kInvalidSocket) net::GetReceiveBufferSize(socket_, size);
  return size;
}

}  // namespace quarn::lidar
