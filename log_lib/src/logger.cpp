#include "logger.h"

#include <spdlog/async.h>
#include <spdlog/sinks/rotating_file_sink.h>
#include <spdlog/sinks/stdout_sinks.h>
#include <spdlog/spdlog.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <map>

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

}  // namespace

struct Logger::Impl {
  std::shared_ptr<spdlog::logger> logger;
  std::string directory;
  std::mutex observers_mutex;  // guards observers against concurrent loggers and (un)registration
  std::map<int, Observer> observers;
  int next_id = 1;
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
  spdlog::init_thread_pool(8192, 1);
  impl_->logger = std::make_shared<spdlog::async_logger>("varkel", sinks.begin(), sinks.end(), spdlog::thread_pool(),
                                                         spdlog::async_overflow_policy::block);
  impl_->logger->set_level(spdlog::level::debug);
  impl_->logger->set_pattern("%Y-%m-%d %H:%M:%S.%e [%l] [%t] %v");
  impl_->logger->flush_on(spdlog::level::warn);
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

  LogRecord record{level, BaseName(file), line, function ? function : "", std::move(message)};
  try {
    impl_->logger->log(ToSpdLevel(level), "[{}:{}] [{}] {}", record.file, record.line, record.function,
                       record.message);
  } catch (...) {
    // A failing sink must not take the caller down.
  }
  // An observer that logs itself must not re-enter (it would deadlock on the lock).
  thread_local bool in_observer = false;
  if (in_observer) return;
  in_observer = true;
  {
    std::lock_guard<std::mutex> lock(impl_->observers_mutex);
    for (auto& [id, observer] : impl_->observers) observer(record);
  }
  in_observer = false;
}

int Logger::AddObserver(Observer observer) {
  std::lock_guard<std::mutex> lock(impl_->observers_mutex);
  const int id = impl_->next_id++;
  impl_->observers.emplace(id, std::move(observer));
  return id;
}

void Logger::RemoveObserver(int id) {
  std::lock_guard<std::mutex> lock(impl_->observers_mutex);
  impl_->observers.erase(id);
}

std::string Logger::LogDirectory() const { return impl_->directory; }

void Logger::Flush() { impl_->logger->flush(); }
