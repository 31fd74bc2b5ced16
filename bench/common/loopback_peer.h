#pragma once
// What the loopback benchmarks share: whole reads and writes on a socket, and a
// version-1 KTC peer that answers each request frame at once.

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <thread>
#include <vector>

namespace bench {

inline bool ReadAll(int fd, uint8_t* buf, size_t n) {
  size_t got = 0;
  while (got < n) {
    const ssize_t r = ::recv(fd, buf + got, n - got, 0);
    if (r <= 0) return false;
    got += static_cast<size_t>(r);
  }
  return true;
}

inline bool WriteAll(int fd, const uint8_t* buf, size_t n) {
  size_t done = 0;
  while (done < n) {
    const ssize_t r = ::send(fd, buf + done, n - done, MSG_NOSIGNAL);
    if (r <= 0) return false;
    done += static_cast<size_t>(r);
  }
  return true;
}

// Serves one connection: every request frame gets a reply with its command and
// `reply_payload` bytes of 0x5A (0: a bare acknowledgement). `no_delay` sends each reply
// without waiting for more to coalesce, as a sensor acknowledging file pieces does.
class KtcAnswerPeer {
 public:
  explicit KtcAnswerPeer(size_t reply_payload, bool no_delay = false)
      : reply_payload_(reply_payload), no_delay_(no_delay) {
    listener_ = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ::bind(listener_, reinterpret_cast<sockaddr*>(&addr), sizeof(addr));
    ::listen(listener_, 4);
    socklen_t len = sizeof(addr);
    getsockname(listener_, reinterpret_cast<sockaddr*>(&addr), &len);
    port_ = ntohs(addr.sin_port);
    thread_ = std::thread([this] { Serve(); });
  }
  ~KtcAnswerPeer() {
    ::shutdown(listener_, SHUT_RDWR);
    const int conn = conn_.load();
    if (conn >= 0) ::shutdown(conn, SHUT_RDWR);
    thread_.join();
    ::close(listener_);
  }
  KtcAnswerPeer(const KtcAnswerPeer&) = delete;
  KtcAnswerPeer& operator=(const KtcAnswerPeer&) = delete;
  uint16_t port() const { return port_; }

 private:
  void Serve() {
    const int fd = ::accept(listener_, nullptr, nullptr);
    if (fd < 0) return;
    conn_.store(fd);
    if (no_delay_) {
      const int one = 1;
      setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof(one));
    }
    std::vector<uint8_t> in(70000);
    std::vector<uint8_t> reply(8 + reply_payload_, 0x5A);
    reply[0] = 0x47;
    reply[1] = 0x74;
    reply[3] = 0;
    for (int i = 0; i < 4; ++i) reply[4 + i] = static_cast<uint8_t>(reply_payload_ >> (24 - 8 * i));
    while (ReadAll(fd, in.data(), 8)) {
      const uint32_t len = (uint32_t(in[4]) << 24) | (uint32_t(in[5]) << 16) | (uint32_t(in[6]) << 8) | in[7];
      reply[2] = in[2];
      if (len > in.size() || !ReadAll(fd, in.data(), len)) break;
      if (!WriteAll(fd, reply.data(), reply.size())) break;
    }
    ::close(fd);
  }

  size_t reply_payload_;
  bool no_delay_;
  int listener_ = -1;
  uint16_t port_ = 0;
  std::atomic<int> conn_{-1};
  std::thread thread_;
};

}  // namespace bench
