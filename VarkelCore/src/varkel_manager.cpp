// Construction, properties, the settings file, messages and the threads the controller owns.

#include "varkel_manager.h"

#include <QDir>
#include <QFileInfo>
#include <QSettings>
#include <QStandardPaths>

#include <cstdio>
#include <mutex>

#include "journal_history.h"
#include "ktc_client.h"
#include "ktc_serial_client.h"
#include "manager_catalogue.h"
#include "manager_text.h"
#include "monitor_model.h"
#include "number_text.h"
#include "serial_client.h"
#include "serial_source.h"
#include "var_info.h"

namespace {

using manager_text::Q;

}  // namespace

VarkelManager* VarkelManager::GetInstance(bool flag, const QString& config_path) {
  static VarkelManager* instance = new VarkelManager(flag, config_path);
  return instance;
}

VarkelManager::VarkelManager(bool flag, const QString& config_path)
    : QObject(nullptr), creation_flag_(flag), config_file_path_(config_path.toStdString()) {
  setObjectName("VarkelManager");
  monitor_ = new MonitorModel(QFileInfo(SettingsFilePath()).absolutePath() + "/Monitor.ini", this);
  connect(monitor_, &MonitorModel::logLine, this, &VarkelManager::sendLogMessage);
  ReadSettings();
  emit initInfoChanged();
}

QObject* VarkelManager::monitor() const {
  return monitor_;
}

VarkelManager::~VarkelManager() {
  // Workers first, so none of them starts a refresh thread behind our back; then the
  // refresh thread; the clients go with the members.
  closing_.store(true);
  // Downloads, upgrades and reads in flight end now instead of holding the close up.
  CutExchangesShort();
  { std::lock_guard<std::mutex> lock(closing_mutex_); }
  closing_cv_.notify_all();
  JoinWorkers();
  if (history_) history_->WaitForBundle();  // its thread reads our values
  StopRefreshThread();
  std::shared_ptr<quarn::lidar::SerialSource> s485, s232;
  {
    std::lock_guard<std::mutex> lock(clients_mutex_);
    s485 = serial_source_485_;
    s232 = serial_source_232_;
    serial_client_.reset();
    ktc_client_.reset();
    small_link_.reset();
  }
  if (s485) s485->Close();
  if (s232) s232->Close();
}

QString VarkelManager::SettingsFilePath() {
  return QStandardPaths::writableLocation(QStandardPaths::DocumentsLocation) + "/VelmoraDataFiles/RecvSettings.ini";
}

void VarkelManager::ReadSettings() {
  QSettings settings(SettingsFilePath(), QSettings::IniFormat);
  std::lock_guard<std::mutex> lock(fields_mutex_);
  if (settings.contains("device_ip_address"))
    ip_address_ = settings.value("device_ip_address").toString().toStdString();
  if (settings.contains("ktc_port")) port_ = settings.value("ktc_port").toString().toStdString();
  if (settings.contains("rs485_com")) serial_port_485_ = settings.value("rs485_com").toString().toStdString();
  if (settings.contains("rs232_com")) serial_port_232_ = settings.value("rs232_com").toString().toStdString();
  if (settings.contains("point_cloud_baudrate")) baud_rate_.store(settings.value("point_cloud_baudrate").toInt());
  if (settings.contains("udp_port"))
    udp_port_.store(static_cast<uint16_t>(settings.value("udp_port").toInt() & 0xFFFF));
  tls_enabled_ = settings.value("tls_enabled", false).toBool();
  tls_ca_file_ = settings.value("tls_ca_file").toString().toStdString();
  tls_cert_file_ = settings.value("tls_cert_file").toString().toStdString();
  tls_key_file_ = settings.value("tls_key_file").toString().toStdString();
}

void VarkelManager::WriteSettings() {
  QString path = SettingsFilePath();
  QDir().mkpath(QFileInfo(path).absolutePath());
  QSettings settings(path, QSettings::IniFormat);
  std::string ip, port, s485, s232, ca, cert, key;
  bool tls = false;
  {
    std::lock_guard<std::mutex> lock(fields_mutex_);
    ip = ip_address_;
    port = port_;
    s485 = serial_port_485_;
    s232 = serial_port_232_;
    tls = tls_enabled_;
    ca = tls_ca_file_;
    cert = tls_cert_file_;
    key = tls_key_file_;
  }
  // "udp_port" is only ever changed by hand or by the host viewer.
  settings.setValue("device_ip_address", Q(ip));
  settings.setValue("ktc_port", Q(port));
  settings.setValue("rs485_com", Q(s485));
  settings.setValue("rs232_com", Q(s232));
  settings.setValue("point_cloud_baudrate", QString::number(baud_rate_.load()));
  settings.setValue("tls_enabled", tls);
  settings.setValue("tls_ca_file", Q(ca));
  settings.setValue("tls_cert_file", Q(cert));
  settings.setValue("tls_key_file", Q(key));
  settings.sync();
}

