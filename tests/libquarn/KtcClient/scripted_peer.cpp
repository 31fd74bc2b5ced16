#include "scripted_peer.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <stdexcept>

namespace ktc_test {
namespace {

using Clock = std::chrono::steady_clock;

int RemainingMs(Clock::time_point deadline) {
  const auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
  return ms > 0 ? static_cast<int>(ms) : 0;
}

bool WaitReadable(int fd, int timeout_ms) {
  pollfd p{fd, POLLIN, 0};
  int rc;
  do {
    rc = poll(&p, 1, timeout_ms);
  } while (rc < 0 && errno == EINTR);
  return rc > 0;
}

void PutBe32(Bytes& out, size_t at, uint32_t v) {
  out[at] = static_cast<uint8_t>(v >> 24);
  out[at + 1] = static_cast<uint8_t>(v >> 16);
  out[at + 2] = static_cast<uint8_t>(v >> 8);
  out[at + 3] = static_cast<uint8_t>(v);
}

}  // namespace

Bytes FromHex(const std::string& hex) {
  Bytes out;
  std::string digits;
  for (char c : hex) {
    if (c == ' ') continue;
    digits.push_back(c);
    if (digits.size() == 2) {
      out.push_back(static_cast<uint8_t>(std::stoul(digits, nullptr, 16)));
      digits.clear();
    }
  }
  if (!digits.empty()) throw std::invalid_argument("odd hex text");
  return out;
}

uint16_t UnusedLoopbackPort() {
  const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  ::bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr));
  socklen_t len = sizeof(addr);
  getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len);
  ::close(fd);
  return ntohs(addr.sin_port);
}

ScriptedPeer::ScriptedPeer(int backlog) {
  listener_ = ::socket(AF_INET, SOCK_STREAM, 0);
  int one = 1;
  setsockopt(listener_, SOL_SOCKET, SO_REUSEADDR, &one, sizeof(one));
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  addr.sin_port = 0;
  if (::bind(listener_, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0 || ::listen(listener_, backlog) != 0) {
    throw std::runtime_error("peer cannot listen");
  }
  socklen_t len = sizeof(addr);
  getsockname(listener_, reinterpret_cast<sockaddr*>(&addr), &len);
  port_ = ntohs(addr.sin_port);
}

ScriptedPeer::~ScriptedPeer() {
  Close();
  if (listener_ >= 0) ::close(listener_);
}

bool ScriptedPeer::Accept(std::chrono::milliseconds timeout) {
  if (!WaitReadable(listener_, static_cast<int>(timeout.count()))) return false;
  const int fd = ::accept(listener_, nullptr, nullptr);
  if (fd < 0) return false;
  Close();
  conn_ = fd;
  return true;
}

Bytes ScriptedPeer::Read(size_t n, std::chrono::milliseconds timeout) {
  Bytes out;
  const auto deadline = Clock::now() + timeout;
  uint8_t buf[65536];
  while (out.size() < n && conn_ >= 0) {
    if (!WaitReadable(conn_, RemainingMs(deadline))) break;
    const ssize_t got = ::recv(conn_, buf, std::min(sizeof(buf), n - out.size()), 0);
    if (got <= 0) break;
    out.insert(out.end(), buf, buf + got);
  }
  return out;
}

Bytes ScriptedPeer::ReadFrame(int version, std::chrono::milliseconds timeout) {
  const size_t header_size = version == 1 ? 8 : 12;
  const size_t length_at = version == 1 ? 4 : 8;
  Bytes frame = Read(header_size, timeout);
  if (frame.size() < header_size) return frame;
  const uint32_t length = (static_cast<uint32_t>(frame[length_at]) << 24) |
                          (static_cast<uint32_t>(frame[length_at + 1]) << 16) |
                          (static_cast<uint32_t>(frame[length_at + 2]) << 8) | frame[length_at + 3];
  const Bytes payload = Read(length, timeout);
  frame.insert(frame.end(), payload.begin(), payload.end());
  return frame;
}

Bytes ScriptedPeer::ReadAvailable(std::chrono::milliseconds quiet) {
  Bytes out;
  uint8_t buf[4096];
  while (conn_ >= 0 && WaitReadable(conn_, static_cast<int>(quiet.count()))) {
    const ssize_t got = ::recv(conn_, buf, sizeof(buf), 0);
    if (got <= 0) break;
    out.insert(out.end(), buf, buf + got);
  }
  return out;
}

bool ScriptedPeer::Write(const Bytes& bytes) {
  size_t done = 0;
  while (done < bytes.size() && conn_ >= 0) {
    const ssize_t n = ::send(conn_, bytes.data() + done, bytes.size() - done, MSG_NOSIGNAL);
    if (n <= 0) return false;
    done += static_cast<size_t>(n);
  }
  return done == bytes.size();
}

void ScriptedPeer::Close() {
  if (conn_ >= 0) {
    ::close(conn_);
    conn_ = -1;
  }
}

void ScriptedPeer::Reset() {
  if (conn_ < 0) return;
  linger abort_close{1, 0};
  setsockopt(conn_, SOL_SOCKET, SO_LINGER, &abort_close, sizeof(abort_close));
  Close();
}

Bytes ReplyWithClaimedLength(int version, uint8_t cmd, uint32_t claimed, const Bytes& payload) {
  Bytes out(version == 1 ? 8 : 12, 0);
  if (version == 1) {
    out[0] = 0x47;
    out[1] = 0x74;
    out[2] = cmd;
    PutBe32(out, 4, claimed);
  } else {
    out[0] = 0x57;
    out[1] = 0x75;
    out[2] = 0x01;
    out[3] = cmd;
    PutBe32(out, 8, claimed);
  }
  out.insert(out.end(), payload.begin(), payload.end());
  return out;
}

Bytes ReplyV1(uint8_t cmd, uint8_t return_code, const Bytes& payload) {
  Bytes out = ReplyWithClaimedLength(1, cmd, static_cast<uint32_t>(payload.size()), payload);
  out[3] = return_code;
  return out;
}

Bytes ReplyV2(uint8_t cmd, uint8_t return_code, const Bytes& payload) {
  Bytes out = ReplyWithClaimedLength(2, cmd, static_cast<uint32_t>(payload.size()), payload);
  out[4] = return_code;
  return out;
}

}  // namespace ktc_test
