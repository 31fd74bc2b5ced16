#include "fleet_runner.h"

#include <pthread.h>

#include <algorithm>
#include <thread>

namespace varkel::cli {
namespace {

// Lock-free, so the handler may set it.
std::atomic<bool> g_interrupted{false};
static_assert(std::atomic<bool>::is_always_lock_free);

extern "C" void OnInterrupt(int) {
  g_interrupted.store(true);
}

}  // namespace

InterruptGuard::InterruptGuard() {
  g_interrupted.store(false);
  struct sigaction action {};
  action.sa_handler = OnInterrupt;
  sigemptyset(&action.sa_mask);
  // The default comes back at once: a second Ctrl-C stops a run that does not end.
  action.sa_flags = SA_RESETHAND;
  sigaction(SIGINT, &action, &previous_);
}

InterruptGuard::~InterruptGuard() {
  sigaction(SIGINT, &previous_, nullptr);
}

bool InterruptGuard::interrupted() {
  return g_interrupted.load();
}

std::vector<bool> RunJobs(size_t count, unsigned jobs, const std::function<void(size_t)>& task,
                          const std::function<bool()>& may_start) {
  // vector<bool> packs bits: each thread writes its own char.
  std::vector<char> ran(count, 0);
  std::atomic<size_t> next{0};
  const auto work = [&] {
    for (size_t i = next++; i < count; i = next++) {
      if (g_interrupted.load() || (may_start && !may_start())) continue;
      ran[i] = 1;
      task(i);
    }
  };
  const size_t threads = std::min<size_t>(std::max(jobs, 1u), count);
  // Ctrl-C goes to the calling thread alone: in a worker it would cut short the wait for a
  // reply (EINTR), and a running exchange is to end normally.
  sigset_t interrupt, previous;
  sigemptyset(&interrupt);
  sigaddset(&interrupt, SIGINT);
  pthread_sigmask(SIG_BLOCK, &interrupt, &previous);
  std::vector<std::thread> pool;
  for (size_t t = 0; t < threads; ++t) pool.emplace_back(work);
  pthread_sigmask(SIG_SETMASK, &previous, nullptr);
  for (std::thread& thread : pool) thread.join();
  return std::vector<bool>(ran.begin(), ran.end());
}

}  // namespace varkel::cli
