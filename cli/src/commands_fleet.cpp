// Many sensors at once: the single-sensor commands run per host, side by side, with their
// output captured and turned into one row per sensor.

#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <set>

#include "commands_fleet.h"
#include "commands_shared.h"
#include "fleet_runner.h"

namespace varkel::cli {

namespace fs = std::filesystem;

namespace {

std::string FirstLine(const std::string& text) {
  std::string line = text.substr(0, text.find('\n'));
  const std::string prefix = "varkel-cli: ";
  return line.compare(0, prefix.size(), prefix) == 0 ? line.substr(prefix.size()) : line;
}

std::string Joined(const std::vector<std::string>& parts, const char* separator = ", ") {
  std::string text;
  for (const std::string& part : parts) text += (text.empty() ? "" : separator) + part;
  return text;
}

// The assignments of a report's rows ("Frame Rate=20"), the first few.
std::string Assignments(const Json& rows, const char* name_key, const char* value_key) {
  constexpr size_t kShown = 4;
  std::vector<std::string> parts;
  for (const Json& row : rows) {
    if (parts.size() == kShown) {
      parts.push_back("+" + std::to_string(rows.size() - kShown) + " more");
      break;
    }
    const Json& value = row.value(value_key, Json());
    parts.push_back(row.value(name_key, "") + "=" + (value.is_string() ? value.get<std::string>() : value.dump()));
  }
  return Joined(parts);
}

// The last column of a row that did not fail, from the command's JSON.
std::string Detail(const std::string& command, const Json& f) {
  if (command == "info") {
    // The firmware's version alone: the row stays readable on a terminal.
    std::vector<std::string> parts{f.value("part_number", "")};
    if (f.contains("versions"))
      for (const auto& [name, value] : f["versions"].items())
        if (name.find("Firmware") != std::string::npos) parts.push_back(name + " " + value.get<std::string>());
    return Joined(parts);
  }
  if (command == "get") {
    const Json& values = f.value("values", Json::array());
    if (values.size() <= 4) return Assignments(values, "name", "value");
    return std::to_string(values.size()) + " variables";
  }
  if (command == "set") return "written: " + Assignments(f.value("variables", Json::array()), "name", "read_back");
  if (command == "backup") return f.value("file", "");
  if (command == "diff") {
    const size_t n = f.value("differences", Json::array()).size();
    return n == 0 ? "agrees with the backup" : std::to_string(n) + " difference(s)";
  }
  if (command == "restore") {
    if (f.contains("dry_run")) {
      const Json& changes = f["changes"];
      return changes.empty() ? "nothing to change" : "would write " + Assignments(changes, "name", "backup");
    }
    return "written: " + Assignments(f.value("read_back", Json::array()), "name", "read_back");
  }
  if (command == "console") {
    const std::string payload = f.value("payload", "");
    if (payload.empty()) return "reply without payload";
    return "payload " + (payload.size() > 47 ? payload.substr(0, 47) + " ..." : payload);
  }
  if (command == "restart") return "restarting";
  if (command == "logs") return std::to_string(f.value("files", Json::array()).size()) + " file(s)";
  return "";
}

std::string Outcome(const HostRow& row) {
  if (!row.done) return "not done";
  if (row.status == 0) return "ok";
  return row.status == kExitDiffers ? "differs" : "failed";
}

// A serial number that can name a file on its own; else the address does.
std::string FileId(const HostRow& row) {
  const std::string& sn = row.serial;
  bool safe = !sn.empty() && sn.size() <= 64 && sn[0] != '.';
  for (char c : sn) safe = safe && (std::isalnum(static_cast<unsigned char>(c)) || c == '-' || c == '_' || c == '.');
  return safe ? sn
              : row.target.address +
                    (row.target.label != row.target.address ? "_" + std::to_string(row.target.port) : "");
}

// The hidden name a sensor's output has in DIR until its serial number is known.
std::string PartName(const HostTarget& target) {
  return "." + target.address + "-" + std::to_string(target.port) + ".part";
}

// `one` for every row on the row's own connection, which also gives the serial number;
// `placed` (when given) finishes each row that ran.
int RunRows(const Context& ctx, const FleetOptions& fleet, const std::string& command,
            const std::function<int(const Context&, const HostRow&)>& one,
            const std::function<void(HostRow&)>& placed = nullptr) {
  std::vector<HostRow> rows = Rows(ctx, fleet);
  InterruptGuard guard;
  const std::vector<bool> ran = RunJobs(rows.size(), fleet.jobs, [&](size_t i) {
    HostRow& row = rows[i];
    Context c = ctx;
    c.opened = [&row](Session& session) { row.serial = session.JournalSite().serial; };
    Capture(row, c, [&](const Context& aimed) { return one(aimed, row); });
    if (row.serial.empty()) row.serial = row.fields.value("serial_number", "");
    if (placed) placed(row);
    if (row.error.empty()) row.detail = Detail(command, row.fields);
  });
  if (InterruptGuard::interrupted()) MarkNotRun(rows, ran, kExitInterrupted, "not done: interrupted");
  return Report(ctx, rows);
}

// `text` with a leading `from` turned into `to`.
std::string Moved(const std::string& text, const std::string& from, const std::string& to) {
  return text.compare(0, from.size(), from) == 0 ? to + text.substr(from.size()) : text;
}

}  // namespace

Context ForHost(const Context& ctx, const HostTarget& target, std::ostringstream& out, std::ostringstream& err) {
  Context c = ctx;
  c.connection.host = target.address;
  c.connection.port = target.port;
  c.json = true;
  c.terminal = false;
  c.out = &out;
  c.err = &err;
  return c;
}

void Capture(HostRow& row, const Context& ctx, const std::function<int(const Context&)>& command) {
  std::ostringstream out, err;
  const Context c = ForHost(ctx, row.target, out, err);
  row.done = true;
  row.error.clear();
  try {
    row.status = command(c);
  } catch (const CliError& e) {
    row.status = e.status();
    row.error = e.what();
  } catch (const std::exception& e) {
    row.status = kExitSensor;
    row.error = e.what();
  }
  row.fields = Json::object();
  try {
    const Json parsed = out.str().empty() ? Json() : Json::parse(out.str());
    if (parsed.is_object())
      row.fields = parsed;
    else if (!parsed.is_null())
      row.fields["values"] = parsed;
  } catch (const std::exception&) {
    row.fields["output"] = out.str();
  }
  // A command that ends badly without throwing says why on its error stream.
  if (row.status > kExitDiffers && row.error.empty()) row.error = FirstLine(err.str());
}

std::vector<HostRow> Rows(const Context& ctx, const FleetOptions& fleet) {
  std::vector<HostRow> rows;
  for (const HostTarget& target : ParseHostList(fleet.hosts, ctx.connection.port)) rows.emplace_back(target);
  if (rows.empty()) throw CliError(kExitBadInput, "--hosts names no sensor");
  return rows;
}

void MarkNotRun(std::vector<HostRow>& rows, const std::vector<bool>& ran, int status, const std::string& why) {
  for (size_t i = 0; i < rows.size(); ++i)
    if (!ran[i]) {
      rows[i].done = false;
      rows[i].status = status;
      rows[i].error = why;
    }
}

int Report(const Context& ctx, const std::vector<HostRow>& rows) {
  int worst = 0;
  size_t ok = 0, differ = 0, failed = 0, not_done = 0;
  for (const HostRow& row : rows) {
    worst = std::max(worst, row.status);
    (!row.done ? not_done : row.status == 0 ? ok : row.status == kExitDiffers ? differ : failed)++;
  }
  if (ctx.json) {
    Json all = Json::array();
    for (const HostRow& row : rows) {
      Json entry{{"host", row.target.label}, {"status", row.status}};
      if (!row.serial.empty()) entry["serial_number"] = row.serial;
      for (const auto& [key, value] : row.fields.items())
        if (!entry.contains(key)) entry[key] = value;
      if (!row.error.empty()) entry["error"] = row.error;
      if (!row.done) entry["done"] = false;
      all.push_back(entry);
    }
    *ctx.out << all.dump(2) << "\n";
    return worst;
  }
  std::vector<std::vector<std::string>> table{{"HOST", "SERIAL", "OUTCOME", "DETAIL"}};
  for (const HostRow& row : rows)
    table.push_back({row.target.label, row.serial.empty() ? "-" : row.serial, Outcome(row),
                     row.error.empty() ? row.detail : row.error});
  PrintTable(*ctx.out, table);
  std::string summary = std::to_string(ok) + " ok, " + std::to_string(failed) + " failed";
  if (differ) summary += ", " + std::to_string(differ) + " differ";
  if (not_done) summary += ", " + std::to_string(not_done) + " not done";
  *ctx.out << summary << "\n";
  return worst;
}

std::string FleetOptionsFault(const FleetOptions& fleet, const std::string& command, bool host_given) {
  if (fleet.hosts.empty())
    return fleet.force || fleet.include_addresses || !fleet.only.empty() || !fleet.except.empty()
               ? "--force (of backup), --include-addresses, --only and --except go with --hosts"
               : "";
  static const std::set<std::string> kManyCommands{"info",    "get",     "set",     "backup", "diff",
                                                   "restore", "console", "restart", "logs",   "upgrade"};
  if (!kManyCommands.count(command)) return command + " works on one sensor; --hosts does not go with it";
  if (host_given) return "--host and --hosts exclude each other";
  return "";
}

int RunOnHosts(const Context& ctx, const FleetOptions& fleet, const std::string& command,
               const std::function<int(const Context&)>& one) {
  return RunRows(ctx, fleet, command, [&](const Context& c, const HostRow&) { return one(c); });
}

int LogsMany(const Context& ctx, const FleetOptions& fleet, const std::string& dir, bool operation) {
  return RunRows(
      ctx, fleet, "logs",
      [&](const Context& c, const HostRow& row) {
        return Logs(c, (fs::path(dir) / PartName(row.target)).string(), operation);
      },
      [&](HostRow& row) {
        // The serial number came with the download's connection: only now can the folder have its name.
        const fs::path part = fs::path(dir) / PartName(row.target), folder = fs::path(dir) / FileId(row);
        std::error_code ec;
        // A sensor that gave nothing leaves no folder.
        if (fs::is_empty(part, ec) || ec) {
          fs::remove(part, ec);
          return;
        }
        fs::create_directories(folder, ec);
        std::vector<fs::path> found;
        for (const auto& entry : fs::directory_iterator(part, ec)) found.push_back(entry.path());
        for (const fs::path& path : found) {
          fs::rename(path, folder / path.filename(), ec);
          if (ec) {
            row.status = std::max(row.status, kExitBadInput);
            row.error = "cannot move " + path.string() + " into " + folder.string() + ": " + ec.message();
            return;
          }
        }
        fs::remove(part, ec);
        if (row.fields.contains("files"))
          for (Json& file : row.fields["files"])
            if (file.contains("file")) file["file"] = Moved(file["file"], part.string(), folder.string());
        if (row.fields.contains("archive"))
          row.fields["archive"] =
              Moved(row.fields["archive"], fs::absolute(part).string(), fs::absolute(folder).string());
      });
}

int BackupMany(const Context& ctx, const FleetOptions& fleet, const std::string& dir) {
  std::error_code ec;
  fs::create_directories(dir, ec);
  if (!fs::is_directory(dir)) throw CliError(kExitBadInput, "cannot create folder " + dir);
  return RunRows(
      ctx, fleet, "backup",
      [&](const Context& c, const HostRow& row) { return Backup(c, (fs::path(dir) / PartName(row.target)).string()); },
      [&](HostRow& row) {
        const fs::path part = fs::path(dir) / PartName(row.target);
        std::error_code gone;
        if (row.status != 0) {
          fs::remove(part, gone);
          return;
        }
        // The connection gave the serial number; a sensor that had none is named by the backup's.
        if (row.serial.empty()) try {
            row.serial = LoadBackup(part.string()).value("serial_number", "");
          } catch (const CliError&) {
          }
        const fs::path file = fs::path(dir) / (FileId(row) + ".json");
        // Without --force a file that is there stays; link() refuses to replace it.
        const bool placed =
            fleet.force ? ::rename(part.c_str(), file.c_str()) == 0 : ::link(part.c_str(), file.c_str()) == 0;
        const int error = errno;
        fs::remove(part, gone);
        if (!placed) {
          row.status = kExitBadInput;
          row.error = error == EEXIST ? file.string() + " exists (--force to replace it)"
                                      : "cannot write " + file.string() + ": " + std::strerror(error);
          return;
        }
        row.fields["file"] = file.string();
      });
}

int RestoreMany(const Context& ctx, const FleetOptions& fleet, const std::string& file, const RestoreOptions& options) {
  Json profile = LoadBackup(file);
  const std::string dir = ctx.connection.config_dir.empty() ? DefaultConfigDir() : ctx.connection.config_dir;
  const std::unique_ptr<ConfigParser> table = LoadModel(dir, ctx.connection.model);
  const auto named = [&](const std::vector<std::string>& list, const Json& v) {
    const std::string id = v["id"], name = v.value("name", "");
    return std::find(list.begin(), list.end(), id) != list.end() ||
           std::find(list.begin(), list.end(), name) != list.end();
  };
  // A name that matches nothing is a typing mistake, not an empty profile.
  for (const std::vector<std::string>* list : {&fleet.only, &fleet.except})
    for (const std::string& key : *list) {
      bool found = false;
      for (const Json& v : profile["variables"]) found = found || named({key}, v);
      if (!found) throw CliError(kExitBadInput, file + " has no variable " + key);
    }
  Json kept = Json::array();
  std::vector<std::string> addresses;
  for (const Json& v : profile["variables"]) {
    const VarInfo* var = table->FindById(v["id"].get<std::string>());
    const std::string type = var ? var->var_type : v.value("type", "");
    if (!fleet.only.empty() && !named(fleet.only, v)) continue;
    if (named(fleet.except, v)) continue;
    // One address on many sensors takes the network down.
    if ((type == "IP" || type == "MAC") && !fleet.include_addresses) {
      addresses.push_back(v.value("name", v["id"].get<std::string>()));
      continue;
    }
    kept.push_back(v);
  }
  profile["variables"] = kept;
  char path[] = "/tmp/varkel-profile-XXXXXX";
  const int fd = ::mkstemp(path);
  if (fd < 0) throw CliError(kExitBadInput, std::string("cannot write a temporary profile: ") + std::strerror(errno));
  const std::string text = profile.dump(2);
  const bool written = ::write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
  ::close(fd);
  struct Remove {
    const char* path;
    ~Remove() { ::unlink(path); }
  } remove{path};
  if (!written) throw CliError(kExitBadInput, "cannot write a temporary profile");
  if (!ctx.json && !addresses.empty())
    *ctx.out << "left out: " << Joined(addresses) << " (--include-addresses to write them)\n";
  return RunOnHosts(ctx, fleet, "restore", [&](const Context& c) { return Restore(c, path, options); });
}

}  // namespace varkel::cli
