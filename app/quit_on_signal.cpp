#include "quit_on_signal.h"

#include <QCoreApplication>
#include <QSocketNotifier>

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>
#include <csignal>

namespace varkel::app {

namespace {

int g_signal_pipe[2] = {-1, -1};

// Only async-signal-safe work here: one byte into the pipe; the event loop does the rest.
void OnSignal(int) {
  const char byte = 1;
  const ssize_t n = ::write(g_signal_pipe[1], &byte, 1);
  (void)n;
}

}  // namespace

bool QuitOnTerminationSignals(QCoreApplication& app) {
  if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, g_signal_pipe) != 0) return false;
  ::fcntl(g_signal_pipe[1], F_SETFL, O_NONBLOCK);
  auto* notifier = new QSocketNotifier(g_signal_pipe[0], QSocketNotifier::Read, &app);
  QObject::connect(notifier, &QSocketNotifier::activated, &app, [] {
    char byte = 0;
    const ssize_t n = ::read(g_signal_pipe[0], &byte, 1);
    (void)n;
    QCoreApplication::quit();
  });
  struct sigaction sa {};
  sa.sa_handler = OnSignal;
  sigemptyset(&sa.sa_mask);
  sa.sa_flags = SA_RESTART;
  return ::sigaction(SIGTERM, &sa, nullptr) == 0 && ::sigaction(SIGINT, &sa, nullptr) == 0;
}

}  // namespace varkel::app
