// Writing variables: edits recorded by SetText and SetMultiFovConfig, applied per page by
// Run, one whole set payload per pending set command.

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
#include "varkel_manager.h"

using quarn::lidar::KtcCommandText;

namespace {

// Network settings: a changed address makes the lidar's reply go astray, so this command
// is written last and a reply lost on the way (-2) counts as written.
const char kNetworkSetCmd[] = "0x21";
const char kFovSetCmd[] = "0x22";
const char kSetSuccess[] =
    "Set Lidar Successfully\nNote that if you have changed the TCP-related settings, you will need to restart the "
    "lidar for it to work.";

// One command of the send list with everything needed to send it, made before anything
// goes out so that a value the codecs refuse stops the write while nothing is written.
struct PreparedSet {
  std::string set_cmd;
  KtcCommandText command;
  std::vector<uint8_t> payload;  // the request payload (code ahead for extended commands)
  std::string names;             // the variables it carries, joined by ", "
  bool fov = false;
  uint8_t fov_channel = 0;
  std::array<float, quarn::lidar::kFovRanges> fov_values{};
};

// The variables a set command carries, in payload order. The table is shared with the
// reading threads, so it is only ever looked up, never added to.
const std::vector<VarInfo*>& CarriedBy(const ConfigParser& parser, const std::string& set_cmd) {
  static const std::vector<VarInfo*> kNone;
  auto it = parser.set_cmd_map.find(set_cmd);
  return it == parser.set_cmd_map.end() ? kNone : it->second;
}

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
  {
    // The user's edit waits for Run (or ClearSetMap); the lidar's older value must not
    // replace it on the page nor in the payload Run assembles.
    std::lock_guard<std::mutex> fields(fields_mutex_);
    if (edited_values_.count(var->var_id)) return;
  }
  var->current_val = text;
  values_version_.fetch_add(1);
}

