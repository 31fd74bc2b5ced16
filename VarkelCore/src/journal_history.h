#pragma once
// The History page's model: the change journal read back with the command line's filters,
// newest first, and the page's "Save support bundle..." action. A read (up to six files of
// 10 MiB) runs on a thread of the model's own; the newest request wins, and the entries of
// an older one still running are dropped, never shown.

#include <QObject>
#include <QString>
#include <QVariantList>

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>

namespace varkel {
class BundleStage;
}

class JournalHistory : public QObject {
  Q_OBJECT
  Q_PROPERTY(QString since READ since WRITE setSince NOTIFY filterChanged)
  Q_PROPERTY(QString host READ host WRITE setHost NOTIFY filterChanged)
  Q_PROPERTY(QString serial READ serial WRITE setSerial NOTIFY filterChanged)
  Q_PROPERTY(QVariantList entries READ entries NOTIFY entriesChanged)
  Q_PROPERTY(QString filterError READ filterError NOTIFY entriesChanged)
  Q_PROPERTY(bool loading READ loading NOTIFY loadingChanged)
  Q_PROPERTY(bool bundleBusy READ bundleBusy NOTIFY bundleChanged)
  Q_PROPERTY(QString bundleMessage READ bundleMessage NOTIFY bundleChanged)

 public:
  // The newest entries shown; the command line reads every one.
  static constexpr int kShown = 5000;

  explicit JournalHistory(QObject* parent = nullptr);
  ~JournalHistory() override;

  QString since() const { return since_; }
  QString host() const { return host_; }
  QString serial() const { return serial_; }
  void setSince(const QString& value);
  void setHost(const QString& value);
  void setSerial(const QString& value);
  QVariantList entries() const { return entries_; }
  QString filterError() const { return filter_error_; }
  // A read is asked for and its entries not shown yet.
  bool loading() const { return loading_; }
  bool bundleBusy() const { return bundle_busy_.load(); }
  QString bundleMessage() const;

  // Reads the journal again with the present filters, on the reading thread; the entries
  // change (and loading falls) when the newest request's read is done. A filter that does
  // not parse is shown at once, with no entries.
  Q_INVOKABLE void refresh();
  // Packs the support bundle into `file` (a path or a file: URL) on a thread of its own;
  // false when one is being made already.
  Q_INVOKABLE bool saveBundle(const QString& file);

  // Adds the connected sensor's parts to a bundle (on the bundle's thread); unset or
  // adding nothing when no sensor is connected.
  void SetSensorParts(std::function<void(varkel::BundleStage&)> parts) { sensor_parts_ = std::move(parts); }
  // Waits for a bundle being made (tests, and the owner going away).
  void WaitForBundle();

 signals:
  void filterChanged();
  void entriesChanged();
  void loadingChanged();
  void bundleChanged();

 private:
  struct Request;
  void ReadLoop();
  void Show(uint64_t generation, const QVariantList& entries);

  QString since_, host_, serial_;
  QVariantList entries_;
  QString filter_error_;
  bool loading_ = false;
  uint64_t asked_ = 0;  // the newest request's number (the window's thread)
  // The reading thread and the request it takes next; a newer one replaces it unread.
  std::thread read_thread_;
  std::mutex read_mutex_;
  std::condition_variable read_cv_;
  std::unique_ptr<Request> next_;
  bool closing_ = false;
  std::function<void(varkel::BundleStage&)> sensor_parts_;
  std::thread bundle_thread_;
  std::atomic<bool> bundle_busy_{false};
  mutable std::mutex message_mutex_;
  QString bundle_message_;
};
