#pragma once
// A loopback TCP peer that a test drives step by step: accept, read what the client sent,
// answer with chosen bytes, fall silent, close or reset.

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

namespace ktc_test {

using Bytes = std::vector<uint8_t>;

Bytes FromHex(const std::string& hex);
// A loopback port with nothing listening: bound once, then released.
uint16_t UnusedLoopbackPort();  // "47 74 01" -> {0x47, 0x74, 0x01}

class ScriptedPeer {
 public:
  // Listens on 127.0.0.1 at a system-chosen port.
  explicit ScriptedPeer(int backlog = 4);
  ~ScriptedPeer();
  ScriptedPeer(const ScriptedPeer&) = delete;
  ScriptedPeer& operator=(const ScriptedPeer&) = delete;

  uint16_t port() const { return port_; }
  int listener() const { return listener_; }

  // Accepts the next connection (replacing the current one); false on time-out.
  bool Accept(std::chrono::milliseconds timeout = std::chrono::seconds(10));
  bool connected() const { return conn_ >= 0; }
  int connection() const { return conn_; }

  // Exactly n bytes, or fewer when the time-out or the client's close comes first.
  Bytes Read(size_t n, std::chrono::milliseconds timeout = std::chrono::seconds(10));
  // One whole KTC request frame of the given version (header, then its payload).
  Bytes ReadFrame(int version, std::chrono::milliseconds timeout = std::chrono::seconds(10));
  // Whatever arrives within `quiet` of silence.
  Bytes ReadAvailable(std::chrono::milliseconds quiet);
  bool Write(const Bytes& bytes);
  // Orderly close, or an abortive one (the client sees a connection reset).
  void Close();
  void Reset();

 private:
  int listener_ = -1;
  int conn_ = -1;
  uint16_t port_ = 0;
};

// A KTC reply frame built by hand (independent of the encoder under test).
Bytes ReplyV1(uint8_t cmd, uint8_t return_code, const Bytes& payload);
Bytes ReplyV2(uint8_t cmd, uint8_t return_code, const Bytes& payload);
Bytes ReplyWithClaimedLength(int version, uint8_t cmd, uint32_t claimed, const Bytes& payload);

}  // namespace ktc_test
