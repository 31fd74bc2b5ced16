#pragma once
// How the shared reads and writes (variable_io.h) reach the controller's table: values under
// its value lock, reads that keep the user's pending edits, the edited field-of-view
// angles, and diagnostics on Qt's debug output. Private to the controller's sources.

#include <QDebug>

#include <algorithm>
#include <mutex>

#include "config_parser.h"
#include "ktc_command_text.h"
#include "ktc_fov.h"
#include "variable_io.h"
#include "varkel_manager.h"

class VarkelManager::TableHost : public varkel::TableHost {
 public:
  explicit TableHost(VarkelManager& manager) : m_(manager) {}

  std::string Value(const VarInfo& var) override { return m_.ValueOf(&var); }
  bool Edited(const VarInfo& var) override {
    std::lock_guard<std::mutex> lock(m_.fields_mutex_);
    return m_.edited_values_.count(var.var_id) != 0;
  }
  void StoreRead(VarInfo& var, const std::string& text) override { m_.StoreReadValue(&var, text); }
  bool FromSensor(const VarInfo& var) override {
    std::lock_guard<std::mutex> lock(m_.values_mutex_);
    return m_.from_sensor_.count(var.var_id) != 0;
  }
  bool Position(ConfigParser& parser, const std::string& cmd, const std::string& var_id, uint32_t payload_length,
                std::pair<uint32_t, uint32_t>& pos) override {
    std::lock_guard<std::mutex> lock(m_.values_mutex_);
    return parser.GetVarPosOffset(cmd, var_id, payload_length, pos);
  }
  // Through the controller's own group read, with its log lines and edit keeping.
  // The field-of-view write carries five start angles besides its channel: the multi-range
  // read brings the boxes the user did not edit up to date, as any other carried field.
  int Refresh(quarn::lidar::KtcClient&, ConfigParser&, const std::vector<VarInfo*>& vars,
              varkel::ReadBytes& fresh) override {
    quarn::lidar::KtcCommandText command;
    if (quarn::lidar::ParseKtcCommandText(vars.front()->get_cmd, command) && !command.extended &&
        command.cmd == quarn::lidar::kKtcFovReadCmd)
      return m_.ReadFov(vars);
    return m_.QueryAndCut("GetInfoFromLidarWithSameCmd", vars, false, &fresh);
  }
  std::array<float, quarn::lidar::kFovRanges> FovValues() override {
    std::array<float, quarn::lidar::kFovRanges> values{};
    std::lock_guard<std::mutex> lock(m_.fields_mutex_);
    std::copy_n(m_.fov_.begin(), quarn::lidar::kFovRanges, values.begin());
    return values;
  }
  void Trace(const std::string& text) override {
    qDebug().noquote() << QString::fromStdString("VarkelManager::Run" + text);
  }

 private:
  VarkelManager& m_;
};
