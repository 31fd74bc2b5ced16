#include "logger.h"

#include <spdlog/sinks/rotating_file_sink.h>
#include <spdlog/sinks/stdout_sinks.h>
#include <spdlog/spdlog.h>

#include <spdlog/details/os.h>

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <map>
#include <thread>

namespace {

spdlog::level::level_enum ToSpdLevel(int level) {
  switch (level) {
    case kLogTiming:
      return spdlog::level::debug;
    case kLogProgress:
      return spdlog::level::info;
    case kLogWarning:
      return spdlog::level::warn;
    case kLogError:
      return spdlog::level::err;
    default:
      return spdlog::level::info;
  }
}

// Per-user log folder: $VARKEL_LOG_DIR, else the XDG state folder, else ~/.local/state.
std::filesystem::path LogFolder() {
  if (const char* dir = std::getenv("VARKEL_LOG_DIR"); dir && *dir) return dir;
  if (const char* state = std::getenv("XDG_STATE_HOME"); state && *state)
    return std::filesystem::path(state) / "varkel" / "logs";
  if (const char* home = std::getenv("HOME"); home && *home)
    return std::filesystem::path(home) / ".local" / "state" / "varkel" / "logs";
  return std::filesystem::temp_directory_path() / "varkel-logs";
}

const char* BaseName(const char* path) {
  if (!path) return "";
  const char* base = path;
  for (const char* p = path; *p; ++p)
    if (*p == '/' || *p == '\\') base = p + 1;
  return base;
}

// Writes a record made earlier, with the time and thread of its making.
class BatchLogger : public spdlog::logger {
 public:
  using spdlog::logger::logger;
  void LogMade(const spdlog::details::log_msg& msg) { log_it_(msg, should_log(msg.level), false); }
};

// Timing and progress lines are written in batches by a thread of the logger's own:
// handing each line to a file thread on its own woke that thread once per line, which
// cost a KTC exchange more than the exchange itself. Warnings and errors are written at
// once by the caller, after the batch made before them.
constexpr size_t kBatchLimit = 256;
constexpr auto kBatchAge = std::chrono::milliseconds(100);

struct Pending {
  spdlog::log_clock::time_point time;
  size_t thread_id;
  spdlog::level::level_enum level;
  std::string text;
};

}  // namespace

struct Logger::Impl {
  std::shared_ptr<BatchLogger> logger;
  std::string directory;
  std::mutex observers_mutex;  // guards observers against concurrent loggers and (un)registration
  std::map<int, Observer> observers;
  std::atomic<int> observer_count{0};
  int next_id = 1;

  // Lines below warning not yet written, guarded by pending_mutex. write_mutex is held
  // from taking a batch until it is written, so the file keeps the order in which lines
  // were made; callers that only queue a line never wait for the file.
  std::mutex pending_mutex;
  std::condition_variable pending_cv;
  std::vector<Pending> pending;
  std::mutex write_mutex;

  // Writes the waiting lines; the caller holds write_mutex.
  void WriteBatch() {
    std::vector<Pending> batch;
    {
      std::lock_guard<std::mutex> lock(pending_mutex);
      batch.swap(pending);
    }
    for (const Pending& p : batch) {
      spdlog::details::log_msg msg(p.time, spdlog::source_loc{}, logger->name(), p.level, p.text);
      msg.thread_id = p.thread_id;
      try {
        logger->LogMade(msg);
      } catch (...) {
        // A failing sink must not take the caller down.
      }
    }
  }

  void FlushLoop() {
    for (;;) {
      {
        std::unique_lock<std::mutex> lock(pending_mutex);
        pending_cv.wait(lock, [this] { return !pending.empty(); });
        // Lines made meanwhile join the batch; none waits longer than kBatchAge.
        pending_cv.wait_for(lock, kBatchAge, [this] { return pending.size() >= kBatchLimit; });
      }
      std::lock_guard<std::mutex> write(write_mutex);
      WriteBatch();
      // Once per batch, so a reader of the file sees the lines within kBatchAge.
      try {
        logger->flush();
      } catch (...) {
      }
    }
  }
};

Logger& Logger::GetInstance() {
  // Never destroyed: worker threads may still log while static objects are torn down.
  static Logger* instance = new Logger();
  return *instance;
}

