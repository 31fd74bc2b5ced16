#pragma once
// Which variables a model's monitor samples and how: every numeric variable the table
// marks for periodic refresh, read one get group per query. The table alone decides.

#include <string>
#include <vector>

#include "variable_io.h"

class ConfigParser;
struct VarInfo;

namespace varkel {

// A number type the sensor reports (not a date, a version or a text).
bool IsNumericVarType(const std::string& var_type);
// Timer-marked, numeric and readable.
bool IsMonitored(const VarInfo& var);

struct MonitorChannel {
  VarInfo* var = nullptr;
  std::string name;
  std::string unit;  // "°C", or empty for a counter
};

struct MonitorPlan {
  std::vector<MonitorChannel> channels;  // in the order the pages show them
  std::vector<ReadGroup> groups;         // one query each
};
MonitorPlan PlanMonitor(const ConfigParser& table);

// The table's unit (" (°C)") without its dressing.
std::string BareUnit(const VarInfo& var);
// The value text as a number; NaN when it is none.
double ValueNumber(const std::string& text);

}  // namespace varkel
