// The controller's side of the change journal: the sensor a change goes to, the History
// page's model, and the connected sensor's part of a support bundle.

#include <nlohmann/json.hpp>

#include "backup_file.h"
#include "change_journal.h"
#include "config_parser.h"
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
    const ConfigParser& table = *catalogue->parser;
    Json backup, versions = Json::object();
    {
      std::lock_guard<std::mutex> lock(values_mutex_);
      backup = varkel::BackupJson(table, varkel::ModelOfTable(table), varkel::BackedUp(table));
      for (const VarInfo* var : table.records())
        if (var->var_type == "HWVER" || var->var_type == "SWVER_YMD") versions[var->var_name] = var->current_val;
    }
    const VarInfo* part = table.FindByName("PN");
    stage.Add("sensor/versions.json", Json{{"model", backup["model"]},
                                           {"serial_number", backup["serial_number"]},
                                           {"part_number", part ? ValueOf(part) : std::string()},
                                           {"versions", versions}}
                                              .dump(2) +
                                          "\n");
    stage.Add("sensor/backup.json", backup.dump(2) + "\n");
  });
  return history_;
}
