#pragma once
// Process-wide logging facade. Callers format printf-style; the messages go to an
// asynchronous rotating file in the per-user log folder, warnings and errors also to
// standard error, and to any observers (the controller's log pane, tests).

#include <atomic>
#include <cstdarg>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

enum LogLevel : int {
  kLogTiming = 1,
  kLogProgress = 2,
  kLogWarning = 4,
  kLogError = 8,
};

struct LogRecord {
  int level;
  std::string file;
  int line;
  std::string function;
  std::string message;
};

class Logger {
 public:
  using Observer = std::function<void(const LogRecord&)>;

  static Logger& GetInstance();

  // Formats and queues one message. A malformed format or an over-long message never
  // fails the caller: the former is logged as such, the latter is cut.
  void AddToQueue(int level, const char* file, int line, const char* function, const char* format, ...)
      __attribute__((format(printf, 6, 7)));
  void AddToQueueV(int level, const char* file, int line, const char* function, const char* format,
                   va_list args);

  // Observers see every record synchronously on the logging thread; they must be quick.
  int AddObserver(Observer observer);
  void RemoveObserver(int id);

  // Folder of the rotating log file (empty when no file could be opened).
  std::string LogDirectory() const;
  void Flush();

  static constexpr size_t kMaxMessageLength = 16 * 1024;

  Logger(const Logger&) = delete;
  Logger& operator=(const Logger&) = delete;

 private:
  Logger();
  ~Logger();

  struct Impl;
  std::unique_ptr<Impl> impl_;
};

#define VK_LOG(level, ...) Logger::GetInstance().AddToQueue((level), __FILE__, __LINE__, __PRETTY_FUNCTION__, __VA_ARGS__)
#define LOG_TIMING(...) VK_LOG(kLogTiming, __VA_ARGS__)
#define LOG_PROGRESS(...) VK_LOG(kLogProgress, __VA_ARGS__)
#define LOG_WARNING(...) VK_LOG(kLogWarning, __VA_ARGS__)
#define LOG_ERROR(...) VK_LOG(kLogError, __VA_ARGS__)
