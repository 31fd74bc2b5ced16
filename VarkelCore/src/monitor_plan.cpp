#include "monitor_plan.h"

#include <cmath>
#include <cstdlib>
#include <set>

#include "config_parser.h"
#include "var_info.h"

namespace varkel {

bool IsNumericVarType(const std::string& var_type) {
  static const std::set<std::string> kNumeric = {"uint8", "uint16", "uint32", "uint64",  "int8",
                                                 "int16", "int32",  "int64",  "float32", "double"};
  return kNumeric.count(var_type) != 0;
}

bool IsMonitored(const VarInfo& var) {
  return var.timer_update && !var.get_cmd.empty() && IsNumericVarType(var.var_type);
}

std::string BareUnit(const VarInfo& var) {
  const std::string& u = var.unit;
  if (u.size() >= 3 && u.compare(0, 2, " (") == 0 && u.back() == ')') return u.substr(2, u.size() - 3);
  return u;
}

double ValueNumber(const std::string& text) {
  if (text.empty()) return NAN;
  char* end = nullptr;
  const double value = std::strtod(text.c_str(), &end);
  return end && *end == '\0' && std::isfinite(value) ? value : NAN;
}

MonitorPlan PlanMonitor(const ConfigParser& table) {
  MonitorPlan plan;
  std::set<const VarInfo*> seen;
  std::vector<VarInfo*> vars;
  auto take = [&](VarInfo* var) {
    if (!IsMonitored(*var) || !seen.insert(var).second) return;
    vars.push_back(var);
    plan.channels.push_back(MonitorChannel{var, var->var_name, BareUnit(*var)});
  };
  for (const auto& page : table.module_vars)
    for (const auto& group : page)
      for (VarInfo* var : group) take(var);
  for (VarInfo* var : table.records()) take(var);
  plan.groups = GroupForReading(vars);
  return plan;
}

}  // namespace varkel
