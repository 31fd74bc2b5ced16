#pragma once
// The virtual lidar's TLS side: a server context from the sensor's certificate and key,
// and one connection's handshake, writes and close over it.

#include <openssl/ssl.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace varkel::sim {

struct SslCtxFree {
  void operator()(SSL_CTX* ctx) const { SSL_CTX_free(ctx); }
};
using ServerContext = std::unique_ptr<SSL_CTX, SslCtxFree>;

// TLS 1.2 or newer with `cert` and `key`; with `client_ca` a client must show a certificate
// issued by it. Null with a reason when a file cannot be used.
ServerContext MakeServerContext(const std::string& cert, const std::string& key, const std::string& client_ca,
                                std::string* error);

// Handshake on the connected socket `fd`, which reads with a short time-out. Gives up after
// `limit_ms` or when `running` turns false. Null on failure, with the reason in `why`.
SSL* AcceptTls(SSL_CTX* ctx, int fd, int limit_ms, const std::atomic<bool>& running, std::string* why);

// One read of decrypted bytes: >0 bytes, 0 closed or failed, -1 nothing yet.
int TlsRead(SSL* ssl, uint8_t* buffer, int length);
// Writes everything unless the peer takes nothing for `stall_limit_ms`.
bool TlsWriteAll(SSL* ssl, const std::vector<uint8_t>& bytes, int stall_limit_ms);

}  // namespace varkel::sim
