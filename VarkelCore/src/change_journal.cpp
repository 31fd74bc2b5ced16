#include "change_journal.h"

#include <iomanip>
#include <locale>
#include <sstream>

#include "config_parser.h"
#include "ktc_client.h"
#include "value_text.h"
#include "var_info.h"

namespace varkel {

namespace journal = quarn::journal;

namespace {

std::string ModelOf(const std::string& table_path) {
  const size_t slash = table_path.find_last_of('/');
  std::string name = slash == std::string::npos ? table_path : table_path.substr(slash + 1);
  const size_t dot = name.rfind('.');
  return dot == std::string::npos ? name : name.substr(0, dot);
}

// Angles as the window shows them, whatever the locale of the program.
std::string AngleText(float angle) {
  std::ostringstream text;
  text.imbue(std::locale::classic());
  text << std::fixed << std::setprecision(2) << angle;
  return text.str();
}

std::string Shown(const VarInfo& var, const std::string& text) {
  return var.var_type == "raw" ? std::string(journal::kMasked) : text;
}

}  // namespace

std::string ModelOfTable(const ConfigParser& parser) {
  return ModelOf(parser.file_path);
}

journal::Site ChangeSite(TableHost& host, quarn::lidar::KtcClient& client, ConfigParser& parser) {
  journal::Site site{client.GetLidarIp(), ModelOf(parser.file_path), ""};
  if (VarInfo* sn = parser.FindByName("SN")) {
    if (sn->get_cmd.empty() || host.FromSensor(*sn)) {
      site.serial = host.Value(*sn);
    } else {
      // Nothing read it on this connection: the text in hand may be the table's default
      // or another unit's, and a line naming another unit is worse than none.
      try {
        if (ReadGroupValues(host, client, parser, {sn}) > 0) site.serial = host.Value(*sn);
      } catch (const std::exception&) {
      }
    }
  }
  return site;
}

std::vector<journal::Change> SetChanges(TableHost& host, const ConfigParser& parser, const PreparedSet& set,
                                        const ReadBytes& fresh, const std::string& what) {
  std::vector<journal::Change> changes;
  if (set.fov) {
    std::string angles;
    for (float angle : set.fov_values) angles += (angles.empty() ? "" : ", ") + AngleText(angle);
    journal::Change change{"fov", set.names, "", {}, {}, journal::Outcome::kOk, 0};
    change.new_value = "channel " + std::to_string(set.fov_channel) + ": " + angles;
    changes.push_back(change);
    return changes;
  }
  const auto carried = parser.set_cmd_map.find(set.set_cmd);
  if (carried == parser.set_cmd_map.end()) return changes;
  for (const VarInfo* var : carried->second) {
    if (!host.Edited(*var)) continue;
    journal::Change change{what, var->var_name, var->var_id, {}, {}, journal::Outcome::kOk, 0};
    const auto read = fresh.find(var->var_id);
    if (read != fresh.end()) {
      const ValueText old_text = BytesToValueText(var->var_type, read->second, var->coefficient);
      if (old_text.ok) change.old_value = Shown(*var, old_text.text);
    }
    change.new_value = Shown(*var, host.Value(*var));
    changes.push_back(change);
  }
  return changes;
}

void RecordSet(const journal::Site& site, std::vector<journal::Change> changes, const SendOutcome& outcome) {
  for (journal::Change& change : changes) {
    switch (outcome.result) {
      case SendResult::kWritten:
        change.outcome = journal::Outcome::kOk;
        break;
      case SendResult::kReplyLost:
        change.outcome = journal::Outcome::kNoReply;
        break;
      case SendResult::kFailed:
        change.outcome = journal::OutcomeOf(-1, outcome.code);
        change.code = outcome.code;
        break;
    }
    journal::Record(site, change);
  }
}

void RecordExchange(const journal::Site& site, const std::string& what, const std::string& name, int ret, int code) {
  journal::Record(site, {what, name, "", {}, {}, journal::OutcomeOf(ret, code), code});
}

}  // namespace varkel
