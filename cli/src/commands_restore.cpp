// restore: the backup's values that differ from the sensor's, written and read back, with a
// report that says what went out, what was refused, what was never sent and what was
// skipped, and on request a rollback of what was written when the restore stopped.

#include <algorithm>
#include <cctype>
#include <map>
#include <set>
#include <sstream>

#include "commands.h"
#include "commands_shared.h"
#include "var_info.h"

namespace varkel::cli {
namespace {

std::string Lower(std::string text) {
  for (char& c : text) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return text;
}

// A change with the value the sensor held before the restore.
struct Planned {
  Change change;
  std::string before;
};

// The set commands that change how the sensor is reached: the one carrying the variable
// that holds the port this connection uses, and those of the table's "Security" groups.
// They go last, before the network command, so that everything else is written while the
// connection still stands.
std::set<std::string> ReachCommands(const ConfigParser& table, const std::vector<VarInfo*>& read, uint16_t port) {
  std::set<std::string> commands;
  for (const VarInfo* var : read)
    if (!var->set_cmd.empty() && SameValue(var->current_val, std::to_string(port))) commands.insert(var->set_cmd);
  for (size_t page = 0; page < table.module_vars.size() && page < table.module_titles.size(); ++page)
    for (size_t group = 0; group < table.module_vars[page].size(); ++group) {
      const auto& titles = table.module_titles[page];
      if (group + 1 >= titles.size() || Lower(titles[group + 1]) != "security") continue;
      for (const VarInfo* var : table.module_vars[page][group])
        if (!var->set_cmd.empty()) commands.insert(var->set_cmd);
    }
  return commands;
}

struct WriteRun {
  std::vector<std::string> written;  // commands, in sending order
  std::string refused;               // the command the sensor refused, "" when none
  int refused_code = 0;
  std::vector<std::string> not_sent;
  std::string error;  // why the write stopped, "" when every command went out
};

// The window's write (whole payloads, fresh untouched fields, the network command last)
// with the commands in `last` moved just before the network command. Never throws for
// what the sensor does: the run says how far it came.
WriteRun WriteInOrder(Session& session, const std::vector<Change>& changes, const std::set<std::string>& last) {
  CliHost& host = session.host();
  std::map<std::string, bool> pending;
  for (const Change& change : changes) {
    host.Edit(*change.var, change.value);
    pending[change.var->set_cmd] = true;
  }
  WritePlan plan = PlanWrite(session.table(), WalkOrder(session.table()), pending);
  std::stable_partition(plan.send_list.begin(), plan.send_list.end(),
                        [&](const std::string& cmd) { return cmd != kNetworkSetCmd && !last.count(cmd); });
  WriteRun run;
  try {
    ExecuteWrite(
        host, session.client(), session.table(), plan,
        [&](const PreparedSet& set, const SendOutcome& o) {
          if (o.result == SendResult::kFailed) {
            run.refused = set.set_cmd;
            run.refused_code = o.code;
          } else {
            run.written.push_back(set.set_cmd);
          }
        },
        "restore");
  } catch (const std::exception& e) {
    run.error = e.what();
  }
  host.ClearEdits();
  for (const std::string& cmd : plan.send_list)
    if (cmd != run.refused && std::find(run.written.begin(), run.written.end(), cmd) == run.written.end())
      run.not_sent.push_back(cmd);
  return run;
}

// A command with the names of the variables it was sent for.
Json CommandJson(const std::string& cmd, const std::vector<Planned>& planned) {
  Json names = Json::array();
  for (const Planned& p : planned)
    if (p.change.var->set_cmd == cmd) names.push_back(p.change.var->var_name);
  return Json{{"command", cmd}, {"variables", names}};
}

bool Contains(const std::vector<std::string>& list, const std::string& item) {
  return std::find(list.begin(), list.end(), item) != list.end();
}

// The run as a report: its commands, and the read-back of every value it wrote. Sets *ok
// to whether every written value reads back as intended.
Json RunReport(Session& session, const WriteRun& run, const std::vector<Planned>& planned, bool* ok) {
  Json written = Json::array(), not_sent = Json::array();
  for (const std::string& cmd : run.written) written.push_back(CommandJson(cmd, planned));
  for (const std::string& cmd : run.not_sent) not_sent.push_back(CommandJson(cmd, planned));
  Json refused = nullptr;
  if (!run.refused.empty()) {
    refused = CommandJson(run.refused, planned);
    refused["return_code"] = run.refused_code;
  }

  std::vector<VarInfo*> vars;
  for (const Planned& p : planned)
    if (Contains(run.written, p.change.var->set_cmd)) vars.push_back(p.change.var);
  const auto failures = session.Read(vars);
  bool all_match = run.error.empty();
  Json rows = Json::array();
  for (const Planned& p : planned) {
    if (!Contains(run.written, p.change.var->set_cmd)) continue;
    const VarInfo& var = *p.change.var;
    const bool read = !failures.count(var.var_id);
    const bool match = read && SameValue(var.current_val, p.change.value);
    all_match = all_match && match;
    rows.push_back(Json{{"id", var.var_id},
                        {"name", var.var_name},
                        {"before", p.before},
                        {"written", p.change.value},
                        {"read_back", read ? Json(var.current_val) : Json(nullptr)},
                        {"ok", match}});
  }
  *ok = all_match;
  return Json{{"written", written},
              {"refused", refused},
              {"not_sent", not_sent},
              {"error", run.error.empty() ? Json(nullptr) : Json(run.error)},
              {"read_back", rows}};
}

std::string CommandsText(const Json& commands) {
  std::string text;
  for (const Json& c : commands) {
    std::string names;
    for (const Json& n : c["variables"]) names += (names.empty() ? "" : ", ") + n.get<std::string>();
    text += (text.empty() ? "" : "; ") + c["command"].get<std::string>() + " (" + names + ")";
  }
  return text.empty() ? "none" : text;
}

// The commands of a run, then its read-back as a table.
void PrintRun(std::ostream& out, const std::string& prefix, const Json& run) {
  out << prefix << "written: " << CommandsText(run["written"]) << "\n";
  if (!run["refused"].is_null())
    out << prefix << "refused: " << CommandsText(Json::array({run["refused"]})) << ", return code "
        << run["refused"]["return_code"].get<int>() << "\n";
  if (!run["not_sent"].empty()) out << prefix << "not sent: " << CommandsText(run["not_sent"]) << "\n";
  if (!run["error"].is_null()) out << prefix << "stopped: " << run["error"].get<std::string>() << "\n";
  if (run["read_back"].empty()) return;
  std::vector<std::vector<std::string>> rows{{"ID", "NAME", "BEFORE", "WRITTEN", "READ BACK", ""}};
  for (const Json& row : run["read_back"])
    rows.push_back({row["id"], row["name"], row["before"], row["written"],
                    row["read_back"].is_null() ? "(unread)" : row["read_back"].get<std::string>(),
                    row["ok"].get<bool>() ? "ok" : "DIFFERS"});
  std::ostringstream table;
  PrintTable(table, rows);
  std::istringstream lines(table.str());
  for (std::string line; std::getline(lines, line);) out << prefix << line << "\n";
}

void PrintSkipped(std::ostream& out, const Json& skipped) {
  if (skipped.empty()) return;
  out << "skipped " << skipped.size() << " backup entr" << (skipped.size() == 1 ? "y" : "ies") << ":\n";
  for (const Json& s : skipped)
    out << "  " << s["id"].get<std::string>() << " " << s["text"].get<std::string>() << "\n";
}

// Entries of the backup matched to the table by id and name. Entries the backup itself
// records as read-only were never meant to be written and are left out silently; every
// other entry that cannot be restored is listed with its reason.
std::vector<Change> Match(const Json& backup, const ConfigParser& table, const std::string& model, Json& skipped) {
  std::vector<Change> wanted;
  for (const Json& v : backup["variables"]) {
    const std::string id = v["id"];
    const std::string name = v.contains("name") && v["name"].is_string() ? v["name"].get<std::string>() : "";
    const bool was_writable = !v.contains("writable") || v["writable"] != false;
    VarInfo* var = table.FindById(id);
    Json entry{{"id", id}, {"name", name}};
    if (!var) {
      if (!was_writable) continue;
      entry["reason"] = "unknown id";
      entry["text"] = name + ": " + model + " has no variable " + id;
    } else if (name != var->var_name) {
      if (!was_writable) continue;
      entry["reason"] = "name differs";
      entry["table_name"] = var->var_name;
      entry["text"] = (name.empty() ? "(no name)" : name) + ": " + id + " is " + var->var_name + " in " + model;
    } else if (!IsWritable(*var)) {
      if (!was_writable) continue;
      entry["reason"] = "not writable";
      entry["text"] = name + ": cannot be written in " + model;
    } else {
      wanted.push_back(Change{var, v["value"].get<std::string>()});
      continue;
    }
    skipped.push_back(entry);
  }
  return wanted;
}

}  // namespace

int Restore(const Context& ctx, const std::string& file, const RestoreOptions& options) {
  const Json backup = LoadBackup(file);
  const std::string model = backup["model"];
  if (model != ctx.connection.model && !options.other_model)
    throw CliError(kExitBadInput, file + " is a backup of " + model + ", not of " + ctx.connection.model +
                                      " (--other-model to restore it anyway)");
  std::optional<Session> own;
  Session& session = Opened(ctx, own);
  ConfigParser& table = session.table();
  Json skipped = Json::array();
  const std::vector<Change> wanted = Match(backup, table, ctx.connection.model, skipped);
  // The terminal's sentence for each, JSON the reason alone.
  Json skipped_json = skipped;
  for (Json& entry : skipped_json) entry.erase("text");
  std::vector<VarInfo*> vars;
  for (const Change& change : wanted) vars.push_back(change.var);
  ReadOrFail(session, vars);

  std::vector<Planned> planned;
  Json changes = Json::array();
  for (const Change& change : wanted) {
    if (SameValue(change.var->current_val, change.value)) continue;
    planned.push_back(Planned{change, change.var->current_val});
    changes.push_back(Json{{"id", change.var->var_id},
                           {"name", change.var->var_name},
                           {"sensor", change.var->current_val},
                           {"backup", change.value}});
  }
  for (const Planned& p : planned) CheckChange(p.change, options.force);
  if (options.dry_run || planned.empty()) {
    if (ctx.json) {
      *ctx.out << Json{{"dry_run", options.dry_run}, {"changes", changes}, {"skipped", skipped_json}}.dump(2) << "\n";
      return 0;
    }
    if (planned.empty()) {
      *ctx.out << "nothing to restore: the sensor holds the backup's values\n";
    } else {
      std::vector<std::vector<std::string>> rows{{"ID", "NAME", "SENSOR", "WOULD WRITE"}};
      for (const Json& c : changes) rows.push_back({c["id"], c["name"], c["sensor"], c["backup"]});
      PrintTable(*ctx.out, rows);
    }
    PrintSkipped(*ctx.out, skipped);
    return 0;
  }

  const std::set<std::string> last = ReachCommands(table, vars, ctx.connection.port);
  std::vector<Change> to_write;
  for (const Planned& p : planned) to_write.push_back(p.change);
  const WriteRun run = WriteInOrder(session, to_write, last);
  bool ok = false;
  Json report = RunReport(session, run, planned, &ok);
  report["skipped"] = skipped_json;
  report["rollback"] = nullptr;

  std::string failure;
  if (!run.error.empty()) {
    failure = "restore stopped: " + run.error;
    if (options.rollback) {
      // Back to the values read before the restore, for what was written.
      std::vector<Planned> undo;
      std::vector<Change> undo_changes;
      for (const Planned& p : planned)
        if (Contains(run.written, p.change.var->set_cmd)) {
          undo.push_back(Planned{Change{p.change.var, p.before}, p.change.value});
          undo_changes.push_back(undo.back().change);
        }
      bool undone = false;
      Json rollback = RunReport(session, WriteInOrder(session, undo_changes, last), undo, &undone);
      rollback["ok"] = undone;
      report["rollback"] = rollback;
      failure += undone ? "; rolled back what was written" : "; the rollback failed too";
    }
  } else if (!ok) {
    failure = "a restored value does not read back as written";
  }

  if (ctx.json) {
    *ctx.out << report.dump(2) << "\n";
  } else {
    PrintRun(*ctx.out, "", report);
    if (!report["rollback"].is_null()) {
      const Json& rollback = report["rollback"];
      *ctx.out << "rollback " << (rollback["ok"].get<bool>() ? "done" : "FAILED") << ":\n";
      PrintRun(*ctx.out, "  ", rollback);
    }
    PrintSkipped(*ctx.out, skipped);
  }
  if (!failure.empty()) throw CliError(kExitSensor, failure);
  return 0;
}

}  // namespace varkel::cli
