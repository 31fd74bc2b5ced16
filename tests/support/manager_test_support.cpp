#include "manager_test_support.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QMetaMethod>
#include <QStandardPaths>

#include <unistd.h>
#include <algorithm>
#include <cstdlib>
#include <fstream>

#include <stdexcept>
#include "sim_start.h"
#include "wait_until.h"

namespace vktest {
namespace {

std::string MakeTempDir(const char* prefix) {
  std::string templ = std::string("/tmp/") + prefix + "XXXXXX";
  if (!mkdtemp(templ.data())) throw std::runtime_error("mkdtemp failed");
  return templ;
}

// Runs before main: nothing may see the user's own documents folder.
const std::string kHome = [] {
  std::string home = MakeTempDir("vk-mgr-home-");
  setenv("HOME", home.c_str(), 1);
  setenv("XDG_CONFIG_HOME", (home + "/.config").c_str(), 1);
  setenv("XDG_DATA_HOME", (home + "/.local/share").c_str(), 1);  // the change journal
  unsetenv("XDG_DOCUMENTS_DIR");
  QStandardPaths::setTestModeEnabled(true);
  return home;
}();

}  // namespace

void EnsureApp() {
  static int argc = 1;
  static char name[] = "varkel_manager_test";
  static char* argv[] = {name, nullptr};
  static QCoreApplication* app = new QCoreApplication(argc, argv);
  (void)app;
  const QString settings = VarkelManager::SettingsFilePath();
  if (!settings.startsWith(QString::fromStdString(kHome)))
    throw std::runtime_error("settings path escapes the test home: " + settings.toStdString());
}

void WriteTable(const std::string& root, const std::string& model, const std::string& csv) {
  std::ofstream(root + "/Config/varID/" + model + ".csv") << csv;
}

std::string TestaTable() {
  return kTableHeader +
         // Page 1 "Device" with groups Identity and Network; page 2 "Status" with Live.
         "0,Device,Identity,Network,,,,,,,,,,,,,,\n"
         "0,Status,Live,,,,,,,,,,,,,,,\n"
         "1,1,0x01,,,SN,0,string,,,,,,1_1_1_0,8,0,,\n"
         "1,2,0x01,,,PN,0,string,,,,,,1_1_2_0,8,0,,\n"
         "1,3,0x01,,,Hardware Version,0,HWVER,,,,,,1_1_3_0,16,0,,\n"
         "1,4,0x01,,,Software Version,0,SWVER_YMD,,,,,,1_1_4_0,16,0,,\n"
         "2,1,0x02,0x21,0,IP Address,1,IP,192.168.1.201,,,,,1_2_1_1,4,0,,\n"
         "2,2,0x02,,,MAC Address,0,MAC,,,,,,1_2_2_0,6,0,,\n"
         "2,3,0x02,0x21,1,Port,1,uint16,9347,,,,,1_2_3_1,2,0,,\n"
         "5,1,0x05,0x25,0,Mode,1,uint8,0,0|1|2,,,\"0_Off\n1_Low\n2_High\",1_2_4_3,1,0,,0x01\n"
         "5,2,0x05,,,Level,0,uint8,,,,,,1_2_5_0,1,0,,0x02\n"
         "6,1,0x06,0x26,0,Enable,1,uint8,0,,,,,1_2_6_2_6,1,0,,\n"
         "6,2,0x06,0x26,1,Threshold,1,uint16,0,,mm,,,1_2_6_2,2,0,,\n"
         "6,3,0x09,,,Orphan,1,uint8,0,,,,,1_2_8_2,1,0,,\n"
         "3,1,0x03,,,Temperature,0,int16,,,C,0.1,,2_1_1_0,2,1,,\n"
         "3,2,0x03,,,Run Time,0,DT,,,,,,2_1_2_0,4,1,,\n"
         "3,3,0x03,,,Voltage,0,float32,,,V,,,2_1_3_0,4,0,,\n"
         "4,1,0x1A05,,,Counter,0,uint32,,,,,,2_1_4_0,4,1,,\n"
         "4,2,0x1A05,,,Ratio,0,double,,,,,,2_1_5_0,8,0,,\n"
         "7,1,,0x10,0,Restart,0,raw,,,,,,1_1_1_6,0,0,,\n"
         "7,2,0x30,,,Fault Log,0,raw,,,,,,1_1_2_6,0,0,,\n"
         "7,3,0x31,,,Operation Log,0,raw,,,,,,1_1_3_6,0,0,,\n";
}

std::string NetworkTable() {
  return kTableHeader +
         "0,Device,Identity,Settings,View,,,,,,,,,,,,,\n"
         "0,Maintenance,Firmware,,,,,,,,,,,,,,,\n"
         "1,1,0x01,,,SN,0,string,,,,,,1_1_1_0,8,0,,\n"
         "1,2,0x01,,,PN,0,string,,,,,,1_1_2_0,8,0,,\n"
         "2,1,0x02,0x25,0,Speed,1,uint16,10,,,,,1_2_1_1,2,0,,\n"
         "2,2,0x02,0x25,1,Gain,1,uint8,3,,,,,1_2_2_1,1,0,,\n"
         "3,1,0x23,0x22,0,FOV Channel,1,uint8,0,0|1|2|3|4,,,,1_3_1_5,1,0,,\n"
         "4,1,,0x50,0,Firmware Upgrade,1,raw,,,,,,2_1_1_4,0,0,,\n"
         "4,2,,0x10,0,Restart,0,raw,,,,,,2_1_2_6,0,0,,\n"
         "4,3,0x30,,,Fault Log,0,raw,,,,,,2_1_3_6,0,0,,\n";
}

QVariantList UpgradePlace(VarkelManager& m) {
  for (const QVariant& page : m.getLevel2List())
    for (const QVariant& entry : page.toList())
      if (entry.toList()[1].toInt() == 4) return entry.toList();
  return {};
}

QUrl WriteImage(const std::string& root, const std::string& name, const std::string& first_line, int size) {
  QByteArray bytes = QByteArray::fromStdString(first_line);
  for (int i = bytes.size(); i < size; ++i) bytes.append(static_cast<char>((i * 131) >> 3));
  bytes.truncate(size);
  const QString path = QString::fromStdString(root + "/" + name);
  QFile f(path);
  if (!f.open(QIODevice::WriteOnly) || f.write(bytes) != bytes.size())
    throw std::runtime_error("cannot write " + path.toStdString());
  return QUrl::fromLocalFile(path);
}

std::string WhatOf(const std::function<void()>& f) {
  try {
    f();
  } catch (const std::exception& e) {
    return e.what();
  }
  return "";
}

SignalLog::SignalLog(VarkelManager* m) {
  using V = VarkelManager;
  const auto q = Qt::QueuedConnection;
  for (void (V::*s)() : {&V::isConnectedChanged, &V::lidarModelChanged, &V::lidarClearModel, &V::lidarShowModel,
                         &V::myMapChanged, &V::fovConfigChanged, &V::errorMessageChanged, &V::successMessageChanged,
                         &V::lidarModelListChanged, &V::connectTypeChanged, &V::zeltoLidarInfoChanged,
                         &V::myTimerMapChanged, &V::isDownloadLogChanged, &V::downloadFinished}) {
    const std::string name = QMetaMethod::fromSignal(s).name().toStdString();
    connect(
        m, s, this, [this, name] { entries_.push_back(name); }, q);
  }
  auto add_log = [this](QString msg, QString type) {
    entries_.push_back(type.toStdString() + ": " + msg.toStdString());
  };
  connect(m, &V::sendLogMessage, this, add_log, q);
  // Direct: the flag is read in the emitting thread, before a worker can lower it again.
  // The counter is shared so that it outlives this log should the controller emit while
  // the log is being torn down.
  connect(
      m, &V::isUpgradingChanged, m,
      [rises = upgrading_rises_, m] {
        if (m->getIsUpgrading()) ++*rises;
      },
      Qt::DirectConnection);
  connect(
      m, &V::downloadOperationLogFinished, this,
      [this](bool result) {
        entries_.push_back(std::string("downloadOperationLogFinished(") + (result ? "true)" : "false)"));
      },
      q);
}

void SignalLog::Flush() {
  QCoreApplication::processEvents(QEventLoop::AllEvents);
}

bool SignalLog::Wait(const std::function<bool()>& done, std::chrono::milliseconds timeout) {
  return PollUntil(done, timeout, [this] { Flush(); });
}

int SignalLog::Count(const std::string& entry) const {
  return static_cast<int>(std::count(entries_.begin(), entries_.end(), entry));
}

bool SignalLog::HasPrefix(const std::string& prefix) const {
  return std::any_of(entries_.begin(), entries_.end(), [&](const std::string& e) { return e.rfind(prefix, 0) == 0; });
}

void ManagerTest::SetUp() {
  EnsureApp();
  QFile::remove(VarkelManager::SettingsFilePath());
  root_ = MakeTempDir("vk-mgr-root-");
  QDir().mkpath(QString::fromStdString(root_ + "/Config/varID"));
  ASSERT_EQ(chdir(root_.c_str()), 0);
}

void ManagerTest::TearDown() {
  log_.reset();
  m_.reset();
  sim_.reset();
}

void ManagerTest::Load(const std::string& model, const std::string& csv, bool serial) {
  WriteTable(root_, model, csv);
  varkel::sim::SimOptions options = SimOptions(model, root_ + "/Config/varID");
  options.serial = serial;
  sim_ = std::make_unique<varkel::sim::VirtualLidar>(options);
  std::string error;
  EXPECT_TRUE(sim_->Start(&error)) << error;
  m_ = std::make_unique<TestManager>();
  m_->InitConfigFileParser(QString::fromStdString(model));
  log_ = std::make_unique<SignalLog>(m_.get());
}

void ManagerTest::Aim(VarkelManager& m, const varkel::sim::VirtualLidar& sim) {
  m.setProperty("ip_address", "127.0.0.1");
  m.setProperty("port", QString::number(sim.port()));
}

bool ManagerTest::Connect(VarkelManager& m, const varkel::sim::VirtualLidar& sim, SignalLog& log) {
  Aim(m, sim);
  return m.ConnectLidar() &&
         log.Wait([&] { return m.getIsConnected() && !m.GetIsConnectingLidar() && log.Has("isConnectedChanged"); });
}

bool ManagerTest::Connect() {
  if (!Connect(*m_, *sim_, *log_)) return false;
  sim_->ResetCounters();
  log_->Clear();
  return true;
}

bool ManagerTest::ConnectSmallSensor(bool serial) {
  if (!serial) return Connect(*m_, *sim_, *log_);
  m_->setProperty("serial_port_485", QString::fromStdString(sim_->data_port_path()));
  m_->setProperty("serial_port_232", QString::fromStdString(sim_->command_port_path()));
  return m_->ConnectLidar() && log_->Wait([&] { return m_->getIsConnected() && !m_->GetIsConnectingLidar(); });
}

}  // namespace vktest

// Qt 5 from Debian is not built with ThreadSanitizer: its QMutex waits on futexes and its
// reference counts use atomics that the sanitizer cannot see, so every queued signal from a
// worker thread (posted under Qt's own lock, delivered by the main thread) looks like a race
// inside libQt5Core. glibc's time-zone state is likewise guarded by a lock the sanitizer
// does not see (localtime on the logging thread against tzset on another). Races whose
// stacks lie wholly in our code are still reported.
extern "C" const char* __tsan_default_suppressions() {
  return "race:libQt5Core.so\n"
         "race:tzset_internal\n";
}
