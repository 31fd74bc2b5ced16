#include "tls_fixtures.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <stdexcept>

namespace ktc_test {
namespace {

EVP_PKEY* NewKey() {
  EVP_PKEY* key = EVP_EC_gen("P-256");
  if (key == nullptr) throw std::runtime_error("key generation failed");
  return key;
}

void WriteKey(EVP_PKEY* key, const std::string& path) {
  FILE* f = std::fopen(path.c_str(), "w");
  if (f == nullptr || PEM_write_PrivateKey(f, key, nullptr, nullptr, 0, nullptr, nullptr) != 1) {
    throw std::runtime_error("cannot write key");
  }
  std::fclose(f);
}

void WriteSelfSignedCert(EVP_PKEY* key, const std::string& path) {
  X509* cert = X509_new();
  X509_set_version(cert, 2);
  ASN1_INTEGER_set(X509_get_serialNumber(cert), 1);
  X509_gmtime_adj(X509_getm_notBefore(cert), -3600);
  X509_gmtime_adj(X509_getm_notAfter(cert), 3600L * 24);
  X509_set_pubkey(cert, key);
  X509_NAME* name = X509_get_subject_name(cert);
  X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC, reinterpret_cast<const unsigned char*>("127.0.0.1"), -1, -1, 0);
  X509_set_issuer_name(cert, name);
  if (X509_sign(cert, key, EVP_sha256()) == 0) throw std::runtime_error("cannot sign certificate");
  FILE* f = std::fopen(path.c_str(), "w");
  if (f == nullptr || PEM_write_X509(f, cert) != 1) throw std::runtime_error("cannot write certificate");
  std::fclose(f);
  X509_free(cert);
}

}  // namespace

TlsFiles::TlsFiles() {
  std::string pattern = (std::filesystem::temp_directory_path() / "ktc-tls-XXXXXX").string();
  if (mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
  dir_ = pattern;
  EVP_PKEY* key = NewKey();
  EVP_PKEY* other = NewKey();
  WriteKey(key, this->key());
  WriteKey(other, other_key());
  WriteSelfSignedCert(key, cert());
  EVP_PKEY* rsa = EVP_RSA_gen(1024);
  if (rsa == nullptr) throw std::runtime_error("RSA key generation failed");
  WriteKey(rsa, rsa_key());
  EVP_PKEY_free(rsa);
  EVP_PKEY_free(key);
  EVP_PKEY_free(other);
  FILE* f = std::fopen(junk().c_str(), "w");
  std::fputs("this is not a PEM file\n", f);
  std::fclose(f);
}

TlsFiles::~TlsFiles() {
  std::error_code ec;
  std::filesystem::remove_all(dir_, ec);
}

TlsServer::TlsServer(const TlsFiles& files) {
  ctx_ = SSL_CTX_new(TLS_server_method());
  if (ctx_ == nullptr || SSL_CTX_use_certificate_file(ctx_, files.cert().c_str(), SSL_FILETYPE_PEM) != 1 ||
      SSL_CTX_use_PrivateKey_file(ctx_, files.key().c_str(), SSL_FILETYPE_PEM) != 1) {
    throw std::runtime_error("TLS server context failed");
  }
  listener_ = ::socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (::bind(listener_, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0 || ::listen(listener_, 4) != 0) {
    throw std::runtime_error("TLS server cannot listen");
  }
  socklen_t len = sizeof(addr);
  getsockname(listener_, reinterpret_cast<sockaddr*>(&addr), &len);
  port_ = ntohs(addr.sin_port);
  thread_ = std::thread([this] {
    pollfd p{listener_, POLLIN, 0};
    if (poll(&p, 1, 10000) <= 0) return;
    const int fd = ::accept(listener_, nullptr, nullptr);
    if (fd < 0) return;
    accepted_.store(true);
    timeval tv{5, 0};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof(tv));
    SSL* ssl = SSL_new(ctx_);
    SSL_set_fd(ssl, fd);
    handshake_ok_.store(SSL_accept(ssl) == 1);
    SSL_free(ssl);
    ::close(fd);
  });
}

void TlsServer::Join() {
  if (thread_.joinable()) thread_.join();
}

TlsServer::~TlsServer() {
  if (listener_ >= 0) ::shutdown(listener_, SHUT_RDWR);
  Join();
  if (listener_ >= 0) ::close(listener_);
  SSL_CTX_free(ctx_);
}

}  // namespace ktc_test
