#pragma once
// Log capture, a scripted loopback peer, hand-built reply frames (independent of the encoder
// under test), and certificates plus a one-connection TLS server made at test time.

#include <arpa/inet.h>
#include <netinet/in.h>
#include <openssl/ssl.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <future>
#include <iomanip>
#include <mutex>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "hex.h"
#include "log_capture.h"
#include "logger.h"
#include "wait_until.h"

namespace ktc_test {

using Bytes = std::vector<uint8_t>;
using Clock = std::chrono::steady_clock;
using Ms = std::chrono::milliseconds;

using vktest::FromHex;
using vktest::LogCapture;

// Most waits here are on sockets and threads of the test itself: ten seconds bound a failure.
template <typename Pred>
bool WaitFor(Pred pred, Ms timeout = Ms(10000)) {
  return vktest::PollUntil(pred, timeout);
}

// A reply frame; `claimed` (when not negative) replaces the true payload length.
inline Bytes Reply(int version, uint8_t cmd, uint8_t code, const Bytes& payload, int64_t claimed = -1) {
  const auto length = static_cast<uint32_t>(claimed < 0 ? static_cast<int64_t>(payload.size()) : claimed);
  Bytes out = version == 1 ? Bytes{0x47, 0x74, cmd, code} : Bytes{0x57, 0x75, 0x01, cmd, code, 0, 0, 0};
  for (int shift : {24, 16, 8, 0}) out.push_back(static_cast<uint8_t>(length >> shift));
  out.insert(out.end(), payload.begin(), payload.end());
  return out;
}

inline sockaddr_in Loopback(uint16_t port) {
  return sockaddr_in{AF_INET, htons(port), {htonl(INADDR_LOOPBACK)}, {}};
}

// A loopback socket at a system-chosen port, listening unless backlog is negative.
inline int BindLoopback(uint16_t& port, int backlog) {
  const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in addr = Loopback(0);
  socklen_t len = sizeof(addr);
  if (::bind(fd, reinterpret_cast<sockaddr*>(&addr), len) != 0 || (backlog >= 0 && ::listen(fd, backlog) != 0)) {
    throw std::runtime_error("cannot bind a loopback port");
  }
  getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len);
  port = ntohs(addr.sin_port);
  return fd;
}

// A loopback port with nothing listening: bound once, then released.
inline uint16_t UnusedLoopbackPort() {
  uint16_t port = 0;
  ::close(BindLoopback(port, -1));
  return port;
}

inline bool WaitReadable(int fd, Clock::time_point deadline) {
  pollfd p{fd, POLLIN, 0};
  const auto ms = std::chrono::duration_cast<Ms>(deadline - Clock::now()).count();
  return poll(&p, 1, static_cast<int>(std::max<int64_t>(ms, 0))) > 0;
}

