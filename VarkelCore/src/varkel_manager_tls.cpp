// The verified-TLS settings of the network connection.

#include <QUrl>

#include "varkel_manager.h"

namespace {

// A file dialog hands over a URL; the transport wants a path.
std::string LocalPath(const QString& text) {
  const QUrl url(text);
  return (url.isLocalFile() ? url.toLocalFile() : text).toStdString();
}

}  // namespace

bool VarkelManager::getTlsEnabled() const {
  std::lock_guard<std::mutex> lock(fields_mutex_);
  return tls_enabled_;
}

void VarkelManager::setTlsEnabled(bool on) {
  {
    std::lock_guard<std::mutex> lock(fields_mutex_);
    if (tls_enabled_ == on) return;
    tls_enabled_ = on;
  }
  emit tlsChanged();
}

QString VarkelManager::TlsText(const std::string VarkelManager::*field) const {
  std::lock_guard<std::mutex> lock(fields_mutex_);
  return QString::fromStdString(this->*field);
}

void VarkelManager::SetTlsPath(std::string VarkelManager::*field, const QString& path) {
  {
    std::lock_guard<std::mutex> lock(fields_mutex_);
    this->*field = LocalPath(path);
  }
  emit tlsChanged();
}

QString VarkelManager::getTlsCaFile() const {
  return TlsText(&VarkelManager::tls_ca_file_);
}
void VarkelManager::setTlsCaFile(const QString& path) {
  SetTlsPath(&VarkelManager::tls_ca_file_, path);
}
QString VarkelManager::getTlsCertFile() const {
  return TlsText(&VarkelManager::tls_cert_file_);
}
void VarkelManager::setTlsCertFile(const QString& path) {
  SetTlsPath(&VarkelManager::tls_cert_file_, path);
}
QString VarkelManager::getTlsKeyFile() const {
  return TlsText(&VarkelManager::tls_key_file_);
}
void VarkelManager::setTlsKeyFile(const QString& path) {
  SetTlsPath(&VarkelManager::tls_key_file_, path);
}

QString VarkelManager::getTlsIssuer() const {
  return TlsText(&VarkelManager::tls_issuer_);
}
