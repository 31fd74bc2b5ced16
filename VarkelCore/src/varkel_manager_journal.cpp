// The controller's side of the change journal: the sensor a change goes to, the History
// page's model, and the connected sensor's part of a support bundle.

#include <ctime>

#include <nlohmann/json.hpp>

#include "change_journal.h"
#include "journal_history.h"
#include "manager_catalogue.h"
#include "support_bundle.h"
#include "var_info.h"
#include "varkel_manager.h"
#include "varkel_manager_host.h"

quarn::journal::Site VarkelManager::JournalSite() {
  auto catalogue = Catalogue();
  auto client = KtcClientHandle();
  if (connect_type_.load() == 0 && client && catalogue && catalogue->parser) {
    TableHost host(*this);
    return varkel::ChangeSite(host, *client, *catalogue->parser);
  }
  // Over a serial line the port names the sensor; the small sensors report their serial number.
  quarn::journal::Site site{getSerialPort485().toStdString(), "", getLidarSN().toStdString()};
  if (catalogue && catalogue->parser) site.model = varkel::ModelOfTable(*catalogue->parser);
  if (site.serial.empty()) {
    std::lock_guard<std::mutex> lock(fields_mutex_);
    site.serial = small_lidar_texts_[1];
  }
  return site;
}

QObject* VarkelManager::history() {
  if (history_) return history_;
  history_ = new JournalHistory(this);
  // The values the window last read, in the shape of a backup: a bundle never waits on the sensor.
  history_->SetSensorParts([this](varkel::BundleStage& stage) {
    auto catalogue = Catalogue();
    if (!is_connected_.load() || !catalogue || !catalogue->parser) return;
    using Json = nlohmann::ordered_json;
    const std::string model = varkel::ModelOfTable(*catalogue->parser);
    Json variables = Json::array(), versions = Json::object();
    std::string serial, part, firmware;
    {
      std::lock_guard<std::mutex> lock(values_mutex_);
      for (const VarInfo* var : catalogue->parser->records()) {
        if (var->get_cmd.empty() || var->var_type == "raw" || var->component_type == 6) continue;
        variables.push_back(Json{{"id", var->var_id},
                                 {"name", var->var_name},
                                 {"type", var->var_type},
                                 {"value", var->current_val},
                                 {"writable", var->permission != 0 && !var->set_cmd.empty()}});
        if (var->var_type == "HWVER" || var->var_type == "SWVER_YMD") versions[var->var_name] = var->current_val;
        if (var->var_name == "SN") serial = var->current_val;
        if (var->var_name == "PN") part = var->current_val;
        if (var->var_name == "Firmware Version") firmware = var->current_val;
      }
    }
    char stamp[32];
    const std::time_t now = std::time(nullptr);
    std::tm utc{};
    gmtime_r(&now, &utc);
    std::strftime(stamp, sizeof stamp, "%Y-%m-%dT%H:%M:%SZ", &utc);
    stage.Add("sensor/versions.json",
              Json{{"model", model}, {"serial_number", serial}, {"part_number", part}, {"versions", versions}}.dump(2) +
                  "\n");
    stage.Add("sensor/backup.json", Json{{"format", "varkel-backup"},
                                         {"version", 1},
                                         {"model", model},
                                         {"serial_number", serial},
                                         {"firmware_version", firmware},
                                         {"time", stamp},
                                         {"variables", variables}}
                                            .dump(2) +
                                        "\n");
  });
  return history_;
}
