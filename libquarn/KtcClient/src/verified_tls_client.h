#pragma once
// TLS transport that checks whom it talks to: TLS 1.2 or newer, the sensor's certificate
// verified against a CA file (or the system's store) and against the sensor's address,
// an optional client certificate. Reads behave as TcpClient's do.

#include <openssl/ssl.h>

#include <atomic>
#include <mutex>
#include <string>

#include "client_base.h"
#include "platform/net.h"

namespace quarn::lidar {

class VerifiedTlsClient : public ClientBase {
 public:
  VerifiedTlsClient() = default;
  ~VerifiedTlsClient() override;
  VerifiedTlsClient(const VerifiedTlsClient&) = delete;
  VerifiedTlsClient& operator=(const VerifiedTlsClient&) = delete;

  // Blocking connect and handshake (the handshake waits up to 5 s).
  bool Open(const std::string& ip, uint16_t port, bool auto_receive, const char* cert, const char* private_key,
            const char* ca) override;
  // Connect within timeout_s seconds, then the handshake within the handshake time-out
  // (timeout_s when none was set). cert and private_key together or neither; ca null or
  // empty means the system's store.
  bool TryOpen(uint16_t local_port, const std::string& ip, uint16_t port, bool auto_receive, const char* cert,
               const char* private_key, const char* ca, uint32_t timeout_s) override;
  void Close() override;
  bool IsOpened() override { return opened_.load(std::memory_order_acquire); }
  // All of `length` or a failure (-1).
  int Send(const uint8_t* data, uint16_t length, int flags) override;
  // Partial reads; -1 on time-out; flags == kReceiveNonBlocking: one read that does not wait.
  int Receive(uint8_t* buffer, uint32_t length, int flags) override;
  bool SetReceiveTimeout(uint32_t ms) override;
  int SetTimeout(uint32_t receive_ms, uint32_t send_ms) override;
  void SetReceiveBufferSize(const uint32_t& size) override;
  void Interrupt() override { interrupt_.Fire(); }

  void SetHandshakeTimeoutMs(uint32_t ms) { handshake_timeout_ms_ = ms; }
  // Why the last open failed, in words for the user; empty after a success.
  std::string LastError() const;
  // The last open failed on the TLS level (certificates, handshake): retrying the same
  // sensor gives the same answer, unlike a refused TCP connect.
  bool FailedFinally() const { return failed_finally_.load(); }
  // The issuer of the sensor's verified certificate (its common name, else the whole
  // name); empty while not open.
  std::string PeerIssuer() const;

 private:
  bool Connect(uint16_t local_port, uint32_t timeout_ms);
  SSL_CTX* MakeContext(const char* cert, const char* private_key, const char* ca);
  bool Handshake(SSL_CTX* ctx, uint32_t timeout_ms);
  // The user's words for a handshake that failed.
  std::string HandshakeFailureText(unsigned long ssl_error) const;
  void Fail(std::string text, bool finally);
  void CloseSession();
  static int VerifyCallback(int preverify_ok, X509_STORE_CTX* store);
  static int ClientCertCallback(SSL* ssl, X509** cert, EVP_PKEY** key);

  std::string lidar_ip_;
  uint16_t lidar_port_ = 0;
  net::socket_t socket_ = net::kInvalidSocket;
  SocketInterrupt interrupt_;
  SSL* ssl_ = nullptr;
  std::atomic<bool> opened_{false};
  uint32_t receive_timeout_ms_ = 500;
  uint32_t send_timeout_ms_ = 500;
  uint32_t handshake_timeout_ms_ = 0;
  // Set by the verification callback during the handshake.
  int verify_error_ = 0;
  std::string verify_detail_;
  bool certificate_requested_ = false;
  bool ca_given_ = false;  // else the system's store
  mutable std::mutex text_mutex_;
  std::string last_error_;
  std::string issuer_;
  std::atomic<bool> failed_finally_{false};
};

}  // namespace quarn::lidar
