// Writing variables: edits recorded by SetText and SetMultiFovConfig, applied per page by
// Run, one whole set payload per pending set command.

#include <QDateTime>
#include <QDebug>

#include <algorithm>
#include <array>
#include <memory>
#include <set>
#include <stdexcept>

#include "config_parser.h"
#include "hex_text.h"
#include "ktc_client.h"
#include "ktc_command_text.h"
#include "ktc_fov.h"
#include "manager_catalogue.h"
#include "number_text.h"
#include "str_parser.h"
#include "var_info.h"
#include "variable_io.h"
#include "varkel_manager.h"
#include "varkel_manager_host.h"

using quarn::lidar::KtcCommandText;

namespace {

const char kSetSuccess[] =
    "Set Lidar Successfully\nNote that if you have changed the TCP-related settings, you will need to restart the "
    "lidar for it to work.";

void Debug(const QString& text) {
  qDebug().noquote() << "VarkelManager::Run" + text;
}

}  // namespace

void VarkelManager::SetUpgrading(bool value) {
  if (is_upgrading_.exchange(value) != value) emit isUpgradingChanged();
}

void VarkelManager::StoreReadValue(VarInfo* var, const std::string& text) {
  // Same lock order as RecordEdit: check and store are one step against an edit.
  std::lock_guard<std::mutex> values(values_mutex_);
  // The sensor answered for this field even when the user's edit stays on the page.
  read_ms_[var->var_id] = QDateTime::currentMSecsSinceEpoch();
  values_version_.fetch_add(1);
  {
    // The user's edit waits for Run (or ClearSetMap); the lidar's older value must not
    // replace it on the page nor in the payload Run assembles.
    std::lock_guard<std::mutex> fields(fields_mutex_);
    if (edited_values_.count(var->var_id)) return;
  }
  var->current_val = text;
  from_sensor_.insert(var->var_id);
}

void VarkelManager::RecordEdit(VarInfo* var, const std::string& text) {
  // The value lock first, then the fields lock: the comparison, the store and the mark
  // are one step, so a refresh cannot slip its value in between.
  std::lock_guard<std::mutex> values(values_mutex_);
  if (var->current_val == text) return;
  var->current_val = text;
  from_sensor_.erase(var->var_id);
  values_version_.fetch_add(1);
  // A variable no command writes has nothing to wait for: reads may replace it.
  if (var->set_cmd.empty()) return;
  std::lock_guard<std::mutex> fields(fields_mutex_);
  edited_values_[var->var_id] = text;
  set_map_[var->set_cmd] = true;
}

void VarkelManager::SetText(int type, int level1, int level2, int level3, QString text) {
  auto catalogue = Catalogue();
  if (!catalogue || !catalogue->parser) return;
  const auto& modules = catalogue->parser->module_vars;
  if (level1 < 0 || level1 >= static_cast<int>(modules.size())) return;
  const auto& groups = modules[level1];
  if (level2 < 0 || level2 >= static_cast<int>(groups.size())) return;
  const auto& vars = groups[level2];
  if (level3 < 0 || level3 >= static_cast<int>(vars.size())) return;
  VarInfo* var = vars[level3];
  const std::string value = text.toStdString();

  switch (type) {
    case 1:
      RecordEdit(var, value);
      break;
    case 2:
      if (!var->switch_var) {
        setErrorMsg("config file error, Please check the configuration of type 2 of " +
                    QString::fromStdString(var->var_name));
        return;
      }
      RecordEdit(var->switch_var, value);
      break;
    case 3: {
      int index = -1;
      try {
        index = varkel::Stoi(value);
      } catch (const std::exception&) {
        // An exception cannot cross into QML: a text that is no index gets the message
        // of an index out of range.
        setErrorMsg(QString("Invalid switch value of type 3, please check the config file! name: ") +
                    QString::fromStdString(var->var_name));
        return;
      }
      if (index < 0 || index >= var->option_num || index >= static_cast<int>(var->options.size())) {
        setErrorMsg("Invalid switch value of type 3, please check the config file! name: " +
                    QString::fromStdString(var->var_name));
        return;
      }
      RecordEdit(var, std::to_string(var->options[static_cast<size_t>(index)]));
      break;
    }
    default:
      setErrorMsg("Invalid switch value of type , please check the config file! name: " +
                  QString::fromStdString(var->var_name));
      break;
  }
}

