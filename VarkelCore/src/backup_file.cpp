#include "backup_file.h"

#include <ctime>

#include "config_parser.h"
#include "var_info.h"

namespace varkel {

const char kBackupFormat[] = "varkel-backup";

bool IsReadable(const VarInfo& var) {
  return !var.get_cmd.empty() && var.var_type != "raw" && var.component_type != 6;
}

bool IsWritable(const VarInfo& var) {
  static const char* const kReadOnlyTypes[] = {"raw", "string", "HWVER", "SWVER_YMD", "DT"};
  if (var.permission == 0 || var.set_cmd.empty() || var.get_cmd.empty()) return false;
  for (const char* type : kReadOnlyTypes)
    if (var.var_type == type) return false;
  return true;
}

std::vector<const VarInfo*> BackedUp(const ConfigParser& table) {
  std::vector<const VarInfo*> vars;
  for (const VarInfo* var : table.records())
    if (IsReadable(*var)) vars.push_back(var);
  return vars;
}

nlohmann::ordered_json BackupJson(const ConfigParser& table, const std::string& model,
                                  const std::vector<const VarInfo*>& vars) {
  using Json = nlohmann::ordered_json;
  const auto text_of = [&](const char* name) {
    const VarInfo* var = table.FindByName(name);
    return var ? var->current_val : std::string();
  };
  char stamp[32];
  const std::time_t now = std::time(nullptr);
  std::tm utc{};
  gmtime_r(&now, &utc);
  std::strftime(stamp, sizeof stamp, "%Y-%m-%dT%H:%M:%SZ", &utc);
  Json variables = Json::array();
  for (const VarInfo* var : vars)
    variables.push_back(Json{{"id", var->var_id},
                             {"name", var->var_name},
                             {"type", var->var_type},
                             {"value", var->current_val},
                             {"writable", IsWritable(*var)}});
  return Json{{"format", kBackupFormat},
              {"version", kBackupVersion},
              {"model", model},
              {"serial_number", text_of("SN")},
              {"firmware_version", text_of("Firmware Version")},
              {"time", stamp},
              {"variables", variables}};
}

}  // namespace varkel
