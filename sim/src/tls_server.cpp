#include "tls_server.h"

#include <openssl/err.h>
#include <poll.h>

#include <algorithm>
#include <chrono>

#include "tls_socket_bio.h"

namespace varkel::sim {
namespace {

std::string ErrorQueueText() {
  const unsigned long e = ERR_get_error();
  ERR_clear_error();
  if (e == 0) return "no reason given";
  const char* reason = ERR_reason_error_string(e);
  return reason != nullptr ? reason : "unknown reason";
}

}  // namespace

ServerContext MakeServerContext(const std::string& cert, const std::string& key, const std::string& client_ca,
                                std::string* error) {
  OPENSSL_init_ssl(OPENSSL_INIT_LOAD_SSL_STRINGS | OPENSSL_INIT_LOAD_CRYPTO_STRINGS, nullptr);
  ServerContext ctx(SSL_CTX_new(TLS_server_method()));
  auto fail = [&](const std::string& why) {
    if (error) *error = why + ": " + ErrorQueueText();
    return nullptr;
  };
  if (!ctx) return fail("cannot set up TLS");
  SSL_CTX_set_min_proto_version(ctx.get(), TLS1_2_VERSION);
  SSL_CTX_set_mode(ctx.get(), SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER);
  SSL_CTX_set_options(ctx.get(), SSL_OP_IGNORE_UNEXPECTED_EOF);
  SSL_CTX_set_read_ahead(ctx.get(), 1);  // a record in one receive
  if (SSL_CTX_use_certificate_chain_file(ctx.get(), cert.c_str()) != 1) return fail("cannot use certificate " + cert);
  if (SSL_CTX_use_PrivateKey_file(ctx.get(), key.c_str(), SSL_FILETYPE_PEM) != 1 ||
      SSL_CTX_check_private_key(ctx.get()) != 1)
    return fail("cannot use key " + key + " with " + cert);
  if (!client_ca.empty()) {
    STACK_OF(X509_NAME)* names = SSL_load_client_CA_file(client_ca.c_str());
    if (names == nullptr || SSL_CTX_load_verify_file(ctx.get(), client_ca.c_str()) != 1) {
      if (names != nullptr) sk_X509_NAME_pop_free(names, X509_NAME_free);
      return fail("cannot read client CA file " + client_ca);
    }
    SSL_CTX_set_client_CA_list(ctx.get(), names);
    SSL_CTX_set_verify(ctx.get(), SSL_VERIFY_PEER | SSL_VERIFY_FAIL_IF_NO_PEER_CERT, nullptr);
  }
  return ctx;
}

SSL* AcceptTls(SSL_CTX* ctx, int fd, int limit_ms, const std::atomic<bool>& running, std::string* why) {
  SSL* ssl = SSL_new(ctx);
  BIO* bio = ssl != nullptr ? quarn::lidar::NewSocketBio(fd) : nullptr;
  if (bio == nullptr) {
    SSL_free(ssl);
    *why = "cannot set up TLS";
    return nullptr;
  }
  SSL_set_bio(ssl, bio, bio);
  const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(limit_ms);
  int r = 0;
  while ((r = SSL_accept(ssl)) != 1) {
    const int err = SSL_get_error(ssl, r);
    const bool again = err == SSL_ERROR_WANT_READ || err == SSL_ERROR_WANT_WRITE;
    if (!again || !running.load() || std::chrono::steady_clock::now() > end) {
      *why = again ? "no TLS handshake in time" : ErrorQueueText();
      SSL_free(ssl);
      ERR_clear_error();
      return nullptr;
    }
  }
  return ssl;
}

int TlsRead(SSL* ssl, uint8_t* buffer, int length) {
  const int n = SSL_read(ssl, buffer, length);
  if (n > 0) return n;
  const int err = SSL_get_error(ssl, n);
  ERR_clear_error();
  return err == SSL_ERROR_WANT_READ || err == SSL_ERROR_WANT_WRITE ? -1 : 0;
}

bool TlsWriteAll(SSL* ssl, const std::vector<uint8_t>& bytes, int stall_limit_ms) {
  if (bytes.empty()) return true;
  auto stalled_since = std::chrono::steady_clock::now();
  size_t done = 0;
  while (done < bytes.size()) {
    const size_t piece = std::min<size_t>(bytes.size() - done, 1u << 20);
    const int n = SSL_write(ssl, bytes.data() + done, static_cast<int>(piece));
    if (n > 0) {
      done += static_cast<size_t>(n);
      stalled_since = std::chrono::steady_clock::now();
      continue;
    }
    const int err = SSL_get_error(ssl, n);
    ERR_clear_error();
    if (err != SSL_ERROR_WANT_WRITE && err != SSL_ERROR_WANT_READ) return false;
    const auto stalled = std::chrono::steady_clock::now() - stalled_since;
    if (stalled > std::chrono::milliseconds(stall_limit_ms)) return false;
  }
  return true;
}

}  // namespace varkel::sim
