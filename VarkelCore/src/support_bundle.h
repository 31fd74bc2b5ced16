#pragma once
// The support bundle: one gzip tar archive with what a support engineer asks for first
// (the program's version and platform, its logs, the change journal, the settings file,
// and what the caller adds about the sensor). The parts are gathered in a private folder
// and packed by the tar program; the archive appears whole under its name or not at all.

#include <string>

namespace varkel {

class BundleStage {
 public:
  // Throws std::runtime_error when no private folder can be made.
  BundleStage();
  ~BundleStage();
  BundleStage(const BundleStage&) = delete;
  BundleStage& operator=(const BundleStage&) = delete;

  const std::string& dir() const { return dir_; }
  // A file of `text` at the relative path `name`, its folders made. Throws std::runtime_error.
  void Add(const std::string& name, const std::string& text);
  // version.txt, logs/ (the program's log files), journal/ (every journal file) and, when
  // `settings_file` exists, settings.ini with the values of secret-looking keys masked.
  void AddProgramParts(const std::string& program, const std::string& settings_file);
  // Packs every part into `archive`. Throws std::runtime_error with the reason; then no
  // file is left at `archive` or beside it.
  void Pack(const std::string& archive) const;

 private:
  std::string dir_;
};

// The settings text with the value of every key naming a password, secret or key
// material masked (a key's file name stays: it says where, not what).
std::string MaskSettings(const std::string& text);

}  // namespace varkel
