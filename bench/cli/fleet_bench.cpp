// Figures for many sensors at once: `backup --hosts` of 64 virtual sensors, each answering
// after 20 ms, with --jobs 1 and --jobs 16 (goal: at least 10x faster), and the peak
// memory of the command line meanwhile (goal: under 64 MiB). The fleet runs in a child
// process, so the memory and time figures are the command line's alone.

#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <sstream>
#include <string>
#include <vector>

#include "commands.h"
#include "virtual_fleet.h"

namespace {

constexpr size_t kSensors = 64;
constexpr int kReplyDelayMs = 20;
constexpr unsigned kManyJobs = 16;
constexpr double kGoalRatio = 10.0;
constexpr double kGoalMiB = 64.0;

// The fleet in a child: serves until the parent closes the pipe; the port goes back first.
class ForkedFleet {
 public:
  explicit ForkedFleet(const std::string& tables) {
    int port_pipe[2], stop_pipe[2];
    if (pipe(port_pipe) != 0 || pipe(stop_pipe) != 0) return;
    child_ = fork();
    if (child_ == 0) {
      close(port_pipe[0]);
      close(stop_pipe[1]);
      varkel::sim::SimOptions options;
      options.model = "Quenta";
      options.config_dir = tables;
      options.host = "127.0.0.2";
      options.port = 0;
      varkel::sim::VirtualFleet fleet(options, kSensors);
      std::string error;
      uint16_t port = 0;
      if (fleet.Start(&error)) {
        for (size_t i = 0; i < fleet.size(); ++i)
          fleet.member(i).SetFailure(varkel::sim::FailureMode::kDelay, -1, kReplyDelayMs);
        port = fleet.port();
      } else {
        std::fprintf(stderr, "fleet: %s\n", error.c_str());
      }
      if (write(port_pipe[1], &port, sizeof port) != sizeof port) _exit(1);
      char c;
      while (read(stop_pipe[0], &c, 1) > 0) {
      }
      fleet.Stop();
      _exit(0);
    }
    close(port_pipe[1]);
    close(stop_pipe[0]);
    stop_fd_ = stop_pipe[1];
    if (child_ < 0 || read(port_pipe[0], &port_, sizeof port_) != sizeof port_) port_ = 0;
    close(port_pipe[0]);
  }
  ~ForkedFleet() {
    if (stop_fd_ >= 0) close(stop_fd_);
    if (child_ > 0) waitpid(child_, nullptr, 0);
  }
  uint16_t port() const { return port_; }

 private:
  pid_t child_ = -1;
  int stop_fd_ = -1;
  uint16_t port_ = 0;
};

}  // namespace

int main() {
  const std::string tables = std::string(VARKEL_SOURCE_DIR) + "/Config/varID";
  ForkedFleet fleet(tables);
  if (fleet.port() == 0) return 1;
  char home[] = "/tmp/vk-fleet-bench-XXXXXX";
  if (!mkdtemp(home)) return 1;
  setenv("HOME", home, 1);

  const std::string last = "127.0.0." + std::to_string(1 + kSensors);
  int status = 0;
  const auto backup = [&](unsigned jobs) {
    const std::vector<std::string> args{"varkel-cli",
                                        "--config-dir",
                                        tables,
                                        "--port",
                                        std::to_string(fleet.port()),
                                        "--hosts",
                                        "127.0.0.2-" + last,
                                        "--jobs",
                                        std::to_string(jobs),
                                        "backup",
                                        std::string(home) + "/jobs" + std::to_string(jobs)};
    std::vector<const char*> argv;
    for (const std::string& a : args) argv.push_back(a.c_str());
    std::ostringstream out, err;
    const auto start = std::chrono::steady_clock::now();
    const int ret = varkel::cli::RunCli(static_cast<int>(argv.size()), argv.data(), out, err);
    const double s = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    if (ret != 0 || out.str().find(std::to_string(kSensors) + " ok, 0 failed") == std::string::npos) {
      std::fprintf(stderr, "backup with --jobs %u: status %d\n%s%s", jobs, ret, out.str().c_str(), err.str().c_str());
      status = 1;
    }
    return s;
  };
  const double one = backup(1);
  const double many = backup(kManyJobs);
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  const double peak_mib = usage.ru_maxrss / 1024.0;
  std::filesystem::remove_all(home);

  const double ratio = one / many;
  std::printf("backup of %zu virtual sensors, each reply after %d ms:\n", kSensors, kReplyDelayMs);
  std::printf("  --jobs 1:   %8.2f s\n", one);
  std::printf("  --jobs %-2u:  %8.2f s\n", kManyJobs, many);
  std::printf("  ratio:      %8.1fx (goal at least %.0fx: %s)\n", ratio, kGoalRatio,
              ratio >= kGoalRatio ? "met" : "NOT met");
  std::printf("  peak memory of the command line: %.1f MiB (goal under %.0f MiB: %s)\n", peak_mib, kGoalMiB,
              peak_mib < kGoalMiB ? "met" : "NOT met");
  return status;
}
