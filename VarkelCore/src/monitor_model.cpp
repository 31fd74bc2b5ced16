#include "monitor_model.h"

#include <QImage>
#include <QPointF>
#include <QSettings>
#include <QUrl>
#include <QVector>
#include <QtCharts/QXYSeries>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <map>

namespace {

using quarn::monitor::LimitEvent;

constexpr int kMinPeriodMs = 100;
constexpr int kMaxPeriodMs = 60000;
// The choices of the time window; 0 stands for everything kept.
constexpr int64_t kWindowsMs[] = {60 * 1000, 10 * 60 * 1000, 60 * 60 * 1000, 0};

QString Number(double value) {
  return std::isnan(value) ? QStringLiteral("-") : QString::fromStdString(quarn::monitor::NumberText(value));
}

QString Rounded(double value) {
  if (std::isnan(value)) return QStringLiteral("-");
  // Means rarely end: four significant digits say enough beside a chart.
  return QString::number(value, 'g', std::max(4, static_cast<int>(std::log10(std::fabs(value) + 1)) + 3));
}

}  // namespace

MonitorModel::MonitorModel(QString settings_path, QObject* parent)
    : QObject(parent), settings_path_(std::move(settings_path)) {}

bool MonitorModel::TakeDue(int64_t now_ms) {
  int64_t due = next_due_ms_.load();
  const int period = period_ms_.load();
  // The first sample of a connection comes a period after it opens, so the connection's
  // own first exchanges go out alone.
  if (due == 0) {
    next_due_ms_.compare_exchange_strong(due, now_ms + period);
    return false;
  }
  if (now_ms < due) return false;
  // A late round does not make the next ones crowd in.
  const int64_t next = std::max(due + period, now_ms + period / 2);
  return next_due_ms_.compare_exchange_strong(due, next);
}

void MonitorModel::AddSample(const std::string& model, const std::vector<Channel>& channels, int64_t t_ms,
                             const std::vector<double>& values) {
  std::vector<std::pair<QString, QString>> lines;
  std::vector<QString> alerts;
  QString stopped;
  bool reset = false;
  {
    std::lock_guard<std::mutex> lock(mu_);
    bool same = model == model_ && channels.size() == series_.size();
    for (size_t i = 0; same && i < channels.size(); ++i) same = channels[i].id == series_[i].channel.id;
    if (!same) {
      ResetLocked(model, channels);
      reset = true;
    }
    const bool was_recording = csv_.recording();
    last_ms_ = t_ms;
    ++samples_;
    for (size_t i = 0; i < series_.size(); ++i) {
      Series& s = series_[i];
      const double v = i < values.size() ? values[i] : NAN;
      s.buffer.Append(t_ms, v);
      const LimitEvent e = s.watch.Update(v, s.limits);
      if (e.kind == LimitEvent::kNone) continue;
      const QString text = QString::fromStdString(quarn::monitor::AlertText(s.channel.name, s.channel.unit, v, e));
      s.alert_ms = e.kind == LimitEvent::kRaised ? t_ms : 0;
      if (e.kind == LimitEvent::kRaised) alerts.push_back(text);
      lines.emplace_back(text, e.kind == LimitEvent::kRaised ? QStringLiteral("WARNING") : QStringLiteral("INFO"));
      if (csv_.recording()) csv_.WriteEvent(t_ms, text.toStdString());
    }
    if (csv_.recording()) csv_.WriteSample(t_ms, values);
    // A failed row stops the recording, never the sampling.
    if (was_recording && !csv_.recording()) stopped = QString::fromStdString(csv_.error());
  }
  if (reset) {
    emit structureChanged();
    emit settingsChanged();
  }
  emit statsChanged();
  if (!paused()) emit viewChanged();
  for (const auto& [text, type] : lines) emit logLine(QStringLiteral("Monitor: ") + text, type);
  for (const QString& text : alerts) emit alertRaised(text);
  if (!stopped.isEmpty()) {
    emit logLine(stopped, QStringLiteral("ERROR"));
    emit problem(stopped);
    emit recordingChanged();
  }
}

void MonitorModel::AddGap(int64_t t_ms) {
  {
    std::lock_guard<std::mutex> lock(mu_);
    if (series_.empty()) return;
    for (Series& s : series_) s.buffer.AppendGap(t_ms);
  }
  // The next connection starts its own schedule.
  next_due_ms_.store(0);
  emit statsChanged();
}