void VarkelManager::RecordEdit(VarInfo* var, const std::string& text) {
  // The value lock first, then the fields lock: the comparison, the store and the mark
  // are one step, so a refresh cannot slip its value in between.
  std::lock_guard<std::mutex> values(values_mutex_);
  if (var->current_val == text) return;
  var->current_val = text;
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
  set_map_[kFovSetCmd] = true;
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

  // Gathering: set commands in the order the page meets them, the network one last;
  // the variables each carries, grouped by how they are read.
  std::vector<std::string> send_list;
  bool network_pending = false;
  std::map<std::string, std::vector<VarInfo*>> read_groups;
  std::vector<std::string> read_order;
  std::set<const VarInfo*> in_read_groups;
  for (const auto& group : parser.module_vars[module]) {
    for (VarInfo* var : group) {
      if (var->set_cmd.empty() || !pending.count(var->set_cmd)) continue;
      if (var->set_cmd == kNetworkSetCmd) {
        network_pending = true;
      } else if (std::find(send_list.begin(), send_list.end(), var->set_cmd) == send_list.end()) {
        send_list.push_back(var->set_cmd);
      }
      for (VarInfo* carried : CarriedBy(parser, var->set_cmd)) {
        if (carried->get_cmd.empty() || !in_read_groups.insert(carried).second) continue;
        const std::string key = carried->get_cmd + " " + carried->get_cmd_payload;
        if (!read_groups.count(key)) read_order.push_back(key);
        read_groups[key].push_back(carried);
      }
    }
  }
  if (network_pending) send_list.push_back(kNetworkSetCmd);

  // Refresh: the untouched fields take the lidar's present values (edits are kept, see
  // StoreReadValue). A payload must never carry a stale field, so a failed read stops
  // the write before anything is sent.
  for (const std::string& key : read_order) {
    if (GetInfoFromLidarWithSameCmd(read_groups[key], false) < 0)
      throw std::invalid_argument("could not read the present values for " + key + " before writing");
  }

  // Assembly of every payload first: a refused value stops the write with nothing sent.
  std::vector<PreparedSet> prepared;
  for (const std::string& set_cmd : send_list) {
    PreparedSet set;
    set.set_cmd = set_cmd;
    const std::vector<VarInfo*>& vars = CarriedBy(parser, set_cmd);
    for (const VarInfo* var : vars) set.names += (set.names.empty() ? "" : ", ") + var->var_name;

    if (set_cmd == kFovSetCmd) {
      set.fov = true;
      const std::string channel = vars.empty() ? std::string() : ValueOf(vars.front());
      int value = -1;
      try {
        value = varkel::Stoi(channel);
      } catch (const std::exception&) {
      }
      if (value < 0 || value > 0xFF) throw std::invalid_argument("set channel fov failed");
      set.fov_channel = static_cast<uint8_t>(value);
      {
        std::lock_guard<std::mutex> lock(fields_mutex_);
        std::copy_n(fov_.begin(), quarn::lidar::kFovRanges, set.fov_values.begin());
      }
      prepared.push_back(std::move(set));
      continue;
    }

    std::string error;
    if (!quarn::lidar::ParseKtcCommandText(set_cmd, set.command, &error))
      throw std::invalid_argument("bad set command \"" + set_cmd + "\": " + error);

    uint32_t length = 0;
    for (const VarInfo* var : vars) length = std::max(length, var->set_start_pos + var->var_len);
    std::vector<uint8_t> fields(length, 0);
    for (VarInfo* var : vars) {
      const std::string value = ValueOf(var);
      std::unique_ptr<StrParser> codec = MakeStrParser(var->var_type);
      if (!codec) {
        Debug("(): This var_type \"" + QString::fromStdString(var->var_type) + "\" is not supported currently.");
        Debug(QString::fromStdString("strParser == nullptr, var_name:" + var->var_name + ", var_type:" + var->var_type +
                                     ", current_val:" + value));
        throw std::invalid_argument("Error with var type");
      }
      if (var->get_cmd.empty() && var->var_type != "raw")
        throw std::invalid_argument(
            "There are undefined cases in the csv config file where there is a line with 'set' and no 'get', but "
            "the var_type is not 'raw'.");
      if (value.empty() && var->var_type != "raw")
        throw std::invalid_argument("Unknown error with this var: It has no current_val. var_name = " + var->var_name);
      const std::vector<uint8_t> bytes = codec->ParseToBytes(value, var->set_coefficient);

      std::pair<uint32_t, uint32_t> pos{0, 0};
      bool found;
      {
        std::lock_guard<std::mutex> lock(values_mutex_);
        found = parser.GetVarPosOffset(set_cmd, var->var_id, static_cast<uint32_t>(fields.size()), pos);
      }
      if (!found) throw std::invalid_argument("no set position for " + var->var_name);
      if (bytes.size() > pos.second || static_cast<uint64_t>(pos.first) + pos.second > fields.size())
        throw std::invalid_argument(var->var_name + ": " + std::to_string(bytes.size()) +
                                    " bytes do not fit its field of " + std::to_string(pos.second));
      // Big-endian values narrower than their field keep the leading bytes zero.
      std::copy(bytes.begin(), bytes.end(), fields.begin() + pos.first + (pos.second - bytes.size()));
    }
    set.payload = quarn::lidar::BuildCommandPayload(set.command, fields);
    prepared.push_back(std::move(set));
  }

  // Writing, in order; a failure stops here and what was written stays written.
  for (const PreparedSet& set : prepared) {
    if (set.fov) {
      if (quarn::lidar::SetChannelFov(*client, set.fov_channel, set.fov_values) != 0)
        throw std::invalid_argument("set channel fov failed");
      emit sendLogMessage(
          QString::fromStdString("Send KTC command [" + set.set_cmd + "] to set " + set.names + " success."), "INFO");
      continue;
    }
    Debug(QString("(): QueryCommand send cmd:    ") + QString::fromStdString(set.set_cmd));
    Debug(QString("(): QueryCommand send payload:") + QString::fromStdString(quarn::lidar::ToHexSpaced(set.payload)) +
          ", length =" + QString::number(set.payload.size()));
    std::vector<uint8_t> result;
    const int ret = client->QueryCommand(set.payload, result, set.command.cmd);
    const QString result_text = QString::fromStdString(quarn::lidar::ToHexSpaced(result));
    if (ret == 0) {
      Debug("(): QueryCommand SUCCESS, get result =" + result_text);
      emit sendLogMessage(
          QString::fromStdString("Send KTC command [" + set.set_cmd + "] to set " + set.names + " success."), "INFO");
      continue;
    }
    Debug("(): QueryCommand FAILED, get result =" + result_text);
    const int code = client->GetLastReturnCode();
    if (set.set_cmd == kNetworkSetCmd && code == quarn::lidar::kKtcHeaderReadFailed) continue;
    emit sendLogMessage(QString::fromStdString("SET [" + set.set_cmd + "] FAILED"), "WARNING");
    throw std::invalid_argument(set.set_cmd + " SET " + " ret_code: " + std::to_string(code));
  }

  ClearPendingWrites();
  emit myMapChanged();
  setSuccessMsg(kSetSuccess);
}