// ---- properties -------------------------------------------------------------------

QString VarkelManager::getIpAddress() const {
  std::lock_guard<std::mutex> lock(fields_mutex_);
  return Q(ip_address_);
}

void VarkelManager::setIpAddress(const QString& text) {
  std::lock_guard<std::mutex> lock(fields_mutex_);
  ip_address_ = text.toStdString();
}

QString VarkelManager::getUdpPort() const {
  return QString::number(udp_port_.load());
}

void VarkelManager::setUdpPort(const QString& text) {
  udp_port_.store(static_cast<uint16_t>(varkel::Stoi(text.toStdString()) & 0xFFFF));
}

QString VarkelManager::getPort() const {
  std::lock_guard<std::mutex> lock(fields_mutex_);
  return Q(port_);
}

void VarkelManager::setPort(const QString& text) {
  std::lock_guard<std::mutex> lock(fields_mutex_);
  port_ = text.toStdString();
}

QString VarkelManager::getSerialPort485() const {
  std::lock_guard<std::mutex> lock(fields_mutex_);
  return Q(serial_port_485_);
}

void VarkelManager::setSerialPort485(const QString& text) {
  std::lock_guard<std::mutex> lock(fields_mutex_);
  serial_port_485_ = text.toStdString();
}

QString VarkelManager::getSerialPort232() const {
  std::lock_guard<std::mutex> lock(fields_mutex_);
  return Q(serial_port_232_);
}

void VarkelManager::setSerialPort232(const QString& text) {
  std::lock_guard<std::mutex> lock(fields_mutex_);
  serial_port_232_ = text.toStdString();
}

QString VarkelManager::getBaudRate() const {
  return QString::number(baud_rate_.load());
}

void VarkelManager::setBaudRate(const QString& text) {
  // Lenient on purpose: whatever the combo holds, a bad text is 0.
  baud_rate_.store(text.toInt());
}

QString VarkelManager::getErrorMessage() const {
  std::lock_guard<std::mutex> lock(fields_mutex_);
  return Q(error_message_);
}

QString VarkelManager::getSuccessMessage() const {
  std::lock_guard<std::mutex> lock(fields_mutex_);
  return Q(success_message_);
}

QString VarkelManager::commandReturnHeader() const {
  std::lock_guard<std::mutex> lock(fields_mutex_);
  return Q(send_ktc_command_return_header_);
}

QString VarkelManager::commandReturnPayload() const {
  std::lock_guard<std::mutex> lock(fields_mutex_);
  return Q(send_ktc_command_return_payload_);
}

int VarkelManager::getCommandLogCnt() const {
  std::lock_guard<std::mutex> lock(fields_mutex_);
  return static_cast<int>(command_history_.size());
}

QVariantList VarkelManager::getSendCommandHistory() const {
  std::lock_guard<std::mutex> lock(fields_mutex_);
  QVariantList list;
  for (const CommandRecord& r : command_history_) {
    QVariantMap entry;
    entry["record_time"] = Q(r.record_time);
    entry["send_cmd_history"] = Q(r.send_cmd_history);
    entry["send_payload_history"] = Q(r.send_payload_history);
    list.append(entry);
  }
  return list;
}

QVariantList VarkelManager::getFovList() const {
  std::lock_guard<std::mutex> lock(fields_mutex_);
  QVariantList list;
  for (float v : fov_) list.append(QString::number(static_cast<double>(v), 'f', 1));
  return list;
}

void VarkelManager::setIsDownloadLog(bool value) {
  if (is_download_log_.exchange(value) != value) emit isDownloadLogChanged();
}

QVariantList VarkelManager::getZeltoLidarInfo() const {
  std::lock_guard<std::mutex> lock(fields_mutex_);
  QVariantList list;
  for (const std::string& text : small_lidar_texts_) list.append(Q(text));
  return list;
}

QVariantList VarkelManager::getZeltoLidarVersionInfo() const {
  std::lock_guard<std::mutex> lock(fields_mutex_);
  QVariantList list;
  // One [name, text] entry each: appending a list as it is would splice its two items in.
  for (const auto& entry : small_lidar_map_) list.append(QVariant(QVariantList{Q(entry.first), Q(entry.second)}));
  return list;
}

// ---- messages and small invokables --------------------------------------------------

void VarkelManager::setErrorMsg(QString str) {
  {
    std::lock_guard<std::mutex> lock(fields_mutex_);
    error_message_ = str.toStdString();
  }
  // The window clears the text with "" after showing it; that must not open it again.
  if (!str.isEmpty()) emit errorMessageChanged();
}

void VarkelManager::setSuccessMsg(QString str) {
  {
    std::lock_guard<std::mutex> lock(fields_mutex_);
    success_message_ = str.toStdString();
  }
  if (!str.isEmpty()) emit successMessageChanged();
}

