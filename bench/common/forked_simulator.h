#pragma once
// The virtual lidar in a child process, so that its threads neither share the benchmark's
// locks nor show up in the benchmark's own CPU figures. Stopped when this goes.

#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <string>

#include "virtual_lidar.h"

namespace bench {

class ForkedSimulator {
 public:
  ForkedSimulator(const std::string& model, const std::string& config_dir) {
    int port_pipe[2], stop_pipe[2];
    if (pipe(port_pipe) != 0) return;
    if (pipe(stop_pipe) != 0) {
      close(port_pipe[0]);
      close(port_pipe[1]);
      return;
    }
    child_ = fork();
    if (child_ == 0) {
      close(port_pipe[0]);
      close(stop_pipe[1]);
      Serve(model, config_dir, port_pipe[1], stop_pipe[0]);
    }
    close(port_pipe[1]);
    close(stop_pipe[0]);
    stop_fd_ = stop_pipe[1];
    if (child_ < 0 || read(port_pipe[0], &port_, sizeof port_) != sizeof port_) port_ = 0;
    close(port_pipe[0]);
  }
  ~ForkedSimulator() {
    if (stop_fd_ >= 0) close(stop_fd_);
    if (child_ > 0) waitpid(child_, nullptr, 0);
  }
  ForkedSimulator(const ForkedSimulator&) = delete;
  ForkedSimulator& operator=(const ForkedSimulator&) = delete;
  // 0 when the simulator did not start.
  uint16_t port() const { return port_; }

 private:
  // Child: serves the model until the parent closes the pipe; the port goes back first.
  [[noreturn]] static void Serve(const std::string& model, const std::string& config_dir, int port_fd, int stop_fd) {
    varkel::sim::SimOptions options;
    options.model = model;
    options.config_dir = config_dir;
    options.port = 0;
    varkel::sim::VirtualLidar sim(options);
    std::string error;
    uint16_t port = 0;
    if (sim.Start(&error))
      port = sim.port();
    else
      std::fprintf(stderr, "simulator: %s\n", error.c_str());
    if (write(port_fd, &port, sizeof port) != sizeof port) _exit(1);
    char c;
    while (read(stop_fd, &c, 1) > 0) {
    }
    sim.Stop();
    _exit(0);
  }

  pid_t child_ = -1;
  int stop_fd_ = -1;
  uint16_t port_ = 0;
};

}  // namespace bench
