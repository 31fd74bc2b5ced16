#pragma once
// TLS transport (OpenSSL) and the two socket helpers it connects with.

#include <openssl/ssl.h>

#include <atomic>
#include <string>

#include "client_base.h"
#include "platform/net.h"

namespace quarn::lidar {

// Client context with the CA as verification locations and, when both are given, the
// client certificate and key (peer verification on). Null on any failure, logged.
SSL_CTX* InitSslClient(const char* cert, const char* private_key, const char* ca);

// Blocking IPv4 connect. Returns the socket, -1 on failure, 0 when start-up fails.
int tcp_open(const char* ip, int port);
// Connect with a time-out of timeout_s seconds, binding local_port first when non-zero.
// Returns the socket (blocking again), -1 on failure, 0 when the connect ended in an error.
int tcp_try_open(uint16_t local_port, const char* ip, int port, uint32_t timeout_s);

class TcpSslClient : public ClientBase {
 public:
  TcpSslClient() = default;
  ~TcpSslClient() override;
  TcpSslClient(const TcpSslClient&) = delete;
  TcpSslClient& operator=(const TcpSslClient&) = delete;

  bool Open(const std::string& ip, uint16_t port, bool auto_receive, const char* cert, const char* private_key,
            const char* ca) override;
  bool TryOpen(uint16_t local_port, const std::string& ip, uint16_t port, bool auto_receive, const char* cert,
               const char* private_key, const char* ca, uint32_t timeout_s) override;
  void Close() override;
  bool IsOpened() override { return opened_.load(std::memory_order_acquire); }
  int Send(const uint8_t* data, uint16_t length, int flags) override;
  // Delivers exactly `length` bytes or fails; flags == kReceiveNonBlocking is refused (-1).
  int Receive(uint8_t* buffer, uint32_t length, int flags) override;
  bool SetReceiveTimeout(uint32_t ms) override;
  int SetTimeout(uint32_t receive_ms, uint32_t send_ms) override;
  void SetReceiveBufferSize(const uint32_t& size) override;

 private:
  bool PlainOpen();
  // Session set-up on the socket a connect helper returned.
  bool FinishOpen(int connected_socket);
  void ReleaseSocket();

  std::string lidar_ip_;
  uint16_t lidar_port_ = 0;
  uint32_t receive_buffer_size_ = 4096;
  uint32_t receive_timeout_ms_ = 500;
  uint32_t send_timeout_ms_ = 500;
  SSL_CTX* ctx_ = nullptr;
  net::socket_t socket_ = net::kInvalidSocket;
  SSL* ssl_ = nullptr;
  // Borrowed from the caller, as handed to TryOpen/Open.
  const char* cert_path_ = nullptr;
  const char* private_key_path_ = nullptr;
  const char* ca_path_ = nullptr;
  std::atomic<bool> opened_{false};
};

}  // namespace quarn::lidar
