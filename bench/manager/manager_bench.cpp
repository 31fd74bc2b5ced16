// Figures for the controller against the virtual lidar:
//  1. reading the default model's largest page: queries per page and milliseconds;
//  2. the controller's CPU use over 10 s while connected and idle (refresh thread running).
// The simulator runs in a child process, so the CPU figure is the controller's alone.

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QStandardPaths>
#include <QThread>

#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <set>
#include <string>
#include <thread>

#include "common/forked_simulator.h"
#include "varkel_manager.h"
#include "virtual_lidar.h"

namespace {

using Clock = std::chrono::steady_clock;

class BenchManager : public VarkelManager {
 public:
  BenchManager() : VarkelManager(true, "./Config/varID/Quenta.csv") {}
};

double CpuSeconds() {
  rusage u{};
  getrusage(RUSAGE_SELF, &u);
  return u.ru_utime.tv_sec + u.ru_stime.tv_sec + (u.ru_utime.tv_usec + u.ru_stime.tv_usec) / 1e6;
}

std::string MakeTempDir(const char* prefix) {
  std::string templ = std::string("/tmp/") + prefix + "XXXXXX";
  if (!mkdtemp(templ.data())) std::abort();
  return templ;
}

bool WaitUntil(const std::function<bool()>& done, std::chrono::seconds timeout) {
  const auto deadline = Clock::now() + timeout;
  while (!done()) {
    if (Clock::now() > deadline) return false;
    QCoreApplication::processEvents();
    QThread::msleep(5);
  }
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  const std::string source_tables = std::string(VARKEL_SOURCE_DIR) + "/Config/varID";
  const std::string root = MakeTempDir("vk-bench-root-");
  QDir().mkpath(QString::fromStdString(root + "/Config/varID"));
  QFile::copy(QString::fromStdString(source_tables + "/Quenta.csv"),
              QString::fromStdString(root + "/Config/varID/Quenta.csv"));

  bench::ForkedSimulator simulator("Quenta", root + "/Config/varID");
  const uint16_t port = simulator.port();
  if (port == 0) return 1;

  // Never the user's own settings file.
  const std::string home = MakeTempDir("vk-bench-home-");
  setenv("HOME", home.c_str(), 1);
  setenv("XDG_CONFIG_HOME", (home + "/.config").c_str(), 1);
  setenv("XDG_DATA_HOME", (home + "/.local/share").c_str(), 1);
  QStandardPaths::setTestModeEnabled(true);
  QCoreApplication app(argc, argv);
  if (chdir(root.c_str()) != 0) return 1;

  int result = 0;
  {
    BenchManager m;
    std::atomic<int> rounds{0};
    QObject::connect(&m, &VarkelManager::myTimerMapChanged, [&] { rounds.fetch_add(1); });
    m.InitConfigFileParser("Quenta");
    m.setProperty("ip_address", "127.0.0.1");
    m.setProperty("port", QString::number(port));
    m.ConnectLidar();
    if (!WaitUntil([&] { return m.getIsConnected() && !m.GetIsConnectingLidar(); }, std::chrono::seconds(20))) {
      std::fprintf(stderr, "not connected\n");
      result = 1;
    } else {
      // The largest page by readable variables, and how many queries it takes.
      const QVariantList pages = m.getMyMap();
      int largest = 0;
      size_t largest_vars = 0, largest_queries = 0;
      for (int p = 0; p < pages.size(); ++p) {
        size_t vars = 0;
        std::set<std::string> groups;
        for (const QVariant& group : pages[p].toList())
          for (const QVariant& v : group.toList()) {
            const QVariantMap var = v.toMap();
            if (var["get_cmd"].toString().isEmpty()) continue;
            ++vars;
            groups.insert(var["get_cmd"].toString().toStdString());
          }
        if (vars > largest_vars) {
          largest = p;
          largest_vars = vars;
          largest_queries = groups.size();
        }
      }
      // Queries actually sent for one read, counted on the byte log with the refresh idle.
      m.setModuleIndexUse(-1);
      std::atomic<int> sends{0};
      auto counter = QObject::connect(&m, &VarkelManager::sendLogMessage, [&](QString msg, QString) {
        if (msg.startsWith("SEND: ")) sends.fetch_add(1);
      });
      m.SetLogBytesFlowStatus(true);
      m.GetLidarModuleInfo(largest);
      m.SetLogBytesFlowStatus(false);
      QObject::disconnect(counter);

      const int kReads = 20;
      const auto start = Clock::now();
      for (int i = 0; i < kReads; ++i) m.GetLidarModuleInfo(largest);
      const double ms = std::chrono::duration<double, std::milli>(Clock::now() - start).count() / kReads;
      std::printf("largest page: index %d, %zu readable variables, %zu distinct get commands, %d queries per read\n",
                  largest, largest_vars, largest_queries, sends.load());
      std::printf("page read: %.2f ms per page (mean of %d), %.2f ms per query, %.2f variables per query\n", ms, kReads,
                  ms / sends.load(), static_cast<double>(largest_vars) / sends.load());

      for (int shown : {largest, -1}) {
        m.setModuleIndexUse(shown);  // -1: no page shown, the thread only idles
        QThread::msleep(300);
        const int rounds_before = rounds.load();
        const double cpu_before = CpuSeconds();
        const auto t0 = Clock::now();
        // The main thread sleeps, so the figure is the refresh thread and the client.
        std::this_thread::sleep_for(std::chrono::seconds(10));
        const double wall = std::chrono::duration<double>(Clock::now() - t0).count();
        const double cpu = CpuSeconds() - cpu_before;
        QCoreApplication::processEvents();
        std::printf("idle connected %.1f s, shown page %d: CPU %.3f s (%.2f %% of one core), %d refresh rounds\n", wall,
                    shown, cpu, 100.0 * cpu / wall, rounds.load() - rounds_before);
      }
      m.Stop();
    }
  }
  return result;
}
