#pragma once
// What the logger says while a capture lives (observers run in the logging caller).

#include <algorithm>
#include <initializer_list>
#include <mutex>
#include <string>
#include <vector>

#include "logger.h"

namespace vktest {

class LogCapture {
 public:
  LogCapture() {
    id_ = Logger::GetInstance().AddObserver([this](const LogRecord& r) {
      std::lock_guard<std::mutex> lock(mutex_);
      records_.push_back(r);
    });
  }
  ~LogCapture() { Logger::GetInstance().RemoveObserver(id_); }
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  template <typename Pred>
  int CountIf(Pred pred) const {
    std::lock_guard<std::mutex> lock(mutex_);
    return static_cast<int>(std::count_if(records_.begin(), records_.end(), pred));
  }
  int Count(int level, const std::string& m) const {
    return CountIf([&](const LogRecord& r) { return r.level == level && r.message == m; });
  }
  // A record of `level` with exactly `message`, or (prefix) one starting with it.
  bool Has(int level, const std::string& message, bool prefix = false) const {
    return CountIf([&](const LogRecord& r) {
             return r.level == level && (prefix ? r.message.rfind(message, 0) == 0 : r.message == message);
           }) > 0;
  }
  // Those of `messages` not logged at `level`, for a readable failure ("" when all were).
  std::string Missing(int level, std::initializer_list<std::string> messages) const {
    std::string out;
    for (const auto& m : messages) out += Has(level, m) ? "" : "[" + m + "] ";
    return out;
  }
  int Errors() const {
    return CountIf([](const LogRecord& r) { return r.level >= kLogError; });
  }
  std::vector<LogRecord> Records() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return records_;
  }

 private:
  int id_ = 0;
  mutable std::mutex mutex_;
  std::vector<LogRecord> records_;
};

}  // namespace vktest
