#pragma once
// A recording of monitored values as CSV: a header line `time,<Name> [<unit>],...,event`,
// one row per sample (time as ISO 8601 UTC with milliseconds, an empty cell for a value
// not read, an empty event cell), and one row per alert event with only the time and the
// event text. Every row goes to the file at once, so a crash loses nothing written; a
// failed write, or the file's folder gone, stops the recording with a message.

#include <cstdint>
#include <string>
#include <vector>

namespace quarn::monitor {

// "2026-11-26T02:30:05.042Z"
std::string IsoTimeMs(int64_t utc_ms);

// "Laser Temperature [°C]", or the bare name without a unit.
std::string ColumnTitle(const std::string& name, const std::string& unit);

class CsvRecorder {
 public:
  CsvRecorder() = default;
  ~CsvRecorder();
  CsvRecorder(const CsvRecorder&) = delete;
  CsvRecorder& operator=(const CsvRecorder&) = delete;

  // Creates (or empties) `path` and writes the header; false with the reason in error().
  bool Open(const std::string& path, const std::vector<std::string>& columns);
  // One value per column, NaN for a value not read. false once the recording has stopped.
  bool WriteSample(int64_t utc_ms, const std::vector<double>& values);
  bool WriteEvent(int64_t utc_ms, const std::string& text);
  void Close();

  bool recording() const { return fd_ >= 0; }
  const std::string& path() const { return path_; }
  // Why the recording stopped (empty while it runs or after a plain Close).
  const std::string& error() const { return error_; }
  uint64_t rows() const { return rows_; }

 private:
  bool WriteRow(const std::string& row);
  void Stop(const std::string& why);

  int fd_ = -1;
  std::string path_;
  size_t columns_ = 0;
  std::string error_;
  uint64_t rows_ = 0;
  uint64_t device_ = 0, inode_ = 0;
};

}  // namespace quarn::monitor
