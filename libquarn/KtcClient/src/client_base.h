#pragma once
// A byte-stream transport to a lidar. KtcClient drives its transport only through these
// operations, under its command lock (apart from the connect thread's single TryOpen).

#include <cstdint>
#include <mutex>
#include <string>

#include "platform/net.h"

namespace quarn::lidar {

// Flags value for Receive asking for one read that does not wait.
constexpr int kReceiveNonBlocking = 255;

class ClientBase {
 public:
  virtual ~ClientBase() = default;
  virtual bool Open(const std::string& ip, uint16_t port, bool auto_receive, const char* cert, const char* private_key,
                    const char* ca) = 0;
  virtual bool TryOpen(uint16_t local_port, const std::string& ip, uint16_t port, bool auto_receive, const char* cert,
                       const char* private_key, const char* ca, uint32_t timeout_s) = 0;
  virtual void Close() = 0;
  virtual bool IsOpened() = 0;
  virtual int Send(const uint8_t* data, uint16_t length, int flags) = 0;
  virtual int Receive(uint8_t* buffer, uint32_t length, int flags) = 0;
  virtual bool SetReceiveTimeout(uint32_t ms) = 0;
  virtual int SetTimeout(uint32_t receive_ms, uint32_t send_ms) = 0;
  virtual void SetReceiveBufferSize(const uint32_t& size) = 0;
  // From any thread: ends the read or write in progress at once, and fails every later
  // one until the transport is closed. For an owner letting the link go while another
  // thread waits on it. A transport without a blocking wait has nothing to do.
  virtual void Interrupt() {}
};

// The socket another thread may interrupt. The owner arms it once the socket is open and
// disarms it before closing the descriptor, so an interrupt never reaches a descriptor
// number that has been closed and handed out again.
class SocketInterrupt {
 public:
  void Arm(net::socket_t s) {
    std::lock_guard<std::mutex> lock(mutex_);
    socket_ = s;
  }
  void Disarm() { Arm(net::kInvalidSocket); }
  void Fire() {
    std::lock_guard<std::mutex> lock(mutex_);
    if (socket_ != net::kInvalidSocket) net::ShutdownBoth(socket_);
  }

 private:
  std::mutex mutex_;
  net::socket_t socket_ = net::kInvalidSocket;
};

}  // namespace quarn::lidar
