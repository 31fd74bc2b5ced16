#include "journal.h"

#include <fcntl.h>
#include <pwd.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <deque>
#include <fstream>
#include <mutex>

#include "logger.h"

namespace quarn::journal {

const char kMasked[] = "********";

namespace {

std::mutex program_mutex;
std::string program_name = "varkel";

std::string UserName() {
  char buffer[1024];
  passwd entry{};
  passwd* found = nullptr;
  if (::getpwuid_r(::geteuid(), &entry, buffer, sizeof buffer, &found) == 0 && found && found->pw_name)
    return found->pw_name;
  const char* user = std::getenv("USER");
  return user ? user : "";
}

const char* OutcomeText(Outcome outcome) {
  switch (outcome) {
    case Outcome::kOk:
      return "ok";
    case Outcome::kRefused:
      return "refused";
    case Outcome::kNoReply:
      return "no reply";
  }
  return "ok";
}

std::string PathOf(const std::string& directory, int generation) {
  return directory + "/" + FileName(generation);
}

bool MakeDirectories(const std::string& path) {
  for (size_t at = 1; at <= path.size(); ++at) {
    if (at != path.size() && path[at] != '/') continue;
    const std::string part = path.substr(0, at);
    if (::mkdir(part.c_str(), 0700) != 0 && errno != EEXIST) return false;
  }
  return true;
}

std::string Text(const nlohmann::ordered_json& entry, const char* key) {
  const auto it = entry.find(key);
  return it != entry.end() && it->is_string() ? it->get<std::string>() : std::string();
}

}  // namespace

Outcome OutcomeOf(int ret, int code) {
  if (ret == 0) return Outcome::kOk;
  return code > 0 ? Outcome::kRefused : Outcome::kNoReply;
}

void SetProgram(const std::string& name) {
  std::lock_guard<std::mutex> lock(program_mutex);
  program_name = name;
}

std::string ProgramVersion() {
  return VARKEL_VERSION;
}

std::string DefaultDirectory() {
  const char* data = std::getenv("XDG_DATA_HOME");
  if (data && *data == '/') return std::string(data) + "/varkel";
  const char* home = std::getenv("HOME");
  return std::string(home ? home : "") + "/.local/share/varkel";
}

std::string FileName(int generation) {
  return generation == 0 ? "journal.jsonl" : "journal." + std::to_string(generation) + ".jsonl";
}

nlohmann::ordered_json MakeEntry(const Site& site, const Change& change, int64_t time_ms) {
  nlohmann::ordered_json entry;
  entry["time"] = FormatTime(time_ms);
  {
    std::lock_guard<std::mutex> lock(program_mutex);
    entry["program"] = program_name;
    entry["version"] = VARKEL_VERSION;
  }
  entry["user"] = UserName();
  entry["host"] = site.host;
  entry["model"] = site.model;
  entry["serial"] = site.serial;
  entry["what"] = change.what;
  entry["name"] = change.name;
  if (!change.id.empty()) entry["id"] = change.id;
  if (change.old_value) entry["old"] = *change.old_value;
  if (change.new_value) entry["new"] = *change.new_value;
  entry["outcome"] = OutcomeText(change.outcome);
  if (change.outcome == Outcome::kRefused) entry["code"] = change.code;
  return entry;
}

Writer::Writer(std::string directory, uint64_t rotate_bytes, int keep)
    : directory_(std::move(directory)), rotate_bytes_(rotate_bytes), keep_(keep) {}

void Writer::RotateIfDue(int fd) {
  struct stat st {};
  if (::fstat(fd, &st) != 0 || static_cast<uint64_t>(st.st_size) < rotate_bytes_) return;
  const std::string lock_path = directory_ + "/journal.lock";
  const int lock_fd = ::open(lock_path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
  if (lock_fd < 0) return;
  // Without waiting: whoever holds the lock is rotating right now.
  if (::flock(lock_fd, LOCK_EX | LOCK_NB) == 0) {
    // Another process may have rotated between our fstat and the lock: look at the name.
    struct stat current {};
    const std::string path = PathOf(directory_, 0);
    if (::stat(path.c_str(), &current) == 0 && static_cast<uint64_t>(current.st_size) >= rotate_bytes_) {
      ::unlink(PathOf(directory_, keep_).c_str());
      for (int generation = keep_ - 1; generation >= 0; --generation)
        ::rename(PathOf(directory_, generation).c_str(), PathOf(directory_, generation + 1).c_str());
    }
    ::flock(lock_fd, LOCK_UN);
  }
  ::close(lock_fd);
}

bool Writer::Append(const std::string& line, std::string* error) {
  auto fail = [&](const std::string& what) {
    if (error) *error = what + ": " + std::strerror(errno);
    return false;
  };
  if (!MakeDirectories(directory_)) return fail(directory_);
  const std::string path = PathOf(directory_, 0);
  // O_NONBLOCK: a FIFO left at the path must not hold the change up.
  const int flags = O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NONBLOCK;
  int fd = ::open(path.c_str(), flags, 0600);
  if (fd < 0) return fail(path);
  struct stat st {};
  if (::fstat(fd, &st) == 0 && static_cast<uint64_t>(st.st_size) >= rotate_bytes_) {
    RotateIfDue(fd);
    ::close(fd);
    fd = ::open(path.c_str(), flags, 0600);
    if (fd < 0) return fail(path);
  }
  const std::string whole = line + "\n";
  ssize_t written;
  do {
    written = ::write(fd, whole.data(), whole.size());
  } while (written < 0 && errno == EINTR);
  const bool ok = written == static_cast<ssize_t>(whole.size());
  if (!ok && written >= 0) errno = ENOSPC;
  const int saved = errno;
  ::close(fd);
  errno = saved;
  return ok ? true : fail(path);
}

void Record(const Site& site, const Change& change) {
  static std::atomic<bool> warned{false};
  try {
    const int64_t now =
        std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::system_clock::now().time_since_epoch())
            .count();
    std::string error;
    Writer writer(DefaultDirectory());
    if (writer.Append(MakeEntry(site, change, now).dump(-1, ' ', false, nlohmann::json::error_handler_t::replace),
                      &error))
      return;
    if (!warned.exchange(true))
      LOG_WARNING("the change journal cannot be written (%s); changes are not recorded", error.c_str());
  } catch (const std::exception& e) {
    if (!warned.exchange(true)) LOG_WARNING("the change journal cannot be written (%s)", e.what());
  }
}

std::optional<int64_t> ParseTime(const std::string& text) {
  int year = 0, month = 0, day = 0, hour = 0, minute = 0, second = 0, milli = 0;
  char tail[8] = {0};
  std::tm tm{};
  int consumed = 0;
  if (std::sscanf(text.c_str(), "%4d-%2d-%2d%n", &year, &month, &day, &consumed) != 3 || consumed != 10)
    return std::nullopt;
  std::string rest = text.substr(10);
  if (!rest.empty() && rest.back() == 'Z') rest.pop_back();
  if (!rest.empty()) {
    int n = 0;
    if (std::sscanf(rest.c_str(), "T%2d:%2d%n", &hour, &minute, &n) != 2 || n != 6) return std::nullopt;
    rest = rest.substr(6);
    if (!rest.empty()) {
      if (std::sscanf(rest.c_str(), ":%2d%n", &second, &n) != 1 || n != 3) return std::nullopt;
      rest = rest.substr(3);
    }
    if (!rest.empty()) {
      if (std::sscanf(rest.c_str(), ".%3d%n%7s", &milli, &n, tail) < 1 || n != 4 || tail[0]) return std::nullopt;
    }
  }
  if (month < 1 || month > 12 || day < 1 || day > 31 || hour > 23 || minute > 59 || second > 60) return std::nullopt;
  tm.tm_year = year - 1900;
  tm.tm_mon = month - 1;
  tm.tm_mday = day;
  tm.tm_hour = hour;
  tm.tm_min = minute;
  tm.tm_sec = second;
  return static_cast<int64_t>(::timegm(&tm)) * 1000 + milli;
}

std::string FormatTime(int64_t time_ms) {
  const std::time_t seconds = static_cast<std::time_t>(time_ms / 1000);
  std::tm tm{};
  ::gmtime_r(&seconds, &tm);
  char text[64];
  std::snprintf(text, sizeof text, "%04d-%02d-%02dT%02d:%02d:%02d.%03dZ", tm.tm_year + 1900, tm.tm_mon + 1, tm.tm_mday,
                tm.tm_hour, tm.tm_min, tm.tm_sec, static_cast<int>(time_ms % 1000));
  return text;
}

std::vector<nlohmann::ordered_json> Read(const std::string& directory, const Filter& filter, size_t* skipped) {
  std::deque<nlohmann::ordered_json> entries;
  size_t bad = 0;
  // Oldest file first; a generation beyond the kept ones may linger from a larger keep.
  for (int generation = Writer::kKeep + 1; generation >= 0; --generation) {
    std::ifstream in(PathOf(directory, generation));
    std::string line;
    while (in && std::getline(in, line)) {
      if (line.empty()) continue;
      auto entry = nlohmann::ordered_json::parse(line, nullptr, false);
      if (entry.is_discarded() || !entry.is_object()) {
        ++bad;
        continue;
      }
      if (!filter.host.empty() && Text(entry, "host") != filter.host) continue;
      if (!filter.serial.empty() && Text(entry, "serial") != filter.serial) continue;
      if (filter.since_ms) {
        const auto time = ParseTime(Text(entry, "time"));
        if (!time || *time < *filter.since_ms) continue;
      }
      entries.push_back(std::move(entry));
      if (filter.newest && entries.size() > filter.newest) entries.pop_front();
    }
  }
  if (skipped) *skipped = bad;
  return {std::make_move_iterator(entries.begin()), std::make_move_iterator(entries.end())};
}

}  // namespace quarn::journal
