#pragma once
// Shared by the controller tests: an isolated home and install root, a model table, the
// virtual lidar, a controller the tests may construct themselves, and a signal log.

#include <QObject>
#include <QStringList>
#include <QUrl>
#include <QVariantList>

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "listening.h"
#include "wait_until.h"
#include "var_info.h"
#include "varkel_manager.h"
#include "virtual_lidar.h"

namespace vktest {

// Creates the application object once (on the main thread). HOME, XDG_CONFIG_HOME and
// Qt's standard-path test mode are set at start-up, before anything asks for a path.
void EnsureApp();
inline const std::string kTableHeader =
    "GroupID,Index,Get,Set,SetIndex,VarName,Permission,VarType,DefaultValue,Options,Unit,Coefficient,"
    "OptionDescription,FunctionModule,VarLen,TimerUpdate,SetCoefficient,GetCmdPayload\n";
void WriteTable(const std::string& root, const std::string& model, const std::string& csv);
// Two pages, shared get commands, an extended command, two payload variants of one
// command, switches, standalone rows. Serial models reuse it.
std::string TestaTable();
// A network model with a page of three reads (identity, settings, field of view) and a
// maintenance page (upgrade, restart, a log): the fault and network tests' sensor.
std::string NetworkTable();
// The place {.., type, page, group, row} of the table's upgrade row as the page lists it;
// empty when there is none.
QVariantList UpgradePlace(VarkelManager& m);
// A file `name` in `root` of `size` bytes that begins with `first_line`; its URL.
QUrl WriteImage(const std::string& root, const std::string& name, const std::string& first_line, int size);

// Texts the user reads, shared by the tests that reach them.
inline const char kSetSuccess[] =
    "Set Lidar Successfully\nNote that if you have changed the TCP-related settings, you will need to restart the "
    "lidar for it to work.";
inline const char kTransmitted[] =
    "Upgrade package transmitted successfully. The lidar will automatically reboot within 10 seconds.";
inline const char kTransferFailed[] = "Upgrade package transfer failed or is terminated.";
inline const char kConnectFailed[] = "Connection Failed. Please check your network settings.";

// The text of the exception `f` throws; "" when it throws none.
std::string WhatOf(const std::function<void()>& f);

// The program makes its controller through GetInstance only; tests make their own.
class TestManager : public VarkelManager {
 public:
  TestManager() : VarkelManager(true, "./Config/varID/Testa.csv") {}
  using VarkelManager::GetInfoFromLidarWithSameCmd;
  using VarkelManager::Init;
  using VarkelManager::KtcClientHandle;
  using VarkelManager::searchVarPtr;
  using VarkelManager::SetKtcTimeouts;
  using VarkelManager::SetModeSwitchWait;
  using VarkelManager::SetOtaReplyTimeout;
  using VarkelManager::SetRebootWait;
  using VarkelManager::SetUpgrading;
  using VarkelManager::updateSingleVarFromOutput;
};

// Records the controller's signals in the order they arrive, from any thread. Delivery
// is queued to the main thread, so Wait/Flush must run there.
class SignalLog : public QObject {
 public:
  explicit SignalLog(VarkelManager* manager);

  // Processes events until `done` holds or `timeout` passes; returns `done()`.
  bool Wait(const std::function<bool()>& done, std::chrono::milliseconds timeout = std::chrono::seconds(20));
  bool WaitFor(const std::string& entry) {
    return Wait([&] { return Count(entry) > 0; });
  }
  void Flush();
  void Clear() { entries_.clear(); }
  // The connect attempt begun after the last Clear is over: announced either way, worker
  // done. The connecting flag alone rises inside the worker, so it can be seen down before
  // the attempt has begun.
  bool WaitConnectOver(VarkelManager& m) {
    return Wait([&] {
      return (Has("INFO: Lidar connected") || HasPrefix("ERROR: Connection Error: ")) && !m.GetIsConnectingLidar();
    });
  }

  // Signal names in order; log-pane lines appear as "TYPE: text".
  const std::vector<std::string>& Trace() const { return entries_; }
  int Count(const std::string& entry) const;
  bool Has(const std::string& entry) const { return Count(entry) > 0; }
  bool HasPrefix(const std::string& prefix) const;

  // Times IsUpgrading went up, counted as it happens: a short transfer can be over
  // before the caller looks at the flag.
  int UpgradingRises() const { return upgrading_rises_->load(); }

 private:
  std::vector<std::string> entries_;
  std::shared_ptr<std::atomic<int>> upgrading_rises_ = std::make_shared<std::atomic<int>>(0);
};

// A fresh install root with "Config/varID/", made the current directory (the controller
// finds its tables relative to it), and no settings file.
class ManagerTest : public ::testing::Test {
 protected:
  void SetUp() override;
  void TearDown() override;

  // Writes the table, starts the simulator for it (sim_) and a controller with it loaded.
  void Load(const std::string& model, const std::string& csv, bool serial = false);
  static void Aim(VarkelManager& m, const varkel::sim::VirtualLidar& sim);
  // Aims and connects; true once the worker is done and the connection announced.
  static bool Connect(VarkelManager& m, const varkel::sim::VirtualLidar& sim, SignalLog& log);
  // Connects m_ to sim_, then zeroes the counters and the log.
  bool Connect();
  // A small sensor: over its two serial lines (pseudo-terminals), else over KTC.
  bool ConnectSmallSensor(bool serial);
  // The small sensor's information thread has done its first round: the serial number,
  // the versions, then the safety state (shown as "xxxxxxxx" until it arrives; `safety`
  // false when the sensor refuses it). The thread is quiet for seconds after it.
  bool SmallSensorInfoRead(bool safety = true) {
    return log_->Wait([&] {
      const QVariantList info = m_->getZeltoLidarInfo();
      return m_->getZeltoLidarVersionInfo().size() == 4 && info.size() == 4 &&
             (!safety || info[3].toString() != "xxxxxxxx");
    });
  }

  std::string Value(const std::string& name) { return m_->searchVarPtr(name, "var_name")->current_val; }
  // The text the page shows for the variable at page, group, row.
  std::string Shown(int page, int group, int row) {
    return m_->getMyMap()[page].toList()[group].toList()[row].toMap()["current_val"].toString().toStdString();
  }
  std::string Error() { return m_->getErrorMessage().toStdString(); }

  std::string root_;
  std::unique_ptr<varkel::sim::VirtualLidar> sim_;
  std::unique_ptr<TestManager> m_;
  std::unique_ptr<SignalLog> log_;
};

}  // namespace vktest
