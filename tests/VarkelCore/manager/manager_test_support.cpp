#include "manager_test_support.h"

#include <QDir>
#include <QStandardPaths>
#include <QThread>

#include <unistd.h>
#include <cstdlib>
#include <fstream>
#include <stdexcept>

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
  unsetenv("XDG_DOCUMENTS_DIR");
  QStandardPaths::setTestModeEnabled(true);
  return home;
}();

}  // namespace

std::string IsolatedHome() {
  return kHome;
}

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

std::string MakeInstallRoot() {
  std::string root = MakeTempDir("vk-mgr-root-");
  QDir().mkpath(QString::fromStdString(root + "/Config/varID"));
  if (chdir(root.c_str()) != 0) throw std::runtime_error("chdir failed");
  return root;
}

void WriteTable(const std::string& root, const std::string& model, const std::string& csv) {
  std::ofstream(root + "/Config/varID/" + model + ".csv") << csv;
}

std::string TestaTable() {
  return "GroupID,Index,Get,Set,SetIndex,VarName,Permission,VarType,DefaultValue,Options,Unit,Coefficient,"
         "OptionDescription,FunctionModule,VarLen,TimerUpdate,SetCoefficient,GetCmdPayload\n"
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

SignalLog::SignalLog(VarkelManager* m) {
  auto add = [this](const char* name) { return [this, name] { entries_.push_back({name, {}}); }; };
  const auto q = Qt::QueuedConnection;
  connect(m, &VarkelManager::isConnectedChanged, this, add("isConnectedChanged"), q);
  connect(m, &VarkelManager::lidarModelChanged, this, add("lidarModelChanged"), q);
  connect(m, &VarkelManager::lidarClearModel, this, add("lidarClearModel"), q);
  connect(m, &VarkelManager::lidarShowModel, this, add("lidarShowModel"), q);
  connect(m, &VarkelManager::myMapChanged, this, add("myMapChanged"), q);
  connect(m, &VarkelManager::fovConfigChanged, this, add("fovConfigChanged"), q);
  connect(m, &VarkelManager::errorMessageChanged, this, add("errorMessageChanged"), q);
  connect(m, &VarkelManager::successMessageChanged, this, add("successMessageChanged"), q);
  connect(m, &VarkelManager::lidarModelListChanged, this, add("lidarModelListChanged"), q);
  connect(m, &VarkelManager::connectTypeChanged, this, add("connectTypeChanged"), q);
  connect(m, &VarkelManager::zeltoLidarInfoChanged, this, add("zeltoLidarInfoChanged"), q);
  connect(m, &VarkelManager::myTimerMapChanged, this, add("myTimerMapChanged"), q);
  connect(
      m, &VarkelManager::sendLogMessage, this,
      [this](QString msg, QString type) {
        entries_.push_back({"sendLogMessage", {msg, type}});
      },
      q);
}

void SignalLog::Flush() {
  QCoreApplication::processEvents(QEventLoop::AllEvents);
}

bool SignalLog::Wait(const std::function<bool()>& done, std::chrono::milliseconds timeout) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  while (true) {
    Flush();
    if (done()) return true;
    if (std::chrono::steady_clock::now() >= deadline) return false;
    QThread::msleep(5);
  }
}

bool SignalLog::WaitFor(const std::string& name, std::chrono::milliseconds timeout) {
  return Wait([&] { return Count(name) > 0; }, timeout);
}

int SignalLog::Count(const std::string& name) const {
  int n = 0;
  for (const Entry& e : entries_) n += e.name == name;
  return n;
}

std::vector<std::string> SignalLog::Names() const {
  std::vector<std::string> names;
  for (const Entry& e : entries_) names.push_back(e.name);
  return names;
}

std::vector<std::string> SignalLog::LogLines() const {
  std::vector<std::string> lines;
  for (const Entry& e : entries_)
    if (e.name == "sendLogMessage") lines.push_back(e.args[1].toStdString() + ": " + e.args[0].toStdString());
  return lines;
}

bool SignalLog::HasLog(const std::string& type, const std::string& text) const {
  for (const std::string& line : LogLines())
    if (line == type + ": " + text) return true;
  return false;
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
