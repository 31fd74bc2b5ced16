#include "verified_tls_client.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/x509v3.h>
#include <poll.h>
#include <sys/socket.h>

#include <cerrno>
#include <chrono>
#include <climits>
#include <cstdio>
#include <ctime>
#include <memory>

#include "logger.h"
#include "platform/net_socket_options.h"
#include "tls_socket_bio.h"

namespace quarn::lidar {
namespace {

using Clock = std::chrono::steady_clock;

constexpr uint32_t kOpenHandshakeTimeoutMs = 5000;

bool PathGiven(const char* path) {
  return path != nullptr && path[0] != '\0';
}

struct FileCloser {
  void operator()(FILE* f) const { std::fclose(f); }
};
struct X509Free {
  void operator()(X509* x) const { X509_free(x); }
};
struct KeyFree {
  void operator()(EVP_PKEY* k) const { EVP_PKEY_free(k); }
};

std::unique_ptr<X509, X509Free> ReadCertificate(const char* path) {
  std::unique_ptr<FILE, FileCloser> f(std::fopen(path, "rb"));
  if (!f) return nullptr;
  return std::unique_ptr<X509, X509Free>(PEM_read_X509(f.get(), nullptr, nullptr, nullptr));
}

std::unique_ptr<EVP_PKEY, KeyFree> ReadKey(const char* path) {
  std::unique_ptr<FILE, FileCloser> f(std::fopen(path, "rb"));
  if (!f) return nullptr;
  return std::unique_ptr<EVP_PKEY, KeyFree>(PEM_read_PrivateKey(f.get(), nullptr, nullptr, nullptr));
}

std::string TimeText(const ASN1_TIME* t) {
  tm when{};
  if (t == nullptr || ASN1_TIME_to_tm(t, &when) != 1) return "an unknown date";
  char text[32];
  std::strftime(text, sizeof(text), "%Y-%m-%d %H:%M:%S UTC", &when);
  return text;
}

std::string NameEntry(const X509_NAME* name, int nid) {
  const int at = X509_NAME_get_index_by_NID(name, nid, -1);
  if (at < 0) return {};
  const ASN1_STRING* data = X509_NAME_ENTRY_get_data(X509_NAME_get_entry(name, at));
  unsigned char* utf8 = nullptr;
  const int n = ASN1_STRING_to_UTF8(&utf8, data);
  if (n < 0) return {};
  std::string text(reinterpret_cast<char*>(utf8), static_cast<size_t>(n));
  OPENSSL_free(utf8);
  return text;
}

std::string WholeName(const X509_NAME* name) {
  char text[256];
  X509_NAME_oneline(name, text, sizeof(text));
  return text;
}

// The addresses and host names a certificate is for, as a user reads them.
std::string CertificateNames(X509* cert) {
  std::string names;
  auto add = [&](const std::string& n) { names += (names.empty() ? "" : ", ") + n; };
  auto* alt = static_cast<GENERAL_NAMES*>(X509_get_ext_d2i(cert, NID_subject_alt_name, nullptr, nullptr));
  for (int i = 0; alt != nullptr && i < sk_GENERAL_NAME_num(alt); ++i) {
    const GENERAL_NAME* g = sk_GENERAL_NAME_value(alt, i);
    if (g->type == GEN_IPADD) {
      const ASN1_OCTET_STRING* ip = g->d.iPAddress;
      char text[INET6_ADDRSTRLEN] = "";
      const int family = ASN1_STRING_length(ip) == 4 ? AF_INET : AF_INET6;
      if (inet_ntop(family, ASN1_STRING_get0_data(ip), text, sizeof(text)) != nullptr) add(text);
    } else if (g->type == GEN_DNS) {
      add(std::string(reinterpret_cast<const char*>(ASN1_STRING_get0_data(g->d.dNSName)),
                      static_cast<size_t>(ASN1_STRING_length(g->d.dNSName))));
    }
  }
  GENERAL_NAMES_free(alt);
  if (names.empty()) names = NameEntry(X509_get_subject_name(cert), NID_commonName);
  return names.empty() ? "another name" : names;
}

}  // namespace

VerifiedTlsClient::~VerifiedTlsClient() {
  Close();
}

bool VerifiedTlsClient::Open(const std::string& ip, uint16_t port, bool auto_receive, const char* cert,
                             const char* private_key, const char* ca) {
  if (handshake_timeout_ms_ == 0) handshake_timeout_ms_ = kOpenHandshakeTimeoutMs;
  return TryOpen(0, ip, port, auto_receive, cert, private_key, ca, kOpenHandshakeTimeoutMs / 1000);
}

void VerifiedTlsClient::Fail(std::string text, bool finally) {
  LOG_ERROR("TLS to %s:%u: %s", lidar_ip_.c_str(), static_cast<unsigned>(lidar_port_), text.c_str());
  std::lock_guard<std::mutex> lock(text_mutex_);
  last_error_ = std::move(text);
  failed_finally_.store(finally);
}

std::string VerifiedTlsClient::LastError() const {
  std::lock_guard<std::mutex> lock(text_mutex_);
  return last_error_;
}

std::string VerifiedTlsClient::PeerIssuer() const {
  std::lock_guard<std::mutex> lock(text_mutex_);
  return issuer_;
}

bool VerifiedTlsClient::TryOpen(uint16_t local_port, const std::string& ip, uint16_t port, bool, const char* cert,
                                const char* private_key, const char* ca, uint32_t timeout_s) {
  if (IsOpened() && ip == lidar_ip_ && port == lidar_port_) return true;
  Close();
  lidar_ip_ = ip;
  lidar_port_ = port;
  {
    std::lock_guard<std::mutex> lock(text_mutex_);
    last_error_.clear();
    failed_finally_.store(false);
  }
  OPENSSL_init_ssl(OPENSSL_INIT_LOAD_SSL_STRINGS | OPENSSL_INIT_LOAD_CRYPTO_STRINGS, nullptr);
  SSL_CTX* ctx = MakeContext(cert, private_key, ca);
  if (ctx == nullptr) return false;
  const uint32_t timeout_ms = timeout_s * 1000;
  bool ok = Connect(local_port, timeout_ms);
  if (ok) ok = Handshake(ctx, handshake_timeout_ms_ != 0 ? handshake_timeout_ms_ : timeout_ms);
  SSL_CTX_free(ctx);  // the session holds its own reference
  ERR_clear_error();
  if (!ok) {
    CloseSession();
    return false;
  }
  interrupt_.Arm(socket_);
  opened_.store(true, std::memory_order_release);
  LOG_PROGRESS("TLS to %s:%u verified", ip.c_str(), static_cast<unsigned>(port));
  return true;
}

SSL_CTX* VerifiedTlsClient::MakeContext(const char* cert, const char* private_key, const char* ca) {
  SSL_CTX* ctx = SSL_CTX_new(TLS_client_method());
  if (ctx == nullptr) {
    Fail("cannot set up TLS", true);
    return nullptr;
  }
  auto fail = [&](std::string text) {
    Fail(std::move(text), true);
    SSL_CTX_free(ctx);
    return nullptr;
  };
  SSL_CTX_set_min_proto_version(ctx, TLS1_2_VERSION);
  SSL_CTX_set_mode(ctx, SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER);
  // A sensor that drops the line is a closed connection, as over plain TCP.
  SSL_CTX_set_options(ctx, SSL_OP_IGNORE_UNEXPECTED_EOF);
  // One receive for a record's header and body, not two: a reply costs what it does over TCP.
  SSL_CTX_set_read_ahead(ctx, 1);
  // AES-128 first: frames are small and many, and 128 bits are plenty for a sensor link.
  SSL_CTX_set_ciphersuites(ctx, "TLS_AES_128_GCM_SHA256:TLS_AES_256_GCM_SHA384:TLS_CHACHA20_POLY1305_SHA256");
  ca_given_ = PathGiven(ca);
  if (ca_given_) {
    if (SSL_CTX_load_verify_file(ctx, ca) != 1) return fail(std::string("cannot read CA file ") + ca);
  } else if (SSL_CTX_set_default_verify_paths(ctx) != 1) {
    return fail("cannot read the system's certificate store");
  }
  if (PathGiven(cert) != PathGiven(private_key))
    return fail("a client certificate needs both a certificate and a key file");
  if (PathGiven(cert)) {
    auto own = ReadCertificate(cert);
    if (!own || SSL_CTX_use_certificate_chain_file(ctx, cert) != 1)
      return fail(std::string("cannot read certificate file ") + cert);
    auto key = ReadKey(private_key);
    if (!key) return fail(std::string("cannot read key file ") + private_key);
    if (X509_check_private_key(own.get(), key.get()) != 1 || SSL_CTX_use_PrivateKey(ctx, key.get()) != 1)
      return fail("key does not match certificate");
  } else {
    SSL_CTX_set_client_cert_cb(ctx, &VerifiedTlsClient::ClientCertCallback);
  }
  SSL_CTX_set_verify(ctx, SSL_VERIFY_PEER, &VerifiedTlsClient::VerifyCallback);
  return ctx;
}

bool VerifiedTlsClient::Connect(uint16_t local_port, uint32_t timeout_ms) {
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_port = htons(lidar_port_);
  if (inet_pton(AF_INET, lidar_ip_.c_str(), &addr.sin_addr) != 1) {
    Fail("not an IPv4 address: " + lidar_ip_, true);
    return false;
  }
  if (!net::Startup()) {
    Fail("the network is not available", false);
    return false;
  }
  socket_ = ::socket(AF_INET, SOCK_STREAM, 0);
  if (socket_ == net::kInvalidSocket) {
    net::Cleanup();
    Fail("cannot make a socket", false);
    return false;
  }
  if (local_port != 0 && !net::BindLocalPort(socket_, local_port))
    LOG_ERROR("Failed to bind local port, system will auto assign one");
  const std::string where = lidar_ip_ + ":" + std::to_string(lidar_port_);
  // TLS hands the socket whole records, one send each: holding a record back until the
  // previous one is acknowledged only delays the message (and every handshake flight).
  net::SetNoDelay(socket_);
  net::SetNonBlocking(socket_, true);
  if (::connect(socket_, reinterpret_cast<const sockaddr*>(&addr), sizeof(addr)) != 0) {
    const int err = net::LastSocketError();
    if (!net::IsInProgress(err) && !net::IsWouldBlock(err)) {
      Fail("cannot connect to " + where + ": " + net::ErrorText(err), false);
      return false;
    }
  }
  int pending = 0;
  if (net::WaitWritable(socket_, timeout_ms / 1000, (timeout_ms % 1000) * 1000) <= 0) {
    Fail("no TCP connection to " + where + " within " + std::to_string(timeout_ms) + " ms", false);
    return false;
  }
  if (!net::GetPendingError(socket_, pending) || pending != 0) {
    Fail("cannot connect to " + where + ": " + net::ErrorText(pending), false);
    return false;
  }
  return true;
}

bool VerifiedTlsClient::Handshake(SSL_CTX* ctx, uint32_t timeout_ms) {
  verify_error_ = 0;
  verify_detail_.clear();
  certificate_requested_ = false;
  ssl_ = SSL_new(ctx);
  BIO* bio = ssl_ != nullptr ? NewSocketBio(socket_) : nullptr;
  if (bio == nullptr) {
    Fail("cannot set up TLS", true);
    return false;
  }
  SSL_set_bio(ssl_, bio, bio);
  SSL_set_app_data(ssl_, this);
  // The certificate must name the address the user typed (or the host name).
  X509_VERIFY_PARAM* param = SSL_get0_param(ssl_);
  in_addr ignored{};
  if (inet_pton(AF_INET, lidar_ip_.c_str(), &ignored) == 1) {
    X509_VERIFY_PARAM_set1_ip_asc(param, lidar_ip_.c_str());
  } else {
    X509_VERIFY_PARAM_set1_host(param, lidar_ip_.c_str(), 0);
    SSL_set_tlsext_host_name(ssl_, lidar_ip_.c_str());
  }
  // The socket is still non-blocking from the connect; the handshake is bounded as a whole.
  const auto deadline = Clock::now() + std::chrono::milliseconds(timeout_ms);
  int result = 0;
  while ((result = SSL_connect(ssl_)) != 1) {
    const int err = SSL_get_error(ssl_, result);
    if (err != SSL_ERROR_WANT_READ && err != SSL_ERROR_WANT_WRITE) {
      const unsigned long reason = ERR_peek_last_error();
      Fail(HandshakeFailureText(reason), true);
      return false;
    }
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
    if (left <= 0) {
      Fail("the sensor did not answer the TLS handshake within " + std::to_string(timeout_ms) +
               " ms (is it a plain KTC port?)",
           true);
      return false;
    }
    pollfd p{socket_, static_cast<short>(err == SSL_ERROR_WANT_READ ? POLLIN : POLLOUT), 0};
    ::poll(&p, 1, static_cast<int>(left));
  }
  // Without a certificate to give, the link cannot be what the sensor wants, even where the
  // protocol lets the handshake end before the sensor says so.
  if (certificate_requested_) {
    Fail("the sensor asked for a client certificate", true);
    return false;
  }
  net::SetNonBlocking(socket_, false);
  net::SetReceiveTimeoutMs(socket_, receive_timeout_ms_);
  net::SetSendTimeoutMs(socket_, send_timeout_ms_);
  std::string issuer;
  if (X509* peer = SSL_get0_peer_certificate(ssl_)) {
    issuer = NameEntry(X509_get_issuer_name(peer), NID_commonName);
    if (issuer.empty()) issuer = WholeName(X509_get_issuer_name(peer));
  }
  std::lock_guard<std::mutex> lock(text_mutex_);
  issuer_ = issuer;
  return true;
}

std::string VerifiedTlsClient::HandshakeFailureText(unsigned long ssl_error) const {
  if (certificate_requested_) return "the sensor asked for a client certificate";
  switch (verify_error_) {
    case 0:
      break;
    case X509_V_ERR_DEPTH_ZERO_SELF_SIGNED_CERT:
    case X509_V_ERR_SELF_SIGNED_CERT_IN_CHAIN:
      return "certificate not trusted (self-signed)";
    case X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT_LOCALLY:
    case X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT:
    case X509_V_ERR_UNABLE_TO_VERIFY_LEAF_SIGNATURE:
      return "certificate not trusted (issued by " + verify_detail_ +
             (ca_given_ ? ", which the CA file does not hold)" : ", which the system does not trust)");
    case X509_V_ERR_IP_ADDRESS_MISMATCH:
    case X509_V_ERR_HOSTNAME_MISMATCH:
      return "certificate is for " + verify_detail_ + ", not " + lidar_ip_;
    case X509_V_ERR_CERT_HAS_EXPIRED:
      return "certificate expired on " + verify_detail_;
    case X509_V_ERR_CERT_NOT_YET_VALID:
      return "certificate is not valid before " + verify_detail_;
    default:
      return std::string("certificate not trusted (") + X509_verify_cert_error_string(verify_error_) + ")";
  }
  if (ssl_error == 0) return "the sensor closed the connection during the TLS handshake";
  const char* reason = ERR_reason_error_string(ssl_error);
  return std::string("TLS handshake failed: ") + (reason != nullptr ? reason : "unknown reason");
}

int VerifiedTlsClient::VerifyCallback(int preverify_ok, X509_STORE_CTX* store) {
  if (preverify_ok == 1) return 1;
  auto* ssl = static_cast<SSL*>(X509_STORE_CTX_get_ex_data(store, SSL_get_ex_data_X509_STORE_CTX_idx()));
  auto* self = ssl != nullptr ? static_cast<VerifiedTlsClient*>(SSL_get_app_data(ssl)) : nullptr;
  if (self == nullptr || self->verify_error_ != 0) return 0;
  // The first complaint is the one to tell: later ones follow from it.
  self->verify_error_ = X509_STORE_CTX_get_error(store);
  X509* cert = X509_STORE_CTX_get_current_cert(store);
  switch (self->verify_error_) {
    case X509_V_ERR_IP_ADDRESS_MISMATCH:
    case X509_V_ERR_HOSTNAME_MISMATCH:
      self->verify_detail_ = CertificateNames(X509_STORE_CTX_get0_cert(store));
      break;
    case X509_V_ERR_CERT_HAS_EXPIRED:
      self->verify_detail_ = TimeText(cert != nullptr ? X509_get0_notAfter(cert) : nullptr);
      break;
    case X509_V_ERR_CERT_NOT_YET_VALID:
      self->verify_detail_ = TimeText(cert != nullptr ? X509_get0_notBefore(cert) : nullptr);
      break;
    default:
      if (cert != nullptr) {
        self->verify_detail_ = NameEntry(X509_get_issuer_name(cert), NID_commonName);
        if (self->verify_detail_.empty()) self->verify_detail_ = WholeName(X509_get_issuer_name(cert));
      }
  }
  return 0;
}

int VerifiedTlsClient::ClientCertCallback(SSL* ssl, X509**, EVP_PKEY**) {
  if (auto* self = static_cast<VerifiedTlsClient*>(SSL_get_app_data(ssl))) self->certificate_requested_ = true;
  return 0;  // none to give
}

void VerifiedTlsClient::CloseSession() {
  if (ssl_ != nullptr) {
    // A close_notify when the session got that far; the socket's time-out bounds it.
    if (opened_.load()) SSL_shutdown(ssl_);
    SSL_free(ssl_);
    ssl_ = nullptr;
  }
  if (socket_ != net::kInvalidSocket) {
    interrupt_.Disarm();
    net::CloseSocket(socket_);
    net::Cleanup();
    socket_ = net::kInvalidSocket;
  }
  ERR_clear_error();
}

void VerifiedTlsClient::Close() {
  CloseSession();
  opened_.store(false, std::memory_order_release);
  std::lock_guard<std::mutex> lock(text_mutex_);
  issuer_.clear();
}

int VerifiedTlsClient::Send(const uint8_t* data, uint16_t length, int) {
  if (!IsOpened()) return -1;
  if (length == 0) return 0;
  const int sent = SSL_write(ssl_, data, length);
  if (sent <= 0) {
    const int err = SSL_get_error(ssl_, sent);
    if (err != SSL_ERROR_WANT_WRITE) LOG_ERROR("TLS send failed, error %d", err);
    ERR_clear_error();
    return -1;
  }
  return sent;
}

int VerifiedTlsClient::Receive(uint8_t* buffer, uint32_t length, int flags) {
  if (!IsOpened()) return -1;
  const int want = length > INT_MAX ? INT_MAX : static_cast<int>(length);
  // Bytes OpenSSL holds already (decrypted, or read ahead from the socket) are there at
  // once, whatever the socket has.
  const bool no_wait = flags == kReceiveNonBlocking && SSL_pending(ssl_) == 0 && SSL_has_pending(ssl_) == 0;
  if (no_wait) {
    // The drain before every exchange asks this and nearly always finds nothing: a peek at
    // the socket answers it without a pass through the TLS layer.
    if (net::NothingToRead(socket_)) return -1;
    SetSocketBioNoWait(SSL_get_rbio(ssl_), true);
  }
  const int result = SSL_read(ssl_, buffer, want);
  if (no_wait) SetSocketBioNoWait(SSL_get_rbio(ssl_), false);
  if (result > 0) return result;
  const int err = SSL_get_error(ssl_, result);
  ERR_clear_error();
  // Nothing within the time-out (or at once): the normal end of a wait, as for TcpClient.
  if (err == SSL_ERROR_WANT_READ || err == SSL_ERROR_WANT_WRITE) return -1;
  if (err == SSL_ERROR_ZERO_RETURN || (err == SSL_ERROR_SYSCALL && result == 0)) {
    LOG_ERROR("Connection closed by peer");
    return 0;
  }
  LOG_ERROR("TLS receive failed, error %d", err);
  return -1;
}

bool VerifiedTlsClient::SetReceiveTimeout(uint32_t ms) {
  if (socket_ == net::kInvalidSocket) return false;
  return net::SetReceiveTimeoutMs(socket_, ms);
}

int VerifiedTlsClient::SetTimeout(uint32_t receive_ms, uint32_t send_ms) {
  receive_timeout_ms_ = receive_ms;
  send_timeout_ms_ = send_ms;
  if (socket_ == net::kInvalidSocket) return -1;
  if (!net::SetReceiveTimeoutMs(socket_, receive_ms)) return -1;
  return net::SetSendTimeoutMs(socket_, send_ms) ? 0 : -1;
}

void VerifiedTlsClient::SetReceiveBufferSize(const uint32_t& size) {
  if (socket_ == net::kInvalidSocket) return;
  uint32_t current = 0;
  if (net::GetReceiveBufferSize(socket_, current) && current < size) net::SetReceiveBufferSize(socket_, size);
}

}  // namespace quarn::lidar