void MonitorModel::ResetLocked(const std::string& model, const std::vector<Channel>& channels) {
  model_ = model;
  series_.clear();
  charts_.clear();
  samples_ = 0;
  // One chart per unit, the units first; each counter without a unit has its own scale.
  std::map<std::string, int> by_unit;
  for (const Channel& c : channels) {
    Series s;
    s.channel = c;
    series_.push_back(std::move(s));
  }
  for (bool with_unit : {true, false})
    for (size_t i = 0; i < series_.size(); ++i) {
      Series& s = series_[i];
      const std::string& unit = s.channel.unit;
      if (unit.empty() == with_unit) continue;
      if (unit.empty() || !by_unit.count(unit)) {
        if (!unit.empty()) by_unit[unit] = static_cast<int>(charts_.size());
        charts_.push_back(Chart{QString::fromStdString(unit.empty() ? s.channel.name : unit), {}});
      }
      s.chart = unit.empty() ? static_cast<int>(charts_.size()) - 1 : by_unit[unit];
      charts_[static_cast<size_t>(s.chart)].members.push_back(static_cast<int>(i));
    }
  LoadSettingsLocked();
}

void MonitorModel::LoadSettingsLocked() {
  QSettings settings(settings_path_, QSettings::IniFormat);
  settings.beginGroup(QString::fromStdString(model_));
  const QStringList hidden = settings.value(QStringLiteral("hidden")).toStringList();
  bool ok = false;
  const int period = settings.value(QStringLiteral("period")).toInt(&ok);
  if (ok && period >= kMinPeriodMs && period <= kMaxPeriodMs && period_ms_.exchange(period) != period)
    next_due_ms_.store(0);
  for (Series& s : series_) {
    const QString id = QString::fromStdString(s.channel.id);
    s.visible = !hidden.contains(id);
    const double low = settings.value(QStringLiteral("low/") + id).toDouble(&ok);
    if (ok) s.limits.low = low;
    const double high = settings.value(QStringLiteral("high/") + id).toDouble(&ok);
    if (ok) s.limits.high = high;
  }
}

void MonitorModel::SaveSettingsLocked() const {
  if (model_.empty()) return;
  QSettings settings(settings_path_, QSettings::IniFormat);
  settings.beginGroup(QString::fromStdString(model_));
  QStringList hidden;
  for (const Series& s : series_) {
    const QString id = QString::fromStdString(s.channel.id);
    if (!s.visible) hidden.append(id);
    if (s.limits.low)
      settings.setValue(QStringLiteral("low/") + id, *s.limits.low);
    else
      settings.remove(QStringLiteral("low/") + id);
    if (s.limits.high)
      settings.setValue(QStringLiteral("high/") + id, *s.limits.high);
    else
      settings.remove(QStringLiteral("high/") + id);
  }
  settings.setValue(QStringLiteral("hidden"), hidden);
  settings.setValue(QStringLiteral("period"), period_ms_.load());
}

void MonitorModel::setPeriodMs(int ms) {
  ms = std::clamp(ms, kMinPeriodMs, kMaxPeriodMs);
  {
    std::lock_guard<std::mutex> lock(mu_);
    if (period_ms_.exchange(ms) == ms) return;
    next_due_ms_.store(0);
    SaveSettingsLocked();
  }
  emit settingsChanged();
}

int MonitorModel::windowIndex() const {
  std::lock_guard<std::mutex> lock(mu_);
  return window_index_;
}

void MonitorModel::setWindowIndex(int index) {
  {
    std::lock_guard<std::mutex> lock(mu_);
    index = std::clamp(index, 0, static_cast<int>(std::size(kWindowsMs)) - 1);
    if (index == window_index_) return;
    window_index_ = index;
  }
  emit viewChanged();
  emit statsChanged();
}

QStringList MonitorModel::windowNames() const {
  return {QStringLiteral("1 min"), QStringLiteral("10 min"), QStringLiteral("1 h"), QStringLiteral("All")};
}

bool MonitorModel::paused() const {
  std::lock_guard<std::mutex> lock(mu_);
  return paused_;
}

void MonitorModel::setPaused(bool on) {
  {
    std::lock_guard<std::mutex> lock(mu_);
    if (paused_ == on) return;
    paused_ = on;
    paused_at_ms_ = last_ms_;
  }
  emit viewChanged();
  emit statsChanged();
}

int64_t MonitorModel::ViewToLocked() const {
  return paused_ ? paused_at_ms_ : last_ms_;
}

int64_t MonitorModel::ViewFromLocked() const {
  const int64_t span = kWindowsMs[window_index_];
  if (span > 0) return ViewToLocked() - span;
  int64_t first = ViewToLocked();
  for (const Series& s : series_)
    if (!s.buffer.empty()) first = std::min(first, s.buffer.first_ms());
  // A window of at least a minute, so the first samples do not fill the width.
  return std::min(first, ViewToLocked() - kWindowsMs[0]);
}

