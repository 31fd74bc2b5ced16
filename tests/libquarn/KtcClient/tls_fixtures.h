#pragma once
// Certificates and keys made at test time, and a one-connection TLS server on loopback.

#include <openssl/ssl.h>

#include <atomic>
#include <cstdint>
#include <string>
#include <thread>

namespace ktc_test {

// A temporary folder with a self-signed certificate and its key ("cert.pem", "key.pem"),
// a second unrelated key of the same type ("other_key.pem"), an RSA key that fits no
// certificate slot of ours ("rsa_key.pem") and a file that is no PEM at all ("junk.pem").
class TlsFiles {
 public:
  TlsFiles();
  ~TlsFiles();
  std::string cert() const { return dir_ + "/cert.pem"; }
  std::string key() const { return dir_ + "/key.pem"; }
  std::string other_key() const { return dir_ + "/other_key.pem"; }
  std::string rsa_key() const { return dir_ + "/rsa_key.pem"; }
  std::string junk() const { return dir_ + "/junk.pem"; }
  std::string missing() const { return dir_ + "/does-not-exist.pem"; }

 private:
  std::string dir_;
};

// Accepts one TCP connection on 127.0.0.1 and runs the server side of a TLS handshake.
class TlsServer {
 public:
  explicit TlsServer(const TlsFiles& files);
  ~TlsServer();
  uint16_t port() const { return port_; }
  // Waits for the server thread to finish (connection handled, or time-out).
  void Join();
  bool accepted() const { return accepted_.load(); }
  bool handshake_completed() const { return handshake_ok_.load(); }

 private:
  SSL_CTX* ctx_ = nullptr;
  int listener_ = -1;
  uint16_t port_ = 0;
  std::atomic<bool> accepted_{false};
  std::atomic<bool> handshake_ok_{false};
  std::thread thread_;
};

}  // namespace ktc_test
