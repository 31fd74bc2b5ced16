#include "run_program.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>

namespace varkel {

int RunProgram(const std::vector<std::string>& args, const std::string& dir, int timeout_ms, std::string* output) {
  int pipe_fds[2];
  if (::pipe2(pipe_fds, O_CLOEXEC) != 0) return -1;
  std::vector<char*> argv;
  for (const std::string& arg : args) argv.push_back(const_cast<char*>(arg.c_str()));
  argv.push_back(nullptr);
  const pid_t pid = ::fork();
  if (pid < 0) {
    ::close(pipe_fds[0]);
    ::close(pipe_fds[1]);
    return -1;
  }
  if (pid == 0) {
    // Only async-signal-safe calls between fork and exec.
    ::dup2(pipe_fds[1], STDOUT_FILENO);
    ::dup2(pipe_fds[1], STDERR_FILENO);
    if (::chdir(dir.c_str()) != 0) ::_exit(127);
    ::execvp(argv[0], argv.data());
    ::_exit(127);
  }
  ::close(pipe_fds[1]);
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
  bool overran = false;
  char buffer[4096];
  while (true) {
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
    if (left.count() <= 0) {
      overran = true;
      break;
    }
    pollfd p{pipe_fds[0], POLLIN, 0};
    if (::poll(&p, 1, static_cast<int>(left.count())) <= 0) continue;
    const ssize_t n = ::read(pipe_fds[0], buffer, sizeof buffer);
    if (n <= 0) break;  // the program closed its output: it has ended
    output->append(buffer, static_cast<size_t>(n));
  }
  ::close(pipe_fds[0]);
  if (overran) ::kill(pid, SIGKILL);
  int status = 0;
  while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
  if (overran || !WIFEXITED(status) || WEXITSTATUS(status) == 127) return -1;
  return WEXITSTATUS(status);
}

}  // namespace varkel
