#pragma once
// Waiting on a state, never on a time: the deadline only bounds a failure.

#include <chrono>
#include <functional>
#include <thread>

namespace vktest {

// Polls `done` until it holds or `timeout` passes; `between` runs before each poll (an
// event loop turn, for instance). Returns `done()`.
inline bool PollUntil(const std::function<bool()>& done, std::chrono::milliseconds timeout = std::chrono::seconds(20),
                      const std::function<void()>& between = {}) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  while (true) {
    if (between) between();
    if (done()) return true;
    if (std::chrono::steady_clock::now() >= deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
}

}  // namespace vktest
