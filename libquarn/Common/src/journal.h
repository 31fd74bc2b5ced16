#pragma once
// The change journal: one JSON line per change made to a sensor, appended to a file in the
// user's data folder by the window and every command-line run alike.
//
// Several processes append at once, so each line goes out as one write() on a descriptor
// opened with O_APPEND: lines never interleave. Rotation renames the files under a lock
// file taken without waiting; a process that finds the lock taken appends to the file it
// has, which at worst lands a whole line in the file just rotated. A journal that cannot
// be written warns once per process and never holds up or fails the change.

#include <cstdint>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

namespace quarn::journal {

// What a masked value is written as: the journal is read by people the secret is not for.
extern const char kMasked[];

// The sensor a change went to: its address (or serial port), model and serial number.
struct Site {
  std::string host;
  std::string model;
  std::string serial;
};

enum class Outcome { kOk, kRefused, kNoReply };

struct Change {
  std::string what;  // "set", "restore", "fov", "console", "restart", "reset", "upgrade", "parameter"
  std::string name;  // variable name, or the command as sent
  std::string id;    // variable id, when a variable
  std::optional<std::string> old_value;
  std::optional<std::string> new_value;
  Outcome outcome = Outcome::kOk;
  int code = 0;  // the sensor's return code when refused
};

// The outcome of an exchange from the client's return code: a negative code means the
// reply never came (or the request never went), a positive one is the sensor's refusal.
Outcome OutcomeOf(int ret, int code);

// The program writing, for every line of this process ("varkel-cli"); the version is the build's.
void SetProgram(const std::string& name);
std::string ProgramVersion();

// $XDG_DATA_HOME/varkel, else ~/.local/share/varkel.
std::string DefaultDirectory();

// The line for `change` at `time_ms` (milliseconds since the epoch), without newline.
nlohmann::ordered_json MakeEntry(const Site& site, const Change& change, int64_t time_ms);

class Writer {
 public:
  static constexpr uint64_t kRotateBytes = 10u * 1024 * 1024;
  static constexpr int kKeep = 5;
  explicit Writer(std::string directory, uint64_t rotate_bytes = kRotateBytes, int keep = kKeep);
  // One whole line (a newline is added). False with *error when it could not be written.
  bool Append(const std::string& line, std::string* error = nullptr);
  const std::string& directory() const { return directory_; }

 private:
  void RotateIfDue(int fd);
  std::string directory_;
  uint64_t rotate_bytes_;
  int keep_;
};

// Appends `change` to the journal in DefaultDirectory(), warning once per process when it
// cannot. Never throws.
void Record(const Site& site, const Change& change);

// "journal.jsonl" for 0, "journal.N.jsonl" for a rotated file.
std::string FileName(int generation);

// Milliseconds since the epoch of "2026-11-26", "2026-11-26T08:00", "2026-11-26T08:00:05"
// or "2026-11-26T08:00:05.123", with an optional "Z"; always UTC. Empty when it is none.
std::optional<int64_t> ParseTime(const std::string& text);
// "2026-11-26T08:00:05.123Z".
std::string FormatTime(int64_t time_ms);

struct Filter {
  std::optional<int64_t> since_ms;
  std::string host;    // empty: any
  std::string serial;  // empty: any
  size_t newest = 0;   // 0: every match; else only the newest this many (the rest never held)
};
// The entries of every journal file in `directory` that pass `filter`, oldest first. Lines
// that are no JSON object (a file cut by a full disk) are skipped and counted in *skipped.
std::vector<nlohmann::ordered_json> Read(const std::string& directory, const Filter& filter, size_t* skipped = nullptr);

}  // namespace quarn::journal
