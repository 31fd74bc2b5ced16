// models, info, get, set, backup and diff: the variables of the table, read and written
// with the window's reads, codecs, range checks and write order.

#include <algorithm>
#include <cctype>
#include <cmath>
#include <fstream>
#include <iomanip>
#include <memory>
#include <set>

#include "atomic_file.h"
#include "commands.h"
#include "commands_shared.h"
#include "number_text.h"
#include "str_parser.h"
#include "var_info.h"

namespace varkel::cli {

// Helpers used here only are static; the others are shared with restore (commands_shared.h).

static std::string Lower(std::string text) {
  for (char& c : text) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return text;
}

bool SameValue(const std::string& a, const std::string& b) {
  if (a == b) return true;
  if (!IsNumberText(a) || !IsNumberText(b)) return false;
  try {
    return std::fabs(Stod(a) - Stod(b)) < 0.005;
  } catch (const std::exception&) {
    return false;
  }
}

static Json VarJson(const VarInfo& var) {
  return Json{{"id", var.var_id},
              {"name", var.var_name},
              {"type", var.var_type},
              {"value", var.current_val},
              {"writable", IsWritable(var)}};
}

std::vector<VarInfo*> WalkOrder(const ConfigParser& table) {
  std::vector<VarInfo*> walk;
  std::set<const VarInfo*> seen;
  for (const auto& page : table.module_vars)
    for (const auto& group : page)
      for (VarInfo* var : group)
        if (seen.insert(var).second) walk.push_back(var);
  for (VarInfo* var : table.records())
    if (seen.insert(var).second) walk.push_back(var);
  return walk;
}

// Characters, not bytes: units such as "°C" are UTF-8.
static size_t Columns(const std::string& text) {
  size_t n = 0;
  for (unsigned char c : text) n += (c & 0xC0) != 0x80;
  return n;
}

void PrintTable(std::ostream& out, const std::vector<std::vector<std::string>>& rows) {
  std::vector<size_t> width;
  for (const auto& row : rows)
    for (size_t i = 0; i < row.size(); ++i) {
      if (width.size() <= i) width.push_back(0);
      width[i] = std::max(width[i], Columns(row[i]));
    }
  for (const auto& row : rows) {
    std::string line;
    for (size_t i = 0; i < row.size(); ++i)
      line += i + 1 < row.size() ? row[i] + std::string(width[i] - Columns(row[i]) + 2, ' ') : row[i];
    while (!line.empty() && line.back() == ' ') line.pop_back();
    out << line << "\n";
  }
}

static std::string FirstOf(const ConfigParser& table, std::initializer_list<const char*> names) {
  for (const char* name : names)
    if (const VarInfo* var = table.FindByName(name)) return var->current_val;
  return "";
}

void ReadOrFail(Session& session, const std::vector<VarInfo*>& vars) {
  const auto failures = session.Read(vars);
  if (failures.empty()) return;
  const VarInfo* var = session.table().FindById(failures.begin()->first);
  throw CliError(kExitSensor, "could not read " + var->var_name + ": " + failures.begin()->second);
}

// The value of a combo may be given by its label ("20 Hz") as the window shows it.
static std::string OptionValue(const VarInfo& var, const std::string& text) {
  for (const auto& [value, label] : var.option_labels)
    if (!label.empty() && Lower(label) == Lower(text)) return std::to_string(value);
  return text;
}

void CheckChange(const Change& change, bool force) {
  const VarInfo& var = *change.var;
  if (var.var_type == "raw" && var.permission != 0 && !var.set_cmd.empty())
    throw CliError(kExitBadInput, var.var_name + " cannot be written: its bytes are not defined for this model");
  if (!IsWritable(var)) throw CliError(kExitBadInput, var.var_name + " cannot be written");
  if (!force) {
    const std::string what = var.var_name + ": " + change.value;
    try {
      switch (CheckValueRange(var, change.value)) {
        case RangeVerdict::kOk:
          break;
        case RangeVerdict::kBadIp:
          throw CliError(kExitBadInput, what + " is no IP address");
        case RangeVerdict::kBadMac:
          throw CliError(kExitBadInput, what + " is no MAC address");
        case RangeVerdict::kOutOfRange:
          throw CliError(kExitBadInput, what + " is out of range " + std::to_string(var.range_min) + "~" +
                                            std::to_string(var.range_max) + " (--force to write it anyway)");
      }
    } catch (const std::invalid_argument&) {
      throw CliError(kExitBadInput, what + " is not an integer");
    } catch (const std::out_of_range&) {
      throw CliError(kExitBadInput, what + " is out of range (--force to write it anyway)");
    }
    if (var.component_type == 3 && !var.options.empty()) {
      bool listed = false;
      for (int32_t option : var.options) listed = listed || std::to_string(option) == change.value;
      if (!listed) throw CliError(kExitBadInput, what + " is none of its options (--force to write it anyway)");
    }
  }
  std::unique_ptr<StrParser> codec = MakeStrParser(var.var_type);
  if (!codec) throw CliError(kExitBadInput, var.var_name + ": type " + var.var_type + " cannot be written");
  try {
    codec->ParseToBytes(change.value, var.set_coefficient);
  } catch (const std::exception& e) {
    throw CliError(kExitBadInput, var.var_name + ": value '" + change.value + "' refused: " + e.what());
  }
}

// Writes the changes as the window's Save does, then reads them back. Returns the report
// and whether every value reads back as written.
static bool WriteChanges(Session& session, const std::vector<Change>& changes, Json& report) {
  CliHost& host = session.host();
  std::map<std::string, bool> pending;
  for (const Change& change : changes) {
    host.Edit(*change.var, change.value);
    pending[change.var->set_cmd] = true;
  }
  const WritePlan plan = PlanWrite(session.table(), WalkOrder(session.table()), pending);
  Json commands = Json::array();
  try {
    ExecuteWrite(host, session.client(), session.table(), plan, [&](const PreparedSet& set, const SendOutcome& o) {
      if (o.result != SendResult::kFailed) commands.push_back(set.set_cmd);
    });
  } catch (const std::exception& e) {
    host.ClearEdits();
    throw CliError(kExitSensor, std::string("write failed: ") + e.what());
  }
  host.ClearEdits();

  std::vector<VarInfo*> vars;
  for (const Change& change : changes) vars.push_back(change.var);
  const auto failures = session.Read(vars);
  bool all_match = true;
  Json rows = Json::array();
  for (const Change& change : changes) {
    const bool read = !failures.count(change.var->var_id);
    const bool match = read && SameValue(change.var->current_val, change.value);
    all_match = all_match && match;
    rows.push_back(Json{{"id", change.var->var_id},
                        {"name", change.var->var_name},
                        {"written", change.value},
                        {"read_back", read ? Json(change.var->current_val) : Json(nullptr)},
                        {"ok", match}});
  }
  report["commands"] = commands;
  report["variables"] = rows;
  return all_match;
}

static void PrintWriteReport(const Context& ctx, const Json& report) {
  if (ctx.json) {
    *ctx.out << report.dump(2) << "\n";
    return;
  }
  std::vector<std::vector<std::string>> rows{{"ID", "NAME", "WRITTEN", "READ BACK", ""}};
  for (const Json& row : report["variables"])
    rows.push_back({row["id"], row["name"], row["written"],
                    row["read_back"].is_null() ? "(unread)" : row["read_back"].get<std::string>(),
                    row["ok"].get<bool>() ? "ok" : "DIFFERS"});
  PrintTable(*ctx.out, rows);
}

Json LoadBackup(const std::string& file) {
  std::ifstream in(file);
  if (!in) throw CliError(kExitBadInput, "cannot open " + file);
  Json backup;
  try {
    backup = Json::parse(in);
  } catch (const std::exception& e) {
    throw CliError(kExitBadInput, file + " is not a backup: " + e.what());
  }
  if (!backup.is_object() || backup.value("format", "") != kBackupFormat || !backup.contains("variables") ||
      !backup["variables"].is_array() || !backup.contains("model") || !backup["model"].is_string())
    throw CliError(kExitBadInput, file + " is not a varkel-cli backup");
  if (backup.value("version", 0) != kBackupVersion)
    throw CliError(kExitBadInput, file + ": backup version " + backup["version"].dump() + " is not known");
  for (const Json& v : backup["variables"])
    if (!v.is_object() || !v.contains("id") || !v["id"].is_string() || !v.contains("value") || !v["value"].is_string())
      throw CliError(kExitBadInput, file + ": a variable without id or value: " + v.dump());
  return backup;
}

int Models(const Context& ctx) {
  const std::string dir = ctx.connection.config_dir.empty() ? DefaultConfigDir() : ctx.connection.config_dir;
  const std::vector<std::string> models = ConfigParser::ListModels(dir);
  if (ctx.json) {
    *ctx.out << Json(models).dump(2) << "\n";
  } else {
    for (const std::string& model : models) *ctx.out << model << "\n";
  }
  return 0;
}

int Info(const Context& ctx) {
  std::optional<Session> own;
  Session& session = Opened(ctx, own);
  ConfigParser& table = session.table();
  std::vector<VarInfo*> vars;
  for (VarInfo* var : session.Readable())
    if (var->var_name == "SN" || var->var_name == "PN" || var->var_type == "HWVER" || var->var_type == "SWVER_YMD")
      vars.push_back(var);
  ReadOrFail(session, vars);
  Json versions = Json::object();
  for (const VarInfo* var : vars)
    if (var->var_type == "HWVER" || var->var_type == "SWVER_YMD") versions[var->var_name] = var->current_val;
  const Json info{{"model", session.options().model},
                  {"serial_number", FirstOf(table, {"SN"})},
                  {"part_number", FirstOf(table, {"PN"})},
                  {"versions", versions}};
  const std::string issuer = session.TlsIssuer();
  if (ctx.json) {
    if (ctx.connection.tls) {
      Json with_tls = info;
      with_tls["connection"] = {{"tls", "verified"}, {"issuer", issuer}};
      *ctx.out << with_tls.dump(2) << "\n";
      return 0;
    }
    *ctx.out << info.dump(2) << "\n";
    return 0;
  }
  std::vector<std::vector<std::string>> rows{
      {"Model", info["model"]}, {"Serial number", info["serial_number"]}, {"Part number", info["part_number"]}};
  for (const auto& [name, value] : versions.items()) rows.push_back({name, value});
  if (ctx.connection.tls) rows.push_back({"Connection", "TLS, verified, issued by " + issuer});
  PrintTable(*ctx.out, rows);
  return 0;
}

int Get(const Context& ctx, const std::vector<std::string>& keys) {
  std::optional<Session> own;
  Session& session = Opened(ctx, own);
  std::vector<VarInfo*> vars;
  if (keys.empty()) {
    vars = session.Readable();
  } else {
    for (const std::string& key : keys) {
      VarInfo& var = FindVariable(session.table(), key);
      if (!IsReadable(var)) throw CliError(kExitBadInput, var.var_name + " cannot be read");
      vars.push_back(&var);
    }
  }
  const auto failures = session.Read(vars);
  if (ctx.json) {
    Json rows = Json::array();
    for (const VarInfo* var : vars) {
      Json row = VarJson(*var);
      row["unit"] = var->unit.size() > 3 ? var->unit.substr(2, var->unit.size() - 3) : "";
      if (failures.count(var->var_id)) {
        row["value"] = nullptr;
        row["error"] = failures.at(var->var_id);
      }
      rows.push_back(row);
    }
    *ctx.out << rows.dump(2) << "\n";
  } else {
    std::vector<std::vector<std::string>> rows{{"ID", "NAME", "VALUE"}};
    for (const VarInfo* var : vars)
      rows.push_back({var->var_id, var->var_name + var->unit,
                      failures.count(var->var_id) ? "(" + failures.at(var->var_id) + ")" : var->current_val});
    PrintTable(*ctx.out, rows);
  }
  if (failures.empty()) return 0;
  const VarInfo* first = session.table().FindById(failures.begin()->first);
  *ctx.err << "varkel-cli: could not read " << failures.size() << " variable(s), first " << first->var_name << ": "
           << failures.begin()->second << "\n";
  return kExitSensor;
}

int Set(const Context& ctx, const std::vector<std::string>& assignments, bool force) {
  std::optional<Session> own;
  Session& session = Opened(ctx, own);
  std::vector<Change> changes;
  std::set<const VarInfo*> named;
  for (const std::string& assignment : assignments) {
    const size_t eq = assignment.find('=');
    if (eq == std::string::npos || eq == 0) throw CliError(kExitBadInput, "'" + assignment + "' is not NAME=VALUE");
    VarInfo& var = FindVariable(session.table(), assignment.substr(0, eq));
    if (!named.insert(&var).second) throw CliError(kExitBadInput, var.var_name + " is given twice");
    changes.push_back(Change{&var, OptionValue(var, assignment.substr(eq + 1))});
  }
  for (const Change& change : changes) CheckChange(change, force);
  Json report = Json::object();
  const bool ok = WriteChanges(session, changes, report);
  PrintWriteReport(ctx, report);
  if (!ok) throw CliError(kExitSensor, "a value written does not read back as written");
  return 0;
}

int Backup(const Context& ctx, const std::string& file) {
  std::optional<Session> own;
  Session& session = Opened(ctx, own);
  const std::vector<VarInfo*> vars = session.Readable();
  ReadOrFail(session, vars);
  const Json backup = BackupJson(session.table(), session.options().model, {vars.begin(), vars.end()});
  // The earlier backup stays whole until the new one is.
  std::string error;
  if (!quarn::WriteFileAtomically(file, backup.dump(2) + "\n", &error)) throw CliError(kExitBadInput, error);
  const Json summary{{"file", file}, {"model", backup["model"]}, {"variables", vars.size()}};
  if (ctx.json)
    *ctx.out << summary.dump(2) << "\n";
  else
    *ctx.out << "backed up " << vars.size() << " variables of " << backup["model"].get<std::string>() << " to " << file
             << "\n";
  return 0;
}

int Diff(const Context& ctx, const std::string& file, bool all) {
  const Json backup = LoadBackup(file);
  std::optional<Session> own;
  Session& session = Opened(ctx, own);
  ConfigParser& table = session.table();
  std::vector<std::pair<VarInfo*, std::string>> compared;  // variable, backup value
  for (const Json& v : backup["variables"]) {
    VarInfo* var = table.FindById(v["id"].get<std::string>());
    if (!var || !IsReadable(*var) || (!all && !IsWritable(*var))) continue;
    compared.push_back({var, v["value"].get<std::string>()});
  }
  std::vector<VarInfo*> vars;
  for (const auto& entry : compared) vars.push_back(entry.first);
  ReadOrFail(session, vars);

  Json differences = Json::array(), sensor_defaults = Json::array(), backup_defaults = Json::array();
  for (const auto& [var, saved] : compared) {
    if (!SameValue(var->current_val, saved))
      differences.push_back(
          Json{{"id", var->var_id}, {"name", var->var_name}, {"sensor", var->current_val}, {"backup", saved}});
    if (!SameValue(var->current_val, var->default_val))
      sensor_defaults.push_back(Json{
          {"id", var->var_id}, {"name", var->var_name}, {"value", var->current_val}, {"default", var->default_val}});
    if (!SameValue(saved, var->default_val))
      backup_defaults.push_back(
          Json{{"id", var->var_id}, {"name", var->var_name}, {"value", saved}, {"default", var->default_val}});
  }
  if (ctx.json) {
    *ctx.out << Json{{"differences", differences},
                     {"sensor_from_defaults", sensor_defaults},
                     {"backup_from_defaults", backup_defaults}}
                    .dump(2)
             << "\n";
  } else {
    if (differences.empty()) {
      *ctx.out << "sensor and backup agree on " << compared.size() << " variables\n";
    } else {
      std::vector<std::vector<std::string>> rows{{"ID", "NAME", "SENSOR", "BACKUP"}};
      for (const Json& d : differences) rows.push_back({d["id"], d["name"], d["sensor"], d["backup"]});
      PrintTable(*ctx.out, rows);
    }
    *ctx.out << sensor_defaults.size() << " sensor value(s) and " << backup_defaults.size()
             << " backup value(s) differ from the table's defaults\n";
  }
  return differences.empty() ? 0 : kExitDiffers;
}

}  // namespace varkel::cli
