#pragma once
// Helpers of the simulator's tests: hexadecimal literals, a raw TCP peer for golden-byte
// exchanges, and the test's own decoding of reply slices into the texts the program shows.

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

namespace simtest {

inline std::vector<uint8_t> Hex(const std::string& text) {
  std::vector<uint8_t> out;
  for (size_t i = 0; i < text.size();) {
    if (text[i] == ' ') {
      ++i;
      continue;
    }
    out.push_back(static_cast<uint8_t>(std::stoul(text.substr(i, 2), nullptr, 16)));
    i += 2;
  }
  return out;
}

inline std::string TestDataDir() {
  return std::string(VARKEL_SOURCE_DIR) + "/tests/sim/data";
}
inline std::string ShippedTableDir() {
  return std::string(VARKEL_SOURCE_DIR) + "/Config/varID";
}

// A plain TCP connection to the simulator, for exact bytes both ways.
class RawPeer {
 public:
  explicit RawPeer(uint16_t port) {
    fd_ = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(port);
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (::connect(fd_, reinterpret_cast<sockaddr*>(&a), sizeof(a)) != 0) {
      ::close(fd_);
      fd_ = -1;
    }
  }
  ~RawPeer() {
    if (fd_ >= 0) ::close(fd_);
  }
  bool ok() const { return fd_ >= 0; }
  bool Send(const std::vector<uint8_t>& bytes) {
    return ::send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(bytes.size());
  }
  // Reads until n bytes arrived, the peer closed, or timeout_ms passed.
  std::vector<uint8_t> Read(size_t n, int timeout_ms = 10000) {
    std::vector<uint8_t> out;
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
    while (out.size() < n) {
      const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - std::chrono::steady_clock::now());
      if (left.count() <= 0) break;
      pollfd p{fd_, POLLIN, 0};
      if (::poll(&p, 1, static_cast<int>(left.count())) <= 0) break;
      uint8_t buf[4096];
      const ssize_t r = ::recv(fd_, buf, std::min(sizeof(buf), n - out.size()), 0);
      if (r <= 0) break;
      out.insert(out.end(), buf, buf + r);
    }
    return out;
  }

 private:
  int fd_ = -1;
};

// The text the program shows for a reply slice, worked out here on its own from the
// read-only value formats and the program's reading rules (not with the simulator's code).
inline std::string ShownText(const std::string& type, const std::vector<uint8_t>& s, float coefficient) {
  auto be = [&](size_t from, size_t n) {
    uint64_t v = 0;
    for (size_t i = from; i < from + n; ++i) v = (v << 8) | s[i];
    return v;
  };
  auto fixed2 = [](double v) {
    char b[64];
    std::snprintf(b, sizeof(b), "%.2f", v);
    return std::string(b);
  };
  const bool is_int = type.rfind("uint", 0) == 0 || type.rfind("int", 0) == 0;
  if (is_int) {
    const bool is_signed = type[0] == 'i';
    const uint64_t u = be(0, s.size());
    int64_t v = static_cast<int64_t>(u);
    if (is_signed && s.size() < 8 && (s[0] & 0x80)) v -= static_cast<int64_t>(uint64_t{1} << (8 * s.size()));
    if (coefficient == 1.0f) return is_signed ? std::to_string(v) : std::to_string(u);
    return fixed2((is_signed ? static_cast<double>(v) : static_cast<double>(u)) * coefficient);
  }
  if (type == "float32") {
    const auto bits = static_cast<uint32_t>(be(0, 4));
    float f;
    std::memcpy(&f, &bits, 4);
    return fixed2(static_cast<double>(f) * coefficient);
  }
  if (type == "double") {
    const uint64_t bits = be(0, 8);
    double d;
    std::memcpy(&d, &bits, 8);
    return fixed2(d * coefficient);
  }
  if (type == "IP") {
    std::string t;
    for (size_t i = 0; i < s.size(); ++i) t += (i ? "." : "") + std::to_string(s[i]);
    return t;
  }
  if (type == "MAC") {
    std::string t;
    for (size_t i = 0; i < 6; ++i) {
      char b[8];
      std::snprintf(b, sizeof(b), s[i] <= 0x10 ? "0%X" : "%X", s[i]);
      t += (i ? ":" : "") + std::string(b);
    }
    return t;
  }
  if (type == "string") return std::string(s.begin(), std::find(s.begin(), s.end(), 0));
  if (type == "DT") {
    const uint64_t c = be(0, s.size());
    return std::to_string(c / 3600) + " h " + std::to_string(c % 3600 / 60) + " min " + std::to_string(c % 60) + " s";
  }
  if (type == "HWVER" || type == "SWVER_YMD") {
    std::string t = std::to_string(be(0, 2)) + "." + std::to_string(be(2, 2)) + "." + std::to_string(be(4, 2));
    if (type == "SWVER_YMD") {
      char b[32];
      std::snprintf(b, sizeof(b), " (%04u-%02u-%02u)", static_cast<unsigned>(be(6, 2)), s[8], s[9]);
      return t + b;
    }
    std::string rev;
    for (size_t i = 6; i < 16; ++i)
      if (s[i] >= 0x20 && s[i] < 0x7F) rev += static_cast<char>(s[i]);
    return rev.empty() ? t : t + " (" + rev + ")";
  }
  return "<type " + type + ">";
}

}  // namespace simtest
