// What the data-stream page asks of the controller: the sensor's destination variables,
// read now, and a write of them through the page's own Save road, read back after.

#include <QString>

#include "config_parser.h"
#include "manager_catalogue.h"
#include "stream_monitor_model.h"
#include "var_info.h"
#include "varkel_manager.h"

QObject* VarkelManager::getStreamMonitor() {
  // Made on first use by the page, on the UI thread; a child, so the controller deletes it.
  if (!stream_monitor_) stream_monitor_ = new StreamMonitorModel(*this, this);
  return stream_monitor_;
}

std::optional<std::string> VarkelManager::ReadNamedValue(const std::string& name) {
  VarInfo* var = searchVarPtr(name, "var_name");
  if (!var || var->get_cmd.empty() || !is_connected_.load()) return std::nullopt;
  if (!GetInfoFromLidar(var)) return std::nullopt;
  return ValueOf(var);
}

std::string VarkelManager::WriteNamedValues(const std::vector<std::pair<std::string, std::string>>& values) {
  auto catalogue = Catalogue();
  if (!catalogue || !catalogue->parser) return "no model table is loaded";
  const ConfigParser& parser = *catalogue->parser;
  // Each variable is written with the page that shows it, as its Save would.
  std::vector<int> modules;
  for (const auto& [name, value] : values) {
    VarInfo* var = searchVarPtr(name, "var_name");
    if (!var || var->set_cmd.empty()) return "the table has no writable \"" + name + "\"";
    int found = -1;
    for (size_t m = 0; m < parser.module_vars.size() && found < 0; ++m)
      for (const auto& group : parser.module_vars[m])
        if (std::find(group.begin(), group.end(), var) != group.end()) found = static_cast<int>(m);
    if (found < 0) return "\"" + name + "\" is on no page";
    RecordEdit(var, value);
    if (std::find(modules.begin(), modules.end(), found) == modules.end()) modules.push_back(found);
  }
  for (int m : modules) {
    try {
      WriteModule(m);
    } catch (const std::exception& e) {
      ClearPendingWrites();
      return std::string("Set Failed: ") + e.what();
    }
  }
  for (const auto& [name, value] : values) {
    const auto back = ReadNamedValue(name);
    if (!back) return "could not read \"" + name + "\" back";
    if (*back != value) return "the sensor holds \"" + name + "\" = " + *back + ", not " + value;
  }
  return std::string();
}
