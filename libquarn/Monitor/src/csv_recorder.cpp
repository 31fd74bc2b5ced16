#include "csv_recorder.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>

#include "limit_watch.h"

namespace quarn::monitor {

std::string IsoTimeMs(int64_t utc_ms) {
  const int64_t ms = ((utc_ms % 1000) + 1000) % 1000;
  const std::time_t seconds = static_cast<std::time_t>((utc_ms - ms) / 1000);
  std::tm utc{};
  gmtime_r(&seconds, &utc);
  char text[48];
  const size_t n = std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S", &utc);
  std::snprintf(text + n, sizeof text - n, ".%03dZ", static_cast<int>(ms));
  return text;
}

std::string ColumnTitle(const std::string& name, const std::string& unit) {
  return unit.empty() ? name : name + " [" + unit + "]";
}

namespace {

std::string Cell(const std::string& text) {
  if (text.find_first_of(",\"\r\n") == std::string::npos) return text;
  std::string quoted = "\"";
  for (char c : text) {
    if (c == '"') quoted += '"';
    quoted += c;
  }
  return quoted + "\"";
}

}  // namespace

CsvRecorder::~CsvRecorder() {
  Close();
}

bool CsvRecorder::Open(const std::string& path, const std::vector<std::string>& columns) {
  Close();
  error_.clear();
  rows_ = 0;
  path_ = path;
  columns_ = columns.size();
  fd_ = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (fd_ < 0) {
    error_ = "cannot record to " + path + ": " + std::strerror(errno);
    return false;
  }
  struct stat st {};
  if (::fstat(fd_, &st) == 0) {
    device_ = st.st_dev;
    inode_ = st.st_ino;
  }
  std::string header = "time";
  for (const std::string& c : columns) header += "," + Cell(c);
  header += ",event\n";
  return WriteRow(header);
}

bool CsvRecorder::WriteSample(int64_t utc_ms, const std::vector<double>& values) {
  if (!recording()) return false;
  std::string row = IsoTimeMs(utc_ms);
  for (size_t i = 0; i < columns_; ++i) row += "," + (i < values.size() ? NumberText(values[i]) : std::string());
  row += ",\n";
  if (!WriteRow(row)) return false;
  ++rows_;
  return true;
}

bool CsvRecorder::WriteEvent(int64_t utc_ms, const std::string& text) {
  if (!recording()) return false;
  std::string row = IsoTimeMs(utc_ms) + std::string(columns_ + 1, ',') + Cell(text) + "\n";
  return WriteRow(row);
}

bool CsvRecorder::WriteRow(const std::string& row) {
  // A file written to after its folder went away is lost: stop rather than record into it.
  struct stat st {};
  if (::stat(path_.c_str(), &st) != 0 || static_cast<uint64_t>(st.st_dev) != device_ ||
      static_cast<uint64_t>(st.st_ino) != inode_) {
    Stop("the recording stopped: " + path_ + " is gone (its folder was removed or renamed)");
    return false;
  }
  size_t done = 0;
  while (done < row.size()) {
    const ssize_t n = ::write(fd_, row.data() + done, row.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) {
      Stop("the recording stopped: cannot write " + path_ + ": " + std::strerror(n < 0 ? errno : ENOSPC));
      return false;
    }
    done += static_cast<size_t>(n);
  }
  return true;
}

void CsvRecorder::Stop(const std::string& why) {
  error_ = why;
  if (fd_ >= 0) ::close(fd_);
  fd_ = -1;
}

void CsvRecorder::Close() {
  if (fd_ >= 0) ::close(fd_);
  fd_ = -1;
}

}  // namespace quarn::monitor
