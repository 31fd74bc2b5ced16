#pragma once
// The Monitor page's state: a history per monitored variable, charts by unit, limits and
// alerts, the CSV recording. The refresh thread hands it samples (AddSample, AddGap); the
// page binds to its properties and calls its invokables from the GUI thread. Everything
// below is guarded by one mutex, held briefly on either side.

#include <QDateTime>
#include <QObject>
#include <QString>
#include <QStringList>
#include <QVariantList>

#include <atomic>
#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

#include "csv_recorder.h"
#include "limit_watch.h"
#include "series_buffer.h"

class MonitorModel : public QObject {
  Q_OBJECT
  Q_PROPERTY(int periodMs READ periodMs WRITE setPeriodMs NOTIFY settingsChanged)
  Q_PROPERTY(int windowIndex READ windowIndex WRITE setWindowIndex NOTIFY viewChanged)
  Q_PROPERTY(QStringList windowNames READ windowNames CONSTANT)
  Q_PROPERTY(bool paused READ paused WRITE setPaused NOTIFY viewChanged)
  Q_PROPERTY(QVariantList charts READ charts NOTIFY structureChanged)
  Q_PROPERTY(QVariantList series READ series NOTIFY statsChanged)
  Q_PROPERTY(QDateTime viewFrom READ viewFrom NOTIFY viewChanged)
  Q_PROPERTY(QDateTime viewTo READ viewTo NOTIFY viewChanged)
  Q_PROPERTY(bool recording READ recording NOTIFY recordingChanged)
  Q_PROPERTY(QString recordingPath READ recordingPath NOTIFY recordingChanged)
  Q_PROPERTY(int sampleCount READ sampleCount NOTIFY statsChanged)

 public:
  struct Channel {
    std::string id;
    std::string name;
    std::string unit;
  };

  // `settings_path`: the INI file that keeps hidden series and limits per model.
  explicit MonitorModel(QString settings_path, QObject* parent = nullptr);

  // ---- the refresh thread ----
  // Whether a sample is due at `now_ms` (then the next one is due a period later).
  bool TakeDue(int64_t now_ms);
  // One sample: a value per channel, NaN for one not read. A new model or a changed set
  // of channels starts the history again.
  void AddSample(const std::string& model, const std::vector<Channel>& channels, int64_t t_ms,
                 const std::vector<double>& values);
  // Sampling stopped (a disconnect): the lines break here.
  void AddGap(int64_t t_ms);

  // ---- the page ----
  int periodMs() const { return period_ms_.load(); }
  void setPeriodMs(int ms);
  int windowIndex() const;
  void setWindowIndex(int index);
  QStringList windowNames() const;
  bool paused() const;
  void setPaused(bool on);
  QVariantList charts() const;
  QVariantList series() const;
  QDateTime viewFrom() const;
  QDateTime viewTo() const;
  bool recording() const;
  QString recordingPath() const;
  int sampleCount() const;

  // Replaces the points of `xy_series` (a line series of the page) with the decimated
  // history of series `index` for a plot `width_px` wide. Both leave a series whose
  // points would not change untouched, so an unchanged chart is not drawn again; they
  // return whether they replaced the points.
  Q_INVOKABLE bool fillSeries(QObject* xy_series, int index, int width_px) const;
  // The low (or high) limit of series `index` across the view, or no points without one.
  Q_INVOKABLE bool fillLimit(QObject* xy_series, int index, bool high) const;
  // [min, max] for the value axis of chart `chart`: its visible series and their limits.
  Q_INVOKABLE QVariantList valueRange(int chart) const;
  Q_INVOKABLE void setSeriesVisible(int index, bool on);
  // Empty texts remove a limit; returns "" or why the texts were refused.
  Q_INVOKABLE QString setLimits(int index, const QString& low, const QString& high);
  // "02:30:05.123  Laser Temperature  44.21 °C": the sample nearest to a hovered point
  // (the point itself when nothing was read).
  Q_INVOKABLE QString pointText(int index, double x_ms, double y) const;
  Q_INVOKABLE bool startRecording(const QString& file);
  Q_INVOKABLE void stopRecording();
  // Saves `image` (a QImage, the page's grab) to a dialog's URL or path, ".png" added
  // when missing; the outcome goes to the log window or, on failure, to the user.
  Q_INVOKABLE bool savePng(const QVariant& image, const QString& file);

 signals:
  void settingsChanged();
  void viewChanged();
  void structureChanged();
  void statsChanged();
  void recordingChanged();
  // A limit crossed: a notice for the user.
  void alertRaised(QString text);
  // A line for the log window ("INFO", "WARNING", "ERROR").
  void logLine(QString text, QString type);
  // Something the user must see (the recording stopped...).
  void problem(QString text);

 private:
  struct Series {
    Channel channel;
    quarn::monitor::SeriesBuffer buffer;
    quarn::monitor::Limits limits;
    quarn::monitor::LimitWatch watch{0.02};
    bool visible = true;
    int chart = 0;
    int64_t alert_ms = 0;  // when it last went beyond a limit (0: inside)
  };
  struct Chart {
    QString title;
    std::vector<int> members;
  };
  template <typename Fill>
  bool ReplacePoints(QObject* xy_series, int index, const Fill& fill) const;
  void ResetLocked(const std::string& model, const std::vector<Channel>& channels);
  void LoadSettingsLocked();
  void SaveSettingsLocked() const;
  int64_t ViewToLocked() const;
  int64_t ViewFromLocked() const;

  const QString settings_path_;
  std::atomic<int> period_ms_{1000};
  std::atomic<int64_t> next_due_ms_{0};
  mutable std::mutex mu_;
  std::string model_;
  std::vector<Series> series_;
  std::vector<Chart> charts_;
  int window_index_ = 0;
  bool paused_ = false;
  int64_t paused_at_ms_ = 0;
  int64_t last_ms_ = 0;
  int samples_ = 0;
  quarn::monitor::CsvRecorder csv_;
};
