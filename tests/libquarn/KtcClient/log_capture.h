#pragma once
// Collects log records for the lifetime of the object (observers run in the logging caller).

#include <mutex>
#include <string>
#include <vector>

#include "logger.h"

namespace ktc_test {

class LogCapture {
 public:
  LogCapture() {
    id_ = Logger::GetInstance().AddObserver([this](const LogRecord& r) {
      std::lock_guard<std::mutex> lock(mutex_);
      records_.push_back(r);
    });
  }
  ~LogCapture() { Logger::GetInstance().RemoveObserver(id_); }

  int Count(int level, const std::string& message) const {
    std::lock_guard<std::mutex> lock(mutex_);
    int n = 0;
    for (const auto& r : records_) n += (r.level == level && r.message == message) ? 1 : 0;
    return n;
  }
  bool Has(int level, const std::string& message) const { return Count(level, message) > 0; }
  // Records at `level` or above.
  int CountAtLeast(int level) const {
    std::lock_guard<std::mutex> lock(mutex_);
    int n = 0;
    for (const auto& r : records_) n += r.level >= level ? 1 : 0;
    return n;
  }
  std::vector<LogRecord> Records() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return records_;
  }
  void Clear() {
    std::lock_guard<std::mutex> lock(mutex_);
    records_.clear();
  }

 private:
  int id_ = 0;
  mutable std::mutex mutex_;
  std::vector<LogRecord> records_;
};

}  // namespace ktc_test