void VarkelManager::ClearSetMap() {
  ClearPendingWrites();
}

int VarkelManager::getSetMapSize() {
  std::lock_guard<std::mutex> lock(fields_mutex_);
  return static_cast<int>(set_map_.size());
}

void VarkelManager::SetMultiFovConfig(int index, QString fov) {
  if (index < 0 || index >= static_cast<int>(fov_.size())) return;
  bool ok = false;
  float value = 0.0f;
  try {
    value = varkel::Stof(fov.toStdString());
    // "12abc" converts by its prefix; a FOV field must hold the number alone.
    ok = varkel::IsNumberText(fov.toStdString());
  } catch (const std::exception&) {
    ok = false;
  }
  if (!ok || !(value >= 0.0f && value <= quarn::lidar::kFovMaxDegrees)) {
    setErrorMsg("Input value of fov is invalid");
    emit fovConfigChanged();  // the editor shows the stored value again
    return;
  }
  std::lock_guard<std::mutex> lock(fields_mutex_);
  fov_[static_cast<size_t>(index)] = value;
  fov_edited_[static_cast<size_t>(index)] = true;
  fov_read_ms_[static_cast<size_t>(index)] = 0;  // the user's number now, not the sensor's
  set_map_[varkel::kFovSetCmd] = true;
}

void VarkelManager::Run(int module) {
  auto catalogue = Catalogue();
  if (!catalogue || !catalogue->parser) return;
  auto client = KtcClientHandle();
  if (!client || !client->IsOpen() || !is_connected_.load()) {
    {
      std::lock_guard<std::mutex> lock(fields_mutex_);
      error_message_ = "Please connect to lidar first";
    }
    emit errorMessageChanged();
    return;
  }
  if (is_upgrading_.load()) {
    setErrorMsg("Please wait for the lidar to upgrade completely");
    return;
  }
  if (is_download_log_.load()) {
    setErrorMsg("Please wait for the operation log to download completely");
    return;
  }
  if (module < 0 || module >= static_cast<int>(catalogue->parser->module_vars.size())) return;

  try {
    WriteModule(module);
  } catch (const std::exception& e) {
    Debug(QString("(): Caught Exception: ") + e.what());
    {
      std::lock_guard<std::mutex> lock(fields_mutex_);
      error_message_ = std::string("Set Failed: ") + e.what();
    }
    emit errorMessageChanged();
  }
}

void VarkelManager::WriteModule(int module) {
  auto catalogue = Catalogue();  // keeps the records alive for the whole write
  ConfigParser& parser = *catalogue->parser;
  auto client = KtcClientHandle();
  if (!client) throw std::runtime_error("Please connect to lidar first");

  std::map<std::string, bool> pending;
  {
    std::lock_guard<std::mutex> lock(fields_mutex_);
    pending = set_map_;
  }

  // Set commands in the order the page meets them, the network one last.
  std::vector<VarInfo*> page;
  for (const auto& group : parser.module_vars[module]) page.insert(page.end(), group.begin(), group.end());
  const varkel::WritePlan plan = varkel::PlanWrite(parser, page, pending);

  TableHost host(*this);
  varkel::ExecuteWrite(
      host, *client, parser, plan, [this](const varkel::PreparedSet& set, const varkel::SendOutcome& outcome) {
        if (outcome.result == varkel::SendResult::kWritten && set.fov) {
          // The sensor holds the angles now: the next read may show its values in every box.
          std::lock_guard<std::mutex> lock(fields_mutex_);
          fov_edited_.fill(false);
        }
        if (outcome.result == varkel::SendResult::kWritten)
          emit sendLogMessage(
              QString::fromStdString("Send KTC command [" + set.set_cmd + "] to set " + set.names + " success."),
              "INFO");
        else if (outcome.result == varkel::SendResult::kFailed && !set.fov)
          emit sendLogMessage(QString::fromStdString("SET [" + set.set_cmd + "] FAILED"), "WARNING");
      });

  ClearPendingWrites();
  emit myMapChanged();
  setSuccessMsg(kSetSuccess);
}
