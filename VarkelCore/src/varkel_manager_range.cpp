// Range checks of the values the user entered, before they are written. They judge the
// value texts of the table only and send nothing.

#include <QDebug>

#include <cmath>
#include <limits>
#include <stdexcept>

#include "config_parser.h"
#include "manager_catalogue.h"
#include "number_text.h"
#include "var_info.h"
#include "variable_io.h"
#include "varkel_manager.h"

bool VarkelManager::CheckVarIsWithinRange(QString qs_var_info, QString search_type) {
  auto catalogue = Catalogue();  // keeps the record alive
  const VarInfo* var = searchVarPtr(qs_var_info.toStdString(), search_type.toStdString());
  if (!var) {
    // An unknown variable never blocks a write.
    qDebug().noquote() << "VarkelManager::CheckVarIsWithinRange"
                       << " Can't find this var info for range check. var_info =" << qs_var_info;
    return true;
  }
  if (var->var_type == "string") return true;
  // A range with a bound of 0 (0 to 100) is not checked at all; tables rely on it.
  if (var->range_min == 0 || var->range_max == 0) return true;
  try {
    const float scaled = varkel::Stof(ValueOf(var)) * var->set_coefficient;
    if (!(std::fabs(scaled) < 2147483648.0f)) throw std::out_of_range("value beyond a 32-bit integer");
    const auto value = static_cast<int32_t>(scaled);
    return !(var->range_min > value || value > var->range_max);
  } catch (const std::out_of_range& e) {
    qDebug().noquote() << "VarkelManager::CheckVarIsWithinRange"
                       << " Out of range: " << e.what();
  } catch (const std::invalid_argument& e) {
    qDebug().noquote() << "VarkelManager::CheckVarIsWithinRange"
                       << " Invalid argument: " << e.what();
  }
  return false;
}

bool VarkelManager::CheckModuleVarsWithinRange(int module) {
  auto catalogue = Catalogue();
  if (!catalogue || !catalogue->parser) return true;
  const auto& modules = catalogue->parser->module_vars;
  if (module < 0 || module >= static_cast<int>(modules.size())) return true;

  bool result = true;
  try {
    for (const auto& group : modules[module]) {
      for (const VarInfo* var : group) {
        if (var->permission == 0 || var->var_type == "string") continue;
        const std::string value = ValueOf(var);
        const QString name = QString::fromStdString(var->var_name);
        const QString shown = QString::fromStdString(value);
        const varkel::RangeVerdict verdict = varkel::CheckValueRange(*var, value);
        if (verdict == varkel::RangeVerdict::kOk) continue;
        if (verdict == varkel::RangeVerdict::kBadIp) {
          emit sendLogMessage("Detected that the user set " + name + " has invalid IP format", "WARNING");
          emit someVarOutOfRange(name);
          qDebug().noquote() << "VarkelManager::CheckModuleVarsWithinRange"
                             << ": detected that" << name << "has invalid IP format:" << shown;
          result = false;
          continue;
        }
        if (verdict == varkel::RangeVerdict::kBadMac) {
          emit sendLogMessage("Detected that the user set " + name + " has invalid MAC format", "WARNING");
          emit someVarOutOfRange(name);
          qDebug().noquote() << "VarkelManager::CheckModuleVarsWithinRange"
                             << ": detected that" << name << "has invalid MAC format:" << shown;
          result = false;
          continue;
        }
        emit sendLogMessage("Detected that the user set " + name + " is out of range", "WARNING");
        emit someVarOutOfRange(name);
        qDebug().noquote() << "VarkelManager::CheckModuleVarsWithinRange"
                           << ": detected that" << name << "is out of range";
        result = false;
      }
    }
  } catch (const std::out_of_range& e) {
    qDebug().noquote() << "VarkelManager::CheckModuleVarsWithinRange"
                       << " Out of range: " << e.what();
    result = false;
  } catch (const std::invalid_argument& e) {
    qDebug().noquote() << "VarkelManager::CheckModuleVarsWithinRange"
                       << " Invalid argument: " << e.what();
    result = false;
  }
  return result;
}