// A loopback peer that a test drives step by step.
class ScriptedPeer {
 public:
  explicit ScriptedPeer(int backlog = 4) : listener_(BindLoopback(port_, backlog)) {}
  ~ScriptedPeer() {
    Close();
    ::close(listener_);
  }
  uint16_t port() const { return port_; }
  int connection() const { return conn_; }
  // Accepts the next connection (replacing the current one); false on time-out.
  bool Accept(Ms timeout = Ms(10000)) {
    if (!WaitReadable(listener_, Clock::now() + timeout)) return false;
    const int fd = ::accept(listener_, nullptr, nullptr);
    if (fd < 0) return false;
    Close();
    conn_ = fd;
    return true;
  }
  // n bytes, or fewer when the time-out or the client's close comes first.
  Bytes Read(size_t n, Ms timeout = Ms(10000)) {
    Bytes out;
    uint8_t buf[65536];
    const auto deadline = Clock::now() + timeout;
    while (out.size() < n && conn_ >= 0 && WaitReadable(conn_, deadline)) {
      const ssize_t got = ::recv(conn_, buf, std::min(sizeof(buf), n - out.size()), 0);
      if (got <= 0) break;
      out.insert(out.end(), buf, buf + got);
    }
    return out;
  }
  // One whole request frame: the header, then as many bytes as its length field names.
  Bytes ReadFrame(int version, Ms timeout = Ms(10000)) {
    const size_t header = version == 1 ? 8 : 12;
    Bytes frame = Read(header, timeout);
    if (frame.size() < header) return frame;
    uint32_t length = 0;
    for (size_t i = header - 4; i < header; ++i) length = (length << 8) | frame[i];
    const Bytes payload = Read(length, timeout);
    frame.insert(frame.end(), payload.begin(), payload.end());
    return frame;
  }
  bool Write(const Bytes& bytes) {
    return conn_ >= 0 && ::send(conn_, bytes.data(), bytes.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(bytes.size());
  }
  void Close() {
    if (conn_ >= 0) ::close(conn_);
    conn_ = -1;
  }
  // Abortive close: the client sees a connection reset.
  void Reset() {
    linger abort_close{1, 0};
    if (conn_ >= 0) setsockopt(conn_, SOL_SOCKET, SO_LINGER, &abort_close, sizeof(abort_close));
    Close();
  }

 private:
  uint16_t port_ = 0;
  int listener_;
  int conn_ = -1;
};

// A temporary folder: a self-signed certificate with its key, an unrelated key of the same
// type, an RSA key that fits no certificate slot of ours, and a file that is no PEM at all.
class TlsFiles {
 public:
  TlsFiles() {
    const std::string ec = "openssl genpkey -algorithm EC -pkeyopt ec_paramgen_curve:P-256 -out ";
    const std::string make = ec + key + " && " + ec + other_key +
                             " && openssl genpkey -algorithm RSA -pkeyopt rsa_keygen_bits:1024 -out " + rsa_key +
                             " && openssl req -x509 -new -key " + key + " -subj /CN=127.0.0.1 -days 1 -out " + cert +
                             " && echo 'this is not a PEM file' > " + junk;
    if (std::system((make + " 2>/dev/null").c_str()) != 0) throw std::runtime_error("cannot make TLS files");
  }
  ~TlsFiles() {
    std::error_code ec;
    std::filesystem::remove_all(dir, ec);
  }
  static std::string TempDir() {
    std::string pattern = (std::filesystem::temp_directory_path() / "ktc-tls-XXXXXX").string();
    if (mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
    return pattern;
  }
  const std::string dir = TempDir(), cert = dir + "/cert.pem", key = dir + "/key.pem", other_key = dir + "/other.pem",
                    rsa_key = dir + "/rsa_key.pem", junk = dir + "/junk.pem", missing = dir + "/does-not-exist.pem";
};

// Accepts one connection on `peer` and runs the server side of a TLS handshake on it.
// Ends in 0 when nobody came, 1 when the handshake failed, 2 when it completed.
inline std::future<int> ServeTls(ScriptedPeer& peer, const TlsFiles& files) {
  return std::async(std::launch::async, [&peer, cert = files.cert, key = files.key] {
    SSL_CTX* ctx = SSL_CTX_new(TLS_server_method());
    if (SSL_CTX_use_certificate_file(ctx, cert.c_str(), SSL_FILETYPE_PEM) != 1 ||
        SSL_CTX_use_PrivateKey_file(ctx, key.c_str(), SSL_FILETYPE_PEM) != 1) {
      throw std::runtime_error("TLS server context failed");
    }
    SSL* ssl = SSL_new(ctx);
    const timeval tv{5, 0};
    const bool came = peer.Accept() && setsockopt(peer.connection(), SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof(tv)) == 0;
    const int outcome = !came ? 0 : SSL_set_fd(ssl, peer.connection()) == 1 && SSL_accept(ssl) == 1 ? 2 : 1;
    SSL_free(ssl);
    SSL_CTX_free(ctx);
    return outcome;
  });
}

}  // namespace ktc_test