QDateTime MonitorModel::viewFrom() const {
  std::lock_guard<std::mutex> lock(mu_);
  return QDateTime::fromMSecsSinceEpoch(ViewFromLocked());
}

QDateTime MonitorModel::viewTo() const {
  std::lock_guard<std::mutex> lock(mu_);
  return QDateTime::fromMSecsSinceEpoch(ViewToLocked());
}

QVariantList MonitorModel::charts() const {
  std::lock_guard<std::mutex> lock(mu_);
  QVariantList out;
  for (const Chart& c : charts_) {
    QVariantList members;
    for (int m : c.members) members.append(m);
    out.append(QVariantMap{{QStringLiteral("title"), c.title}, {QStringLiteral("members"), members}});
  }
  return out;
}

QVariantList MonitorModel::series() const {
  std::lock_guard<std::mutex> lock(mu_);
  QVariantList out;
  const int64_t from = ViewFromLocked(), to = ViewToLocked();
  for (const Series& s : series_) {
    const quarn::monitor::Statistics st = s.buffer.Stats(from, to);
    auto limit = [](const std::optional<double>& l) { return l ? Number(*l) : QString(); };
    out.append(QVariantMap{{QStringLiteral("name"), QString::fromStdString(s.channel.name)},
                           {QStringLiteral("unit"), QString::fromStdString(s.channel.unit)},
                           {QStringLiteral("chart"), s.chart},
                           {QStringLiteral("visible"), s.visible},
                           {QStringLiteral("current"), Number(st.current)},
                           {QStringLiteral("min"), Number(st.min)},
                           {QStringLiteral("mean"), Rounded(st.mean)},
                           {QStringLiteral("max"), Number(st.max)},
                           {QStringLiteral("low"), limit(s.limits.low)},
                           {QStringLiteral("high"), limit(s.limits.high)},
                           {QStringLiteral("alert"), s.alert_ms != 0}});
  }
  return out;
}

template <typename Fill>
bool MonitorModel::ReplacePoints(QObject* xy_series, int index, const Fill& fill) const {
  auto* xy = qobject_cast<QtCharts::QXYSeries*>(xy_series);
  if (!xy) return false;
  QVector<QPointF> points;
  {
    std::lock_guard<std::mutex> lock(mu_);
    if (index < 0 || index >= static_cast<int>(series_.size())) return false;
    fill(series_[static_cast<size_t>(index)], points);
  }
  // Every replace redraws the whole chart; most ticks leave a limit line, a paused view
  // or a hidden series as it was. NaN (a gap) never equals itself: compare the bits.
  const QVector<QPointF> old = xy->pointsVector();
  if (old.size() == points.size() &&
      std::memcmp(old.constData(), points.constData(), sizeof(QPointF) * static_cast<size_t>(points.size())) == 0)
    return false;
  xy->replace(points);
  return true;
}

bool MonitorModel::fillSeries(QObject* xy_series, int index, int width_px) const {
  return ReplacePoints(xy_series, index, [&](const Series& s, QVector<QPointF>& points) {
    if (!s.visible) return;
    const auto decimated = s.buffer.Decimate(ViewFromLocked(), ViewToLocked(), std::max(1, width_px));
    points.reserve(static_cast<int>(decimated.size()));
    for (const auto& p : decimated) points.append(QPointF(static_cast<double>(p.t_ms), p.value));
  });
}

bool MonitorModel::fillLimit(QObject* xy_series, int index, bool high) const {
  return ReplacePoints(xy_series, index, [&](const Series& s, QVector<QPointF>& points) {
    const std::optional<double>& limit = high ? s.limits.high : s.limits.low;
    if (!s.visible || !limit) return;
    points.append(QPointF(static_cast<double>(ViewFromLocked()), *limit));
    points.append(QPointF(static_cast<double>(ViewToLocked()), *limit));
  });
}

QVariantList MonitorModel::valueRange(int chart) const {
  std::lock_guard<std::mutex> lock(mu_);
  double lo = NAN, hi = NAN;
  auto take = [&](double v) {
    if (std::isnan(v)) return;
    lo = std::isnan(lo) ? v : std::min(lo, v);
    hi = std::isnan(hi) ? v : std::max(hi, v);
  };
  if (chart >= 0 && chart < static_cast<int>(charts_.size())) {
    for (int m : charts_[static_cast<size_t>(chart)].members) {
      const Series& s = series_[static_cast<size_t>(m)];
      if (!s.visible) continue;
      const auto st = s.buffer.Stats(ViewFromLocked(), ViewToLocked());
      take(st.min);
      take(st.max);
      if (s.limits.low) take(*s.limits.low);
      if (s.limits.high) take(*s.limits.high);
    }
  }
  if (std::isnan(lo)) return {0.0, 1.0};
  // Room above and below, so a flat line is not drawn on the frame.
  const double pad = hi > lo ? (hi - lo) * 0.08 : std::max(1.0, std::fabs(hi) * 0.05);
  return {lo - pad, hi + pad};
}

