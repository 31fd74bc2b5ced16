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

QString VarkelManager::getTlsCaFile() const {
  std::lock_guard<std::mutex> lock(fields_mutex_);
  return QString::fromStdString(tls_ca_file_);
}

void VarkelManager::setTlsCaFile(const QString& path) {
  {
    std::lock_guard<std::mutex> lock(fields_mutex_);
    tls_ca_file_ = LocalPath(path);
  }
  emit tlsChanged();
}

QString VarkelManager::getTlsCertFile() const {
  std::lock_guard<std::mutex> lock(fields_mutex_);
  return QString::fromStdString(tls_cert_file_);
}

void VarkelManager::setTlsCertFile(const QString& path) {
  {
    std::lock_guard<std::mutex> lock(fields_mutex_);
    tls_cert_file_ = LocalPath(path);
  }
  emit tlsChanged();
}

QString VarkelManager::getTlsKeyFile() const {
  std::lock_guard<std::mutex> lock(fields_mutex_);
  return QString::fromStdString(tls_key_file_);
}

void VarkelManager::setTlsKeyFile(const QString& path) {
  {
    std::lock_guard<std::mutex> lock(fields_mutex_);
    tls_key_file_ = LocalPath(path);
  }
  emit tlsChanged();
}

QString VarkelManager::getTlsIssuer() const {
  std::lock_guard<std::mutex> lock(fields_mutex_);
  return QString::fromStdString(tls_issuer_);
}
