// Figures for reading every variable of the default model from the virtual lidar (its own
// process, so the figures are the reader's alone):
//  1. varkel-cli's `get`, whole command (table load, connect, probe, reads, JSON);
//  2. the same reads alone, on an open session;
//  3. the window's controller reading every page on request, one after the other.

#include <QCoreApplication>
#include <QStandardPaths>

#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <sstream>
#include <string>
#include <vector>

#include "commands.h"
#include "common/forked_simulator.h"
#include "varkel_manager.h"
#include "virtual_lidar.h"

namespace {

using Clock = std::chrono::steady_clock;
constexpr int kRounds = 30;

class BenchManager : public VarkelManager {
 public:
  BenchManager() : VarkelManager(true, "./Config/varID/Quenta.csv") {}
};

// Median milliseconds of `rounds` runs of `body`.
double MedianMs(const std::function<void()>& body) {
  std::vector<double> ms;
  for (int i = 0; i < kRounds; ++i) {
    const auto start = Clock::now();
    body();
    ms.push_back(std::chrono::duration<double, std::milli>(Clock::now() - start).count());
  }
  std::sort(ms.begin(), ms.end());
  return ms[ms.size() / 2];
}

}  // namespace

int main(int argc, char** argv) {
  const std::string tables = std::string(VARKEL_SOURCE_DIR) + "/Config/varID";
  bench::ForkedSimulator simulator("Quenta", tables);
  const uint16_t port = simulator.port();
  if (port == 0) return 1;

  char home[] = "/tmp/vk-bench-home-XXXXXX";
  if (!mkdtemp(home)) return 1;
  setenv("HOME", home, 1);
  setenv("XDG_CONFIG_HOME", (std::string(home) + "/.config").c_str(), 1);
  setenv("XDG_DATA_HOME", (std::string(home) + "/.local/share").c_str(), 1);
  QStandardPaths::setTestModeEnabled(true);
  QCoreApplication app(argc, argv);
  int status = 0;

  varkel::cli::ConnectionOptions options;
  options.host = "127.0.0.1";
  options.port = port;
  options.config_dir = tables;

  // 1. The whole command, as a script runs it.
  const std::vector<std::string> args{"varkel-cli", "--config-dir",       tables,   "--host", "127.0.0.1",
                                      "--port",     std::to_string(port), "--json", "get"};
  std::vector<const char*> argv_get;
  for (const std::string& a : args) argv_get.push_back(a.c_str());
  const double command_ms = MedianMs([&] {
    std::ostringstream out, err;
    if (varkel::cli::RunCli(static_cast<int>(argv_get.size()), argv_get.data(), out, err) != 0) status = 1;
  });

  // 2. The reads alone.
  varkel::cli::Session session(options);
  const std::vector<VarInfo*> vars = session.Readable();
  const double reads_ms = MedianMs([&] {
    if (!session.Read(vars).empty()) status = 1;
  });

  // 3. The window: every page read on request.
  if (chdir((std::string(VARKEL_SOURCE_DIR)).c_str()) != 0) return 1;
  double pages_ms = 0;
  int pages = 0;
  {
    BenchManager m;
    m.InitConfigFileParser("Quenta");
    m.setProperty("ip_address", "127.0.0.1");
    m.setProperty("port", QString::number(port));
    m.ConnectLidar();
    const auto deadline = Clock::now() + std::chrono::seconds(20);
    while (!(m.getIsConnected() && !m.GetIsConnectingLidar()) && Clock::now() < deadline) {
      QCoreApplication::processEvents();
      usleep(5000);
    }
    if (!m.getIsConnected()) {
      std::fprintf(stderr, "controller did not connect\n");
      status = 1;
    } else {
      pages = m.getLevel1List().size();
      pages_ms = MedianMs([&] {
        for (int page = 0; page < pages; ++page) m.GetLidarModuleInfo(page);
      });
      // The reads must have reached the sensor for the figure to mean anything.
      if (m.getLidarSN() == "xxxxxxxx") {
        std::fprintf(stderr, "the controller's page reads stored nothing\n");
        status = 1;
      }
    }
    m.Stop();
  }

  std::printf("every readable variable of Quenta (%zu variables), median of %d rounds:\n", vars.size(), kRounds);
  std::printf("  varkel-cli get, whole command:          %8.2f ms\n", command_ms);
  std::printf("  varkel-cli reads alone (open session):  %8.2f ms\n", reads_ms);
  std::printf("  window, all %d pages read on request:    %8.2f ms\n", pages, pages_ms);
  return status;
}
