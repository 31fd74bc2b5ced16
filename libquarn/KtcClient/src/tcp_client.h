#pragma once
// Plain TCP transport over IPv4.

#include <atomic>
#include <string>

#include "client_base.h"
#include "platform/net.h"

namespace quarn::lidar {

class TcpClient : public ClientBase {
 public:
  TcpClient() = default;
  ~TcpClient() override;
  TcpClient(const TcpClient&) = delete;
  TcpClient& operator=(const TcpClient&) = delete;

  // Blocking connect; certificate arguments are ignored.
  bool Open(const std::string& ip, uint16_t port, bool auto_receive, const char* cert, const char* private_key,
            const char* ca) override;
  // Connect that gives up after timeout_s seconds; binds local_port first when non-zero.
  bool TryOpen(uint16_t local_port, const std::string& ip, uint16_t port, bool auto_receive, const char* cert,
               const char* private_key, const char* ca, uint32_t timeout_s) override;
  void Close() override;
  bool IsOpened() override { return opened_.load(std::memory_order_acquire); }
  int Send(const uint8_t* data, uint16_t length, int flags) override;
  // flags == kReceiveNonBlocking: one read that returns at once; otherwise the flags go to recv.
  int Receive(uint8_t* buffer, uint32_t length, int flags) override;
  bool SetReceiveTimeout(uint32_t ms) override;
  int SetTimeout(uint32_t receive_ms, uint32_t send_ms) override;
  // Enlarges the socket's receive buffer to `size`; never shrinks it.
  void SetReceiveBufferSize(const uint32_t& size) override;
  void Interrupt() override { interrupt_.Fire(); }

  // The socket's current receive buffer size (0 when closed).
  uint32_t GetSocketReceiveBufferSize() const;

 private:
  bool PlainOpen();
  void CloseSocketOnly();

  std::string lidar_ip_;
  uint16_t lidar_port_ = 0;
  net::socket_t socket_ = net::kInvalidSocket;
  // Read by IsOpen from other threads while the connect thread opens.
  std::atomic<bool> opened_{false};
  SocketInterrupt interrupt_;
  uint32_t receive_buffer_size_ = 4096;
  uint32_t receive_timeout_ms_ = 500;
  uint32_t send_timeout_ms_ = 500;
};

}  // namespace quarn::lidar
