#include "platform/net.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>

namespace quarn::lidar::net {
namespace {
std::atomic<int> g_startups{0};

// strerror_r comes in two flavours (GNU returns the text, XSI fills the buffer).
[[maybe_unused]] const char* PickErrorText(const char* text, const char*) {
  return text;
}
[[maybe_unused]] const char* PickErrorText(int rc, const char* buffer) {
  return rc == 0 ? buffer : "unknown error";
}

bool SetTimeout(socket_t s, int option, uint32_t ms) {
  timeval tv{};
  tv.tv_sec = static_cast<time_t>(ms / 1000);
  tv.tv_usec = static_cast<suseconds_t>((ms % 1000) * 1000);
  return setsockopt(s, SOL_SOCKET, option, &tv, sizeof(tv)) == 0;
}
}  // namespace

bool Startup() {
  g_startups.fetch_add(1);
  return true;
}

void Cleanup() {
  g_startups.fetch_sub(1);
}

int StartupBalance() {
  return g_startups.load();
}

int CloseSocket(socket_t s) {
  return ::close(s);
}

bool ShutdownBoth(socket_t s) {
  return ::shutdown(s, SHUT_RDWR) == 0;
}

bool SetNonBlocking(socket_t s, bool non_blocking) {
  const int flags = fcntl(s, F_GETFL, 0);
  if (flags < 0) return false;
  const int wanted = non_blocking ? (flags | O_NONBLOCK) : (flags & ~O_NONBLOCK);
  return fcntl(s, F_SETFL, wanted) == 0;
}

bool BindLocalPort(socket_t s, uint16_t local_port) {
  sockaddr_in local{};
  local.sin_family = AF_INET;
  local.sin_addr.s_addr = htonl(INADDR_ANY);
  local.sin_port = htons(local_port);
  return ::bind(s, reinterpret_cast<const sockaddr*>(&local), sizeof(local)) == 0;
}

int ReceiveNoWait(socket_t s, uint8_t* buffer, size_t length) {
  return static_cast<int>(::recv(s, buffer, length, MSG_DONTWAIT));
}

bool NothingToRead(socket_t s) {
  uint8_t probe = 0;
  return ::recv(s, &probe, 1, MSG_PEEK | MSG_DONTWAIT) < 0 && IsWouldBlock(errno);
}

bool SetReceiveTimeoutMs(socket_t s, uint32_t ms) {
  return SetTimeout(s, SO_RCVTIMEO, ms);
}
bool SetSendTimeoutMs(socket_t s, uint32_t ms) {
  return SetTimeout(s, SO_SNDTIMEO, ms);
}

int LastSocketError() {
  return errno;
}
bool IsWouldBlock(int err) {
  return err == EWOULDBLOCK || err == EAGAIN;
}
bool IsInProgress(int err) {
  return err == EINPROGRESS;
}
bool IsInterrupted(int err) {
  return err == EINTR;
}

std::string ErrorText(int err) {
  char buffer[256] = {};
  return PickErrorText(strerror_r(err, buffer, sizeof(buffer)), buffer);
}

}  // namespace quarn::lidar::net
