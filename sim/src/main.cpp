// varkel-sim: the simulated lidar as a program of its own.

#include <signal.h>
#include <unistd.h>

#include <cstdio>
#include <string>
#include <vector>

#include "data_root.h"
#include "sim_cli.h"
#include "virtual_fleet.h"
#include "virtual_lidar.h"

namespace {

int Wait(sigset_t* signals) {
  int sig = 0;
  sigwait(signals, &sig);
  std::printf("varkel-sim: stopping\n");
  return 0;
}

int RunFleet(const varkel::sim::SimCommandLine& cl, sigset_t* signals) {
  using namespace varkel::sim;
  VirtualFleet fleet(cl.options, cl.fleet);
  std::string error;
  if (!fleet.Start(&error)) {
    std::fprintf(stderr, "varkel-sim: %s\n", error.c_str());
    return 1;
  }
  for (const auto& f : cl.failures) {
    VirtualLidar* member = f.address.empty() ? nullptr : fleet.Find(f.address);
    if (!f.address.empty() && !member) {
      std::fprintf(stderr, "varkel-sim: --fail names %s, which is no member of the fleet\n", f.address.c_str());
      return 2;
    }
    for (size_t i = 0; i < fleet.size(); ++i)
      if (!member || &fleet.member(i) == member) fleet.member(i).SetFailure(f.mode, f.cmd, f.param);
  }
  std::printf("varkel-sim: model %s, KTC %d.0%s, %zu sensors on %s to %s, port %u\n", cl.options.model.c_str(),
              cl.options.ktc_version, cl.options.tls ? " over TLS" : "", fleet.size(), fleet.address(0).c_str(),
              fleet.address(fleet.size() - 1).c_str(), static_cast<unsigned>(fleet.port()));
  for (const auto& f : cl.failures)
    std::printf("varkel-sim: failure %s for %s on %s\n", FailureModeName(f.mode),
                f.cmd < 0 ? "every command" : ("command " + std::to_string(f.cmd)).c_str(),
                f.address.empty() ? "every member" : f.address.c_str());
  std::printf("varkel-sim: running; Ctrl-C stops\n");
  std::fflush(stdout);
  Wait(signals);
  uint64_t accepted = 0;  // before Stop, which lets the members go
  for (size_t i = 0; i < fleet.size(); ++i) accepted += fleet.member(i).ConnectionsAccepted();
  fleet.Stop();
  std::printf("varkel-sim: %llu KTC connection(s) accepted\n", static_cast<unsigned long long>(accepted));
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  using namespace varkel::sim;
  SimCommandLine cl;
  std::string error;
  if (!ParseSimCommandLine(std::vector<std::string>(argv + 1, argv + argc), &cl, &error)) {
    std::fprintf(stderr, "varkel-sim: %s\n", error.c_str());
    return 2;
  }
  if (cl.help) {
    std::fputs(SimUsage().c_str(), stdout);
    return 0;
  }
  if (cl.version) {
    std::fputs(SimVersion().c_str(), stdout);
    return 0;
  }
  if (cl.options.config_dir.empty()) cl.options.config_dir = DefaultConfigDir(quarn::ExecutablePath());

  // Ctrl-C and TERM are taken by sigwait below; blocked before any thread starts so no
  // worker thread receives them.
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGINT);
  sigaddset(&signals, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);

  if (cl.fleet > 0) return RunFleet(cl, &signals);

  VirtualLidar lidar(cl.options);
  for (const auto& f : cl.failures) lidar.SetFailure(f.mode, f.cmd, f.param);
  if (!lidar.Start(&error)) {
    std::fprintf(stderr, "varkel-sim: %s\n", error.c_str());
    return 1;
  }
  std::printf("varkel-sim: model %s, KTC %d.0%s on %s:%u\n", cl.options.model.c_str(), cl.options.ktc_version,
              cl.options.tls ? " over TLS" : "", cl.options.host.c_str(), static_cast<unsigned>(lidar.port()));
  if (cl.options.serial) {
    std::printf("varkel-sim: serial commands (UART) on %s\n", lidar.command_port_path().c_str());
    std::printf("varkel-sim: serial data (RS485) on %s\n", lidar.data_port_path().c_str());
  }
  if (!cl.options.udp_target.empty())
    std::printf("varkel-sim: %d datagrams/s to %s (then wherever its destination registers say)\n", cl.options.udp_rate,
                cl.options.udp_target.c_str());
  for (const auto& f : cl.failures)
    std::printf("varkel-sim: failure %s for %s\n", FailureModeName(f.mode),
                f.cmd < 0 ? "every command" : ("command " + std::to_string(f.cmd)).c_str());
  std::printf("varkel-sim: running; Ctrl-C stops\n");
  std::fflush(stdout);

  Wait(&signals);
  lidar.Stop();
  std::printf("varkel-sim: %llu KTC connection(s) accepted\n",
              static_cast<unsigned long long>(lidar.ConnectionsAccepted()));
  return 0;
}
