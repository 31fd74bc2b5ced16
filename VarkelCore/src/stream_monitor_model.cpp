#include "stream_monitor_model.h"

#include <cstdio>

#include "varkel_manager.h"

namespace ql = quarn::lidar;

namespace {

QString Fixed(double v, int decimals) {
  return QString::number(v, 'f', decimals);
}

QVariantList Row(const QString& label, const QString& value) {
  return QVariantList{label, value};
}

}  // namespace

StreamMonitorModel::StreamMonitorModel(VarkelManager& manager, QObject* parent) : QObject(parent), manager_(manager) {
  timer_.setInterval(1000);
  connect(&timer_, &QTimer::timeout, this, &StreamMonitorModel::Refresh);
}

StreamMonitorModel::~StreamMonitorModel() {
  monitor_.Stop();
}

ql::StreamContext StreamMonitorModel::Context() {
  ql::StreamContext c;
  if (!manager_.getIsConnected() || manager_.getConnectType() != 0) return c;
  c.sensor_connected = true;
  c.sensor_address = manager_.getIpAddress().toStdString();
  c.local_address = ql::LocalAddressTowards(c.sensor_address);
  ql::LocalAddresses(&c.local_addresses, &c.broadcast_addresses);
  c.destination_ip = manager_.ReadNamedValue(ql::kDestinationIpName);
  c.destination_mode = manager_.ReadNamedValue(ql::kDestinationModeName);
  if (const auto port = manager_.ReadNamedValue(ql::kDataPortName)) {
    const long p = std::strtol(port->c_str(), nullptr, 10);
    if (p > 0 && p <= 65535) c.data_port = static_cast<uint16_t>(p);
  }
  return c;
}

void StreamMonitorModel::Start() {
  monitor_.Stop();
  const ql::StreamContext c = Context();
  ql::StreamMonitor::Options o;
  o.port = c.data_port ? *c.data_port : static_cast<uint16_t>(manager_.getUdpPort().toUInt());
  if (c.destination_ip && ql::IsMulticastText(*c.destination_ip)) {
    o.group = *c.destination_ip;
    o.interface_address = c.local_address;
  }
  o.quiet_period = quiet_period_;
  std::string why;
  error_ = monitor_.Start(o, &why) ? QString() : QString::fromStdString(why);
  if (error_.isEmpty()) timer_.start();
  Refresh();
}

void StreamMonitorModel::Stop() {
  timer_.stop();
  monitor_.Stop();
  Refresh();
}

void StreamMonitorModel::Refresh() {
  const ql::StreamFigures f = monitor_.Figures();
  figures_.clear();
  senders_.clear();
  diagnosis_.clear();
  question_.clear();
  fix_.clear();
  if (monitor_.running()) {
    figures_
        << QVariant(Row("UDP port", QString::number(f.port) +
                                        (f.group.empty() ? "" : " (group " + QString::fromStdString(f.group) + ")")))
        << QVariant(Row("Datagrams", QString::number(f.datagrams))) << QVariant(Row("Bytes", QString::number(f.bytes)))
        << QVariant(Row("Datagrams/s", Fixed(f.datagrams_per_s, 1))) << QVariant(Row("Mbit/s", Fixed(f.mbit_per_s, 3)))
        << QVariant(Row("Size min / median / max",
                        f.datagrams ? QString("%1 / %2 / %3 bytes").arg(f.size_min).arg(f.size_median).arg(f.size_max)
                                    : QString("-")))
        << QVariant(Row("Jitter", Fixed(f.jitter_ms, 3) + " ms"))
        << QVariant(Row("Longest gap", Fixed(f.longest_gap_ms, 1) + " ms"))
        << QVariant(Row("Kernel drops", f.kernel_drops ? QString::number(*f.kernel_drops) : QString("not available")));
    for (const auto& s : f.senders)
      senders_ << QVariant(QVariantList{QString::fromStdString(ql::Ipv4Text(s.address)) + ":" + QString::number(s.port),
                                        QString::number(s.datagrams), Fixed(s.share * 100.0, 0) + " %"});
    // The sensor is asked only when something is wrong, not once a second while data flows.
    bool from_sensor = true;
    const std::string sensor = manager_.getIpAddress().toStdString();
    for (const auto& s : f.senders) from_sensor = from_sensor && ql::Ipv4Text(s.address) == sensor;
    ql::StreamContext c;
    if (f.silent || !from_sensor) {
      c = Context();
    } else if (manager_.getIsConnected()) {
      c.sensor_connected = true;
      c.sensor_address = sensor;
    }
    const ql::StreamDiagnosis d = ql::Diagnose(f, c);
    for (const auto& line : d.lines) diagnosis_ << QString::fromStdString(line);
    fix_ = d.fix;
    QStringList changes;
    for (const auto& [name, value] : fix_) {
      const auto old = name == ql::kDestinationIpName ? c.destination_ip.value_or("?")
                       : c.data_port                  ? std::to_string(*c.data_port)
                                                      : std::string("?");
      changes << QString::fromStdString(name + " from " + old + " to " + value);
    }
    if (!changes.isEmpty()) question_ = "Change the sensor's " + changes.join(" and ") + "?";
    recording_ = !f.recording_file.empty() && f.recording_stopped.empty();
    if (!f.recording_file.empty())
      recording_text_ = QString::fromStdString(f.recording_file) + ": " + QString::number(f.recorded) + " datagrams" +
                        (f.recording_stopped.empty() ? QString() : ", " + QString::fromStdString(f.recording_stopped));
  }
  emit changed();
}

void StreamMonitorModel::SendDataHere() {
  if (fix_.empty()) return;
  const std::string why = manager_.WriteNamedValues(fix_);
  if (why.empty()) {
    manager_.setSuccessMsg("The sensor now sends its data here.");
    // Counting starts again so the figures show the stream as it is now.
    monitor_.Reset();
  } else {
    manager_.setErrorMsg(QString::fromStdString(why));
  }
  Refresh();
}

void StreamMonitorModel::StartRecording(QUrl file) {
  const QString path = file.isLocalFile() ? file.toLocalFile() : file.toString();
  std::string why;
  if (!monitor_.StartRecording(path.toStdString(), {}, &why)) manager_.setErrorMsg(QString::fromStdString(why));
  Refresh();
}

void StreamMonitorModel::StopRecording() {
  monitor_.StopRecording();
  Refresh();
}