Logger::Logger() : impl_(std::make_unique<Impl>()) {
  std::vector<spdlog::sink_ptr> sinks;
  auto err_sink = std::make_shared<spdlog::sinks::stderr_sink_mt>();
  err_sink->set_level(spdlog::level::warn);
  sinks.push_back(err_sink);
  try {
    auto folder = LogFolder();
    std::filesystem::create_directories(folder);
    auto file_sink =
        std::make_shared<spdlog::sinks::rotating_file_sink_mt>((folder / "varkel.log").string(), 5 * 1024 * 1024, 3);
    file_sink->set_level(spdlog::level::debug);
    sinks.push_back(file_sink);
    impl_->directory = folder.string();
  } catch (const std::exception& e) {
    std::fprintf(stderr, "Logger: no log file (%s); logging to standard error only\n", e.what());
  }
  impl_->logger = std::make_shared<BatchLogger>("varkel", sinks.begin(), sinks.end());
  impl_->logger->set_level(spdlog::level::debug);
  impl_->logger->set_pattern("%Y-%m-%d %H:%M:%S.%e [%l] [%t] %v");
  impl_->logger->flush_on(spdlog::level::warn);
  // The logger lives as long as the process; so does the thread that hands batches over.
  std::thread([impl = impl_.get()] { impl->FlushLoop(); }).detach();
  // Whatever still waits reaches the file when the program ends normally.
  std::atexit([] { Logger::GetInstance().Flush(); });
}

Logger::~Logger() = default;

void Logger::AddToQueue(int level, const char* file, int line, const char* function, const char* format, ...) {
  va_list args;
  va_start(args, format);
  AddToQueueV(level, file, line, function, format, args);
  va_end(args);
}

void Logger::AddToQueueV(int level, const char* file, int line, const char* function, const char* format,
                         va_list args) {
  std::string message;
  if (!format) {
    message = "(null format)";
  } else {
    char stack_buf[512];
    va_list copy;
    va_copy(copy, args);
    const int needed = std::vsnprintf(stack_buf, sizeof(stack_buf), format, copy);
    va_end(copy);
    if (needed < 0) {
      message = std::string("(format error) ") + format;
    } else if (static_cast<size_t>(needed) < sizeof(stack_buf)) {
      message.assign(stack_buf, static_cast<size_t>(needed));
    } else {
      const size_t len = std::min(static_cast<size_t>(needed), kMaxMessageLength);
      message.resize(len + 1);
      std::vsnprintf(message.data(), len + 1, format, args);
      message.resize(len);
      if (static_cast<size_t>(needed) > kMaxMessageLength) message += " ...(truncated)";
    }
  }

  const char* base = BaseName(file);
  const char* func = function ? function : "";
  const spdlog::level::level_enum spd_level = ToSpdLevel(level);
  try {
    // "[file:line] [function] message", put together by hand: a format string parsed per
    // line cost more than the rest of the queueing.
    char number[16];
    const int digits = std::snprintf(number, sizeof(number), "%d", line);
    const size_t base_len = std::strlen(base);
    const size_t func_len = std::strlen(func);
    std::string text;
    text.reserve(base_len + func_len + message.size() + 8 + static_cast<size_t>(digits));
    text.append(1, '[').append(base, base_len).append(1, ':').append(number, static_cast<size_t>(digits));
    text.append("] [", 3).append(func, func_len).append("] ", 2).append(message);
    if (spd_level < spdlog::level::warn) {
      std::lock_guard<std::mutex> lock(impl_->pending_mutex);
      impl_->pending.push_back(
          Pending{spdlog::log_clock::now(), spdlog::details::os::thread_id(), spd_level, std::move(text)});
      // The first line wakes the thread to start its wait; a full batch ends the wait early.
      if (impl_->pending.size() == 1 || impl_->pending.size() >= kBatchLimit) impl_->pending_cv.notify_one();
    } else {
      std::lock_guard<std::mutex> write(impl_->write_mutex);
      impl_->WriteBatch();
      impl_->logger->log(spd_level, text);
    }
  } catch (...) {
    // A failing sink must not take the caller down.
  }
  // Records for observers are made only when someone observes.
  if (impl_->observer_count.load(std::memory_order_relaxed) == 0) return;
  // An observer that logs itself must not re-enter (it would deadlock on the lock).
  thread_local bool in_observer = false;
  if (in_observer) return;
  in_observer = true;
  {
    LogRecord record{level, base, line, func, std::move(message)};
    std::lock_guard<std::mutex> lock(impl_->observers_mutex);
    for (auto& [id, observer] : impl_->observers) observer(record);
  }
  in_observer = false;
}

int Logger::AddObserver(Observer observer) {
  std::lock_guard<std::mutex> lock(impl_->observers_mutex);
  const int id = impl_->next_id++;
  impl_->observers.emplace(id, std::move(observer));
  impl_->observer_count.store(static_cast<int>(impl_->observers.size()));
  return id;
}

void Logger::RemoveObserver(int id) {
  std::lock_guard<std::mutex> lock(impl_->observers_mutex);
  impl_->observers.erase(id);
  impl_->observer_count.store(static_cast<int>(impl_->observers.size()));
}

std::string Logger::LogDirectory() const {
  return impl_->directory;
}

void Logger::Flush() {
  std::lock_guard<std::mutex> write(impl_->write_mutex);
  impl_->WriteBatch();
  impl_->logger->flush();
}
