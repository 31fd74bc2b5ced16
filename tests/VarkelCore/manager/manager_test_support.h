#pragma once
// Shared by the controller tests: an isolated home and install root, a model table, a
// controller the tests may construct themselves, and a thread-safe signal log.

#include <QCoreApplication>
#include <QObject>
#include <QStringList>

#include <chrono>
#include <functional>
#include <string>
#include <vector>

#include "varkel_manager.h"

namespace vktest {

// Creates the application object once (on the main thread). HOME, XDG_CONFIG_HOME and
// Qt's standard-path test mode are set at start-up, before anything asks for a path.
void EnsureApp();
std::string IsolatedHome();

// A fresh install root with "Config/varID/" holding the test tables, made the current
// directory (the controller finds its tables relative to it).
std::string MakeInstallRoot();
void WriteTable(const std::string& root, const std::string& model, const std::string& csv);
// The main test table: two pages, shared get commands, an extended command, two
// payload variants of one command, switches, standalone rows. Serial models reuse it.
std::string TestaTable();

// The program makes its controller through GetInstance only; tests make their own.
class TestManager : public VarkelManager {
 public:
  TestManager() : VarkelManager(true, "./Config/varID/Testa.csv") {}
  using VarkelManager::GetInfoFromLidarWithSameCmd;
  using VarkelManager::searchVarPtr;
  using VarkelManager::updateSingleVarFromOutput;
};

// Records the controller's signals in the order they arrive, from any thread. Delivery
// is queued to the main thread, so Wait/Flush must run there.
class SignalLog : public QObject {
 public:
  struct Entry {
    std::string name;
    QStringList args;
  };
  explicit SignalLog(VarkelManager* manager);

  // Processes events until `done` holds or `timeout` passes; returns `done()`.
  bool Wait(const std::function<bool()>& done, std::chrono::milliseconds timeout = std::chrono::seconds(20));
  bool WaitFor(const std::string& name, std::chrono::milliseconds timeout = std::chrono::seconds(20));
  void Flush();
  void Clear() { entries_.clear(); }

  int Count(const std::string& name) const;
  std::vector<std::string> Names() const;
  // Log-pane lines as "TYPE: text".
  std::vector<std::string> LogLines() const;
  bool HasLog(const std::string& type, const std::string& text) const;

 private:
  std::vector<Entry> entries_;
};

}  // namespace vktest
