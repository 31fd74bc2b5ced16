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

JournalHistory::JournalHistory(QObject* parent) : QObject(parent) {}

JournalHistory::~JournalHistory() {
  WaitForBundle();
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
  quarn::journal::Filter filter{std::nullopt, host_.trimmed().toStdString(), serial_.trimmed().toStdString()};
  filter_error_.clear();
  const QString since = since_.trimmed();
  if (!since.isEmpty()) {
    filter.since_ms = quarn::journal::ParseTime(since.toStdString());
    if (!filter.since_ms) filter_error_ = "Not a UTC time like 2026-11-26T08:00: " + since;
  }
  entries_.clear();
  if (filter_error_.isEmpty()) {
    const auto read = quarn::journal::Read(quarn::journal::DefaultDirectory(), filter);
    const size_t shown = std::min(read.size(), static_cast<size_t>(kShown));
    for (size_t i = 0; i < shown; ++i) {
      const auto& e = read[read.size() - 1 - i];
      QVariantMap row;
      for (const char* key : {"time", "program", "version", "user", "host", "model", "serial", "what", "name", "id",
                              "old", "new", "outcome"})
        row.insert(key, Field(e, key));
      if (e.contains("code")) row["outcome"] = row["outcome"].toString() + " (" + Field(e, "code") + ")";
      entries_.append(row);
    }
  }
  emit entriesChanged();
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
