#pragma once
// Certificates made at run time for the TLS tests: a CA, sensor certificates for
// 127.0.0.1 (good, expired, self-signed) and 127.0.0.2, and a client certificate, as PEM
// files in a fresh temporary folder.

#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509v3.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>

#include "sim_start.h"
#include "virtual_lidar.h"

namespace simtest {

class TestPki {
 public:
  TestPki() {
    char pattern[] = "/tmp/varkel-pki-XXXXXX";
    dir_ = ::mkdtemp(pattern) != nullptr ? pattern : "/tmp";
    ca_key_ = EVP_EC_gen("P-256");
    ca_ = Issue("Test Sensor CA", nullptr, ca_key_, nullptr, ca_key_, 0, 3650, true);
    Write(ca_, ca_key_, "ca");
    Sensor("sensor", "127.0.0.1", 0, 365, true);
    Sensor("wrong", "127.0.0.2", 0, 365, true);
    Sensor("expired", "127.0.0.1", -30, -1, true);
    Sensor("self", "127.0.0.1", 0, 365, false);
    Sensor("client", nullptr, 0, 365, true);
  }
  ~TestPki() {
    X509_free(ca_);
    EVP_PKEY_free(ca_key_);
    const std::string cmd = "rm -rf '" + dir_ + "'";
    if (dir_ != "/tmp") (void)std::system(cmd.c_str());
  }
  TestPki(const TestPki&) = delete;
  TestPki& operator=(const TestPki&) = delete;

  // <name>.pem and <name>.key for ca, sensor, wrong, expired, self and client.
  std::string Cert(const std::string& name) const { return dir_ + "/" + name + ".pem"; }
  std::string Key(const std::string& name) const { return dir_ + "/" + name + ".key"; }
  const std::string& dir() const { return dir_; }

 private:
  void Sensor(const char* name, const char* ip, long from_days, long to_days, bool by_ca) {
    EVP_PKEY* key = EVP_EC_gen("P-256");
    X509* cert = by_ca ? Issue(name, ip, key, ca_, ca_key_, from_days, to_days, false)
                       : Issue(name, ip, key, nullptr, key, from_days, to_days, false);
    Write(cert, key, name);
    X509_free(cert);
    EVP_PKEY_free(key);
  }

  static void Extend(X509* cert, X509* issuer, int nid, const std::string& value) {
    X509V3_CTX ctx;
    X509V3_set_ctx_nodb(&ctx);
    X509V3_set_ctx(&ctx, issuer, cert, nullptr, nullptr, 0);
    X509_EXTENSION* ext = X509V3_EXT_conf_nid(nullptr, &ctx, nid, value.c_str());
    X509_add_ext(cert, ext, -1);
    X509_EXTENSION_free(ext);
  }

  // Signed by issuer_key (self-signed when issuer is null).
  static X509* Issue(const char* cn, const char* ip, EVP_PKEY* key, X509* issuer, EVP_PKEY* issuer_key, long from_days,
                     long to_days, bool ca) {
    static long serial = 1;
    X509* cert = X509_new();
    X509_set_version(cert, 2);
    ASN1_INTEGER_set(X509_get_serialNumber(cert), serial++);
    X509_gmtime_adj(X509_getm_notBefore(cert), from_days * 86400 - 60);
    X509_gmtime_adj(X509_getm_notAfter(cert), to_days * 86400);
    X509_set_pubkey(cert, key);
    X509_NAME* name = X509_get_subject_name(cert);
    X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC, reinterpret_cast<const unsigned char*>(cn), -1, -1, 0);
    X509_set_issuer_name(cert, issuer != nullptr ? X509_get_subject_name(issuer) : name);
    X509* signer = issuer != nullptr ? issuer : cert;
    Extend(cert, signer, NID_basic_constraints, ca ? "critical,CA:TRUE" : "CA:FALSE");
    Extend(cert, signer, NID_subject_key_identifier, "hash");
    if (issuer != nullptr) Extend(cert, signer, NID_authority_key_identifier, "keyid");
    if (ip != nullptr) Extend(cert, signer, NID_subject_alt_name, std::string("IP:") + ip);
    X509_sign(cert, issuer_key, EVP_sha256());
    return cert;
  }

  void Write(X509* cert, EVP_PKEY* key, const std::string& name) const {
    if (FILE* f = std::fopen(Cert(name).c_str(), "wb")) {
      PEM_write_X509(f, cert);
      std::fclose(f);
    }
    if (FILE* f = std::fopen(Key(name).c_str(), "wb")) {
      PEM_write_PrivateKey(f, key, nullptr, nullptr, 0, nullptr, nullptr);
      std::fclose(f);
    }
  }

  std::string dir_;
  EVP_PKEY* ca_key_ = nullptr;
  X509* ca_ = nullptr;
};

// The virtual lidar of `model` serving KTC over TLS with the certificate `cert` of `pki`,
// asking for a client certificate issued by `client_ca` when one is given; null when it
// did not start.
inline std::unique_ptr<varkel::sim::VirtualLidar> StartTlsLidar(const TestPki& pki, const std::string& model,
                                                                const std::string& config_dir, const std::string& cert,
                                                                const std::string& client_ca = "") {
  varkel::sim::SimOptions o = vktest::SimOptions(model, config_dir);
  o.tls = true;
  o.tls_cert = pki.Cert(cert);
  o.tls_key = pki.Key(cert);
  o.tls_client_ca = client_ca;
  auto sim = std::make_unique<varkel::sim::VirtualLidar>(o);
  std::string error;
  return sim->Start(&error) ? std::move(sim) : nullptr;
}

}  // namespace simtest