void MonitorModel::setSeriesVisible(int index, bool on) {
  {
    std::lock_guard<std::mutex> lock(mu_);
    if (index < 0 || index >= static_cast<int>(series_.size())) return;
    series_[static_cast<size_t>(index)].visible = on;
    SaveSettingsLocked();
  }
  emit statsChanged();
}

QString MonitorModel::setLimits(int index, const QString& low, const QString& high) {
  quarn::monitor::Limits limits;
  for (const auto& [text, slot] :
       {std::make_pair(low.trimmed(), &limits.low), std::make_pair(high.trimmed(), &limits.high)}) {
    if (text.isEmpty()) continue;
    bool ok = false;
    const double v = text.toDouble(&ok);
    if (!ok || !std::isfinite(v)) return QStringLiteral("\"%1\" is not a number").arg(text);
    *slot = v;
  }
  if (limits.low && limits.high && *limits.low >= *limits.high)
    return QStringLiteral("the low limit must be below the high limit");
  {
    std::lock_guard<std::mutex> lock(mu_);
    if (index < 0 || index >= static_cast<int>(series_.size())) return QStringLiteral("no such series");
    series_[static_cast<size_t>(index)].limits = limits;
    SaveSettingsLocked();
  }
  emit statsChanged();
  return QString();
}

QString MonitorModel::pointText(int index, double x_ms, double y) const {
  std::lock_guard<std::mutex> lock(mu_);
  if (index < 0 || index >= static_cast<int>(series_.size())) return QString();
  const Series& s = series_[static_cast<size_t>(index)];
  const QString unit =
      s.channel.unit.empty() ? QString() : QStringLiteral(" ") + QString::fromStdString(s.channel.unit);
  // The chart reports a point on the drawn line, between samples; show the sample itself.
  const quarn::monitor::Point p = s.buffer.Nearest(static_cast<int64_t>(x_ms));
  const qint64 t = p.gap() ? static_cast<qint64>(x_ms) : p.t_ms;
  return QStringLiteral("%1  %2  %3%4")
      .arg(QDateTime::fromMSecsSinceEpoch(t).toString(QStringLiteral("HH:mm:ss.zzz")),
           QString::fromStdString(s.channel.name), p.gap() ? Rounded(y) : Number(p.value), unit);
}

bool MonitorModel::startRecording(const QString& file) {
  const QUrl url(file);
  const QString path = url.isLocalFile() ? url.toLocalFile() : file;
  QString error;
  {
    std::lock_guard<std::mutex> lock(mu_);
    std::vector<std::string> titles;
    for (const Series& s : series_) titles.push_back(quarn::monitor::ColumnTitle(s.channel.name, s.channel.unit));
    if (titles.empty())
      error = QStringLiteral("nothing to record yet: connect to a sensor first");
    else if (!csv_.Open(path.toStdString(), titles))
      error = QString::fromStdString(csv_.error());
  }
  emit recordingChanged();
  if (!error.isEmpty()) {
    emit problem(error);
    return false;
  }
  emit logLine(QStringLiteral("Monitor: recording to ") + path, QStringLiteral("INFO"));
  return true;
}

void MonitorModel::stopRecording() {
  {
    std::lock_guard<std::mutex> lock(mu_);
    csv_.Close();
  }
  emit recordingChanged();
}

bool MonitorModel::recording() const {
  std::lock_guard<std::mutex> lock(mu_);
  return csv_.recording();
}

QString MonitorModel::recordingPath() const {
  std::lock_guard<std::mutex> lock(mu_);
  return csv_.recording() ? QString::fromStdString(csv_.path()) : QString();
}

int MonitorModel::sampleCount() const {
  std::lock_guard<std::mutex> lock(mu_);
  return samples_;
}

bool MonitorModel::savePng(const QVariant& image, const QString& file) {
  const QUrl url(file);
  QString path = url.isLocalFile() ? url.toLocalFile() : file;
  if (!path.endsWith(QStringLiteral(".png"), Qt::CaseInsensitive)) path += QStringLiteral(".png");
  const QImage picture = image.value<QImage>();
  const bool ok = !picture.isNull() && picture.save(path, "PNG");
  if (ok)
    emit logLine(QStringLiteral("Monitor: charts saved to ") + path, QStringLiteral("INFO"));
  else
    emit problem(QStringLiteral("the charts could not be saved to ") + path);
  return ok;
}
