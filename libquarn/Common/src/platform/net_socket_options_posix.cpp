#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/select.h>
#include <sys/socket.h>

#include <cerrno>

#include "platform/net_socket_options.h"

namespace quarn::lidar::net {

bool GetPendingError(socket_t s, int& error) {
  socklen_t len = sizeof(error);
  return getsockopt(s, SOL_SOCKET, SO_ERROR, &error, &len) == 0;
}

bool GetReceiveBufferSize(socket_t s, uint32_t& size) {
  int value = 0;
  socklen_t len = sizeof(value);
  if (getsockopt(s, SOL_SOCKET, SO_RCVBUF, &value, &len) != 0 || value < 0) return false;
  size = static_cast<uint32_t>(value);
  return true;
}

bool SetReceiveBufferSize(socket_t s, uint32_t size) {
  const int value = size > INT32_MAX ? INT32_MAX : static_cast<int>(size);
  return setsockopt(s, SOL_SOCKET, SO_RCVBUF, &value, sizeof(value)) == 0;
}

bool SetNoDelay(socket_t s) {
  const int on = 1;
  return setsockopt(s, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on)) == 0;
}

int WaitWritable(socket_t s, uint32_t seconds, uint32_t microseconds) {
  if (s < 0 || s >= FD_SETSIZE) {
    errno = EBADF;
    return -1;
  }
  fd_set writable;
  FD_ZERO(&writable);
  FD_SET(s, &writable);
  timeval tv{};
  tv.tv_sec = static_cast<time_t>(seconds);
  tv.tv_usec = static_cast<suseconds_t>(microseconds);
  int rc;
  do {
    rc = select(s + 1, nullptr, &writable, nullptr, &tv);
  } while (rc < 0 && errno == EINTR);
  return rc;
}

int SendFlagsNoSignal() {
  return MSG_NOSIGNAL;
}

int WaitReadable(socket_t s, uint32_t microseconds) {
  if (s < 0) {
    errno = EBADF;
    return -1;
  }
  pollfd entry{};
  entry.fd = s;
  entry.events = POLLIN;
  // poll counts milliseconds: round up, so a short wait is not turned into none.
  const uint64_t ms = (static_cast<uint64_t>(microseconds) + 999) / 1000;
  const int timeout_ms = ms > INT32_MAX ? INT32_MAX : static_cast<int>(ms);
  const int rc = poll(&entry, 1, timeout_ms);
  if (rc > 0 && (entry.revents & POLLNVAL) != 0) {
    errno = EBADF;
    return -1;
  }
  return rc;
}

}  // namespace quarn::lidar::net
