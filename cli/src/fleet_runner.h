#pragma once
// Work on many sensors at once: at most N threads, and Ctrl-C that lets what runs end but
// starts nothing new.

#include <atomic>
#include <cstddef>
#include <functional>
#include <vector>

#include <signal.h>

namespace varkel::cli {

// While it lives, the first SIGINT only sets interrupted(); a second one ends the program
// as usual. The handler it replaced is back when it goes.
class InterruptGuard {
 public:
  InterruptGuard();
  ~InterruptGuard();
  InterruptGuard(const InterruptGuard&) = delete;
  InterruptGuard& operator=(const InterruptGuard&) = delete;
  static bool interrupted();

 private:
  struct sigaction previous_ {};
};

// Runs task(i) for i = 0..count-1 in that order of start, at most `jobs` at once. Before a
// task starts, may_start() is asked; when it says no (or on Ctrl-C under an
// InterruptGuard) the task is skipped. Returns which tasks ran.
std::vector<bool> RunJobs(size_t count, unsigned jobs, const std::function<void(size_t)>& task,
                          const std::function<bool()>& may_start = nullptr);

}  // namespace varkel::cli
