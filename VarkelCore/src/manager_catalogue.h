#pragma once
// The loaded model as the controller holds it: the table plus what the controller derives
// from it. Swapped whole on a model change; readers keep a copy of the shared pointer, so
// the records they hold stay valid until they let go.

#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <utility>
#include <vector>

class ConfigParser;

namespace varkel {

struct ManagerCatalogue {
  std::string model;
  // Null when no table is loaded (none chosen yet, or the table failed to load).
  std::shared_ptr<ConfigParser> parser;
  // Names of the logs the log page offers besides the operation log.
  std::vector<std::string> log_names;

  // True the first time a refresh round reports a cutting fault of `var_id`, so a bad
  // row does not flood the log pane ten times a second.
  bool FirstTimerFault(const std::string& var_id) const {
    std::lock_guard<std::mutex> lock(reported_mutex_);
    return reported_.insert(var_id).second;
  }

 private:
  mutable std::mutex reported_mutex_;
  mutable std::set<std::string> reported_;
};

// The standalone variables (kept off the pages) named "... Log"/"... log", other than
// the operation log, which has a row of its own: each is a log the user can download.
std::vector<std::string> DownloadableLogNames(const ConfigParser& parser);

// The two spellings CheckVarExistsInConfigFileByName tries: each word's first letter in
// upper case ("operation log" -> "Operation Log"), then all in lower case.
std::pair<std::string, std::string> NameCaseForms(const std::string& name);

}  // namespace varkel
