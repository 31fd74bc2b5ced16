#include "journal_history.h"

#include <QMetaObject>
#include <QUrl>
#include <QVariantMap>

#include <algorithm>

#include "journal.h"
#include "support_bundle.h"
#include "varkel_manager.h"

namespace {

QString Field(const nlohmann::ordered_json& entry, const char* key) {
  const auto it = entry.find(key);
  if (it == entry.end() || it->is_null()) return QString();
  return QString::fromStdString(it->is_string() ? it->get<std::string>() : it->dump());
}

}  // namespace

struct JournalHistory::Request {
  uint64_t generation = 0;
  quarn::journal::Filter filter;
};

JournalHistory::JournalHistory(QObject* parent) : QObject(parent) {}

JournalHistory::~JournalHistory() {
  WaitForBundle();
  {
    std::lock_guard<std::mutex> lock(read_mutex_);
    closing_ = true;
  }
  read_cv_.notify_all();
  // A read under way ends by itself; its entries are posted to an object about to go,
  // and Qt drops them with it.
  if (read_thread_.joinable()) read_thread_.join();
}

void JournalHistory::setSince(const QString& value) {
  if (value == since_) return;
  since_ = value;
  emit filterChanged();
}
void JournalHistory::setHost(const QString& value) {
  if (value == host_) return;
  host_ = value;
  emit filterChanged();
}
void JournalHistory::setSerial(const QString& value) {
  if (value == serial_) return;
  serial_ = value;
  emit filterChanged();
}

void JournalHistory::refresh() {
  quarn::journal::Filter filter{std::nullopt, host_.trimmed().toStdString(), serial_.trimmed().toStdString(),
                                static_cast<size_t>(kShown)};
  const QString since = since_.trimmed();
  QString error;
  if (!since.isEmpty()) {
    filter.since_ms = quarn::journal::ParseTime(since.toStdString());
    if (!filter.since_ms) error = "Not a UTC time like 2026-11-26T08:00: " + since;
  }
  const uint64_t generation = ++asked_;
  if (!error.isEmpty()) {
    // Nothing to read: an older read still running must not show its entries either.
    filter_error_ = error;
    Show(generation, {});
    return;
  }
  filter_error_.clear();
  {
    std::lock_guard<std::mutex> lock(read_mutex_);
    next_ = std::make_unique<Request>(Request{generation, filter});
    if (!read_thread_.joinable()) read_thread_ = std::thread([this] { ReadLoop(); });
  }
  read_cv_.notify_one();
  if (!loading_) {
    loading_ = true;
    emit loadingChanged();
  }
}

void JournalHistory::ReadLoop() {
  for (;;) {
    std::unique_ptr<Request> request;
    {
      std::unique_lock<std::mutex> lock(read_mutex_);
      read_cv_.wait(lock, [this] { return closing_ || next_; });
      if (closing_) return;
      request = std::move(next_);
    }
    const auto read = quarn::journal::Read(quarn::journal::DefaultDirectory(), request->filter);
    QVariantList entries;
    entries.reserve(static_cast<int>(read.size()));
    for (size_t i = 0; i < read.size(); ++i) {
      const auto& e = read[read.size() - 1 - i];
      QVariantMap row;
      for (const char* key : {"time", "program", "version", "user", "host", "model", "serial", "what", "name", "id",
                              "old", "new", "outcome"})
        row.insert(key, Field(e, key));
      if (e.contains("code")) row["outcome"] = row["outcome"].toString() + " (" + Field(e, "code") + ")";
      entries.append(row);
    }
    QMetaObject::invokeMethod(
        this, [this, generation = request->generation, entries] { Show(generation, entries); }, Qt::QueuedConnection);
  }
}

void JournalHistory::Show(uint64_t generation, const QVariantList& entries) {
  // An older read that ends after a newer request was made is not shown.
  if (generation != asked_) return;
  entries_ = entries;
  emit entriesChanged();
  if (loading_) {
    loading_ = false;
    emit loadingChanged();
  }
}

QString JournalHistory::bundleMessage() const {
  std::lock_guard<std::mutex> lock(message_mutex_);
  return bundle_message_;
}

bool JournalHistory::saveBundle(const QString& file) {
  if (bundle_busy_.exchange(true)) return false;
  WaitForBundle();
  const QString path = file.startsWith("file:") ? QUrl(file).toLocalFile() : file;
  {
    std::lock_guard<std::mutex> lock(message_mutex_);
    bundle_message_ = "Saving support bundle...";
  }
  emit bundleChanged();
  bundle_thread_ = std::thread([this, target = path.toStdString()] {
    QString message;
    try {
      varkel::BundleStage stage;
      stage.AddProgramParts("varkel", VarkelManager::SettingsFilePath().toStdString());
      if (sensor_parts_) sensor_parts_(stage);
      stage.Pack(target);
      message = "Support bundle saved: " + QString::fromStdString(target);
    } catch (const std::exception& e) {
      message = "Support bundle not saved: " + QString::fromStdString(e.what());
    }
    {
      std::lock_guard<std::mutex> lock(message_mutex_);
      bundle_message_ = message;
    }
    bundle_busy_.store(false);
    QMetaObject::invokeMethod(
        this, [this] { emit bundleChanged(); }, Qt::QueuedConnection);
  });
  return true;
}

void JournalHistory::WaitForBundle() {
  if (bundle_thread_.joinable()) bundle_thread_.join();
}