void VarkelManager::SetLogBytesFlowStatus(bool flag) {
  log_bytes_flow_.store(flag);
}

bool VarkelManager::GetIsConnectingLidar() {
  return connecting_.load();
}

void VarkelManager::setModuleIndexUse(int index) {
  module_index_use_.store(index);
}

QString VarkelManager::getVMNowName() {
  std::lock_guard<std::mutex> lock(fields_mutex_);
  return Q(vm_now_name_);
}

void VarkelManager::UpdateUI() {
  emit myMapChanged();
}

void VarkelManager::StartGetConfigFile() {
  StartWorker([this] {
    std::vector<uint8_t> reply;
    int ret = -1;
    if (auto client = KtcClientHandle()) ret = client->QueryCommand({}, reply, 0x74);
    // The texts are the wrong way round (0 is success); the host viewer's users read
    // them this way, so they stay.
    std::fputs(ret != 0 ? "[SUCCESS]: Get config file from lidar success! \n"
                        : "[FAILED]: Get config file from lidar failed! \n",
               stdout);
    std::fflush(stdout);
  });
}

// ---- threads and handles -------------------------------------------------------------

void VarkelManager::Trace(const char* operation, const std::string& text) const {
  std::string line = std::string("VarkelManager::") + operation + "(): " + text;
  std::fwrite(line.data(), 1, line.size(), stdout);
  std::fflush(stdout);
}

std::shared_ptr<quarn::lidar::KtcClient> VarkelManager::KtcClientHandle() const {
  std::lock_guard<std::mutex> lock(clients_mutex_);
  return ktc_client_;
}

void VarkelManager::SetKtcClient(std::shared_ptr<quarn::lidar::KtcClient> client) {
  std::shared_ptr<quarn::lidar::KtcClient> old;
  {
    std::lock_guard<std::mutex> lock(clients_mutex_);
    old = std::move(ktc_client_);
    ktc_client_ = std::move(client);
    // A link over the old KTC client must not outlive it.
    if (!serial_client_) small_link_.reset();
  }
  // `old` is released here, outside the lock: its destructor joins its connect thread.
}

void VarkelManager::StartWorker(std::function<void()> body) {
  auto done = std::make_shared<std::atomic<bool>>(false);
  std::lock_guard<std::mutex> lock(workers_mutex_);
  for (auto it = workers_.begin(); it != workers_.end();) {
    if (it->done->load()) {
      it->thread.join();
      it = workers_.erase(it);
    } else {
      ++it;
    }
  }
  workers_.push_back(Worker{std::thread([body = std::move(body), done] {
                              body();
                              done->store(true);
                            }),
                            done});
}

bool VarkelManager::WaitUnlessClosing(std::chrono::steady_clock::time_point deadline) {
  std::unique_lock<std::mutex> lock(closing_mutex_);
  return closing_cv_.wait_until(lock, deadline, [this] { return closing_.load(); });
}

void VarkelManager::JoinWorkers() {
  std::vector<Worker> workers;
  {
    std::lock_guard<std::mutex> lock(workers_mutex_);
    workers.swap(workers_);
  }
  for (Worker& w : workers) w.thread.join();
}

void VarkelManager::RestartRefreshThread(void (VarkelManager::*body)()) {
  // One step under one lock: two connect attempts finishing together would otherwise
  // assign over a running thread, or join one whose flag the other had just set again.
  std::lock_guard<std::mutex> lock(page_timer_thread_mutex_);
  EndRefreshThreadLocked();
  page_timer_flag_.store(true);
  if (body != nullptr) page_timer_thread_ = std::thread(body, this);
}

void VarkelManager::CutExchangesShort() {
  std::shared_ptr<quarn::lidar::KtcClient> ktc;
  std::shared_ptr<quarn::lidar::SerialSource> s485, s232;
  {
    std::lock_guard<std::mutex> lock(clients_mutex_);
    if (upgrade_link_) upgrade_link_->Cancel();
    ktc = ktc_client_;
    s485 = serial_source_485_;
    s232 = serial_source_232_;
  }
  if (ktc) ktc->Interrupt();
  // A closed source wakes its reader within one slice; later exchanges find it closed.
  if (s485) s485->Close();
  if (s232) s232->Close();
}

void VarkelManager::StopRefreshThread() {
  std::lock_guard<std::mutex> lock(page_timer_thread_mutex_);
  EndRefreshThreadLocked();
}

void VarkelManager::EndRefreshThreadLocked() {
  page_timer_flag_.store(false);
  {
    // Wakes the thread from its pause between rounds; it ends once the flag is clear.
    std::lock_guard<std::mutex> lock(page_timer_wait_mutex_);
  }
  page_timer_wait_.notify_all();
  if (page_timer_thread_.joinable()) page_timer_thread_.join();
  page_timer_thread_ = std::thread();
}
