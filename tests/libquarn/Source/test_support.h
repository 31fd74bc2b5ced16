#pragma once
// Helpers for the source tests: a log capture and a pseudo-terminal that plays the sensor.

#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <initializer_list>
#include <mutex>
#include <string>
#include <vector>

#include "logger.h"

namespace quarn::lidar::test_support {

class LogCapture {
 public:
  LogCapture() {
    id_ = Logger::GetInstance().AddObserver([this](const LogRecord& r) {
      std::lock_guard<std::mutex> lock(mutex_);
      records_.push_back(r);
    });
  }
  ~LogCapture() { Logger::GetInstance().RemoveObserver(id_); }
  // True when a record of `level` has exactly `message`, or (prefix) starts with it.
  bool Has(int level, const std::string& message, bool prefix = false) {
    std::lock_guard<std::mutex> lock(mutex_);
    for (const auto& r : records_) {
      if (r.level != level) continue;
      if (prefix ? r.message.rfind(message, 0) == 0 : r.message == message) return true;
    }
    return false;
  }

 private:
  int id_;
  std::mutex mutex_;
  std::vector<LogRecord> records_;
};

// The test holds the master side; the code under test opens SlavePath().
class Pty {
 public:
  Pty() {
    termios raw{};
    cfmakeraw(&raw);
    char name[256] = {};
    ok_ = openpty(&master_, &slave_, name, &raw, nullptr) == 0;
    path_ = name;
  }
  ~Pty() {
    CloseMaster();
    if (slave_ >= 0) ::close(slave_);
  }
  bool ok() const { return ok_; }
  const std::string& SlavePath() const { return path_; }
  void CloseMaster() {
    if (master_ >= 0) ::close(master_);
    master_ = -1;
  }
  bool Write(const std::vector<uint8_t>& bytes) {
    return ::write(master_, bytes.data(), bytes.size()) == static_cast<ssize_t>(bytes.size());
  }
  // Reads until `count` bytes have come or `timeout_ms` has passed.
  std::vector<uint8_t> Read(size_t count, int timeout_ms) {
    std::vector<uint8_t> out;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
    while (out.size() < count) {
      const auto left =
          std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now()).count();
      if (left <= 0) break;
      pollfd p{master_, POLLIN, 0};
      if (::poll(&p, 1, static_cast<int>(left)) <= 0) continue;
      uint8_t buf[4096];
      const ssize_t n = ::read(master_, buf, std::min(sizeof(buf), count - out.size()));
      if (n <= 0) break;
      out.insert(out.end(), buf, buf + n);
    }
    return out;
  }
  // One request frame, its length taken from its own header: 18 + length byte for
  // "$LDCMD,", 29 + the data length for "$LDOTA,".
  std::vector<uint8_t> ReadRequest(int timeout_ms) {
    std::vector<uint8_t> head = Read(8, timeout_ms);
    if (head.size() < 8) return head;
    size_t total = 18 + head[7];
    if (head[3] == 'O') {
      std::vector<uint8_t> more = Read(15, timeout_ms);
      head.insert(head.end(), more.begin(), more.end());
      if (head.size() < 23) return head;
      total = 29 + (size_t{head[19]} << 24 | size_t{head[20]} << 16 | size_t{head[21]} << 8 | head[22]);
    }
    std::vector<uint8_t> rest = Read(total - head.size(), timeout_ms);
    head.insert(head.end(), rest.begin(), rest.end());
    return head;
  }

 private:
  bool ok_ = false;
  int master_ = -1;
  int slave_ = -1;
  std::string path_;
};

inline std::vector<uint8_t> Hex(const std::string& text) {
  std::vector<uint8_t> out;
  for (size_t i = 0; i + 1 < text.size();) {
    if (text[i] == ' ') {
      ++i;
      continue;
    }
    out.push_back(static_cast<uint8_t>(std::stoul(text.substr(i, 2), nullptr, 16)));
    i += 2;
  }
  return out;
}

inline std::vector<uint8_t> Cat(std::initializer_list<std::vector<uint8_t>> parts) {
  std::vector<uint8_t> out;
  for (const auto& p : parts) out.insert(out.end(), p.begin(), p.end());
  return out;
}

}  // namespace quarn::lidar::test_support
