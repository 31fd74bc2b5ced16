#pragma once
// The commands of varkel-cli. Each writes its result to `out` (a table or JSON), returns
// its exit status, and throws CliError with the one line to show when it cannot do its job.

#include <cstdint>
#include <functional>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

#include "cli_session.h"

namespace CLI {
class App;
}

namespace varkel::cli {

struct Context {
  ConnectionOptions connection;
  bool json = false;
  bool terminal = false;  // standard error is a terminal: progress as a bar
  std::ostream* out = nullptr;
  std::ostream* err = nullptr;
  // When set, a transfer reports its pieces here instead of drawing its own bar.
  std::function<void(uint32_t done, uint32_t total)> progress;
  // When set, hears the command's session as soon as it is open (the many-sensor runs
  // learn the serial number there, on the command's own connection).
  std::function<void(Session&)> opened;
  // When set, the command works on this open session instead of connecting again (a bundle's
  // parts come over one connection).
  Session* session = nullptr;
};

// The context's session when it carries one, else a new one held in `own`.
inline Session& Opened(const Context& ctx, std::optional<Session>& own) {
  if (ctx.session) return *ctx.session;
  own.emplace(ctx.connection, ctx.opened);
  return *own;
}

int Models(const Context& ctx);
int Info(const Context& ctx);
int Get(const Context& ctx, const std::vector<std::string>& keys);
int Set(const Context& ctx, const std::vector<std::string>& assignments, bool force);
int Backup(const Context& ctx, const std::string& file);
// Writable variables only unless `all`: read-only ones (run times, temperatures) move.
int Diff(const Context& ctx, const std::string& file, bool all);
struct RestoreOptions {
  bool dry_run = false;
  bool other_model = false;  // a backup of another model, entries matched by id and name
  bool force = false;        // values outside their range or options
  bool rollback = false;     // when the write stops, write back what the sensor held
};
int Restore(const Context& ctx, const std::string& file, const RestoreOptions& options);
// A command byte and payload bytes as hexadecimal text; the reply's header and payload.
int Console(const Context& ctx, const std::string& cmd, const std::vector<std::string>& payload);
// Reset only with `yes`: it returns every setting to its factory value.
int RestartOrReset(const Context& ctx, bool reset, bool yes);
// Every log of the table into `dir`; with `operation` the operation log's four parts as a tar archive.
int Logs(const Context& ctx, const std::string& dir, bool operation);
// The file on the upgrade row's command (or `var_name`'s), then, after `wait_s`, a restart.
int Upgrade(const Context& ctx, const std::string& file, const std::string& var_name, bool restart, unsigned wait_s);
// Which addresses of HOST[/PREFIX] answer KTC on `ports` ("9347,9348"; empty: the connection's port).
int Scan(const Context& ctx, const std::string& network, const std::string& ports);

// Many sensors at once (--hosts), each worked on by the single-sensor command.
struct FleetOptions {
  std::string hosts;  // empty: the one sensor of --host
  unsigned jobs = 8;
  unsigned max_failures = 1;       // upgrade: after this many failed transfers none starts
  bool include_addresses = false;  // restore: IP and MAC variables too
  std::vector<std::string> only;   // restore: these variables alone (names or ids)
  std::vector<std::string> except;
  bool force = false;  // backup: replace files that exist
};
// Why the many-sensor options do not go with `command` (or with --host), "" when they do.
std::string FleetOptionsFault(const FleetOptions& fleet, const std::string& command, bool host_given);
// `command` on every host: rows in list order, a summary, the worst status. `one` is the
// single-sensor command, given a context aimed at one host; its connection is the only one
// to the sensor and gives the row's serial number too.
int RunOnHosts(const Context& ctx, const FleetOptions& fleet, const std::string& command,
               const std::function<int(const Context&)>& one);
// One folder per sensor in `dir`: <serial number>, else <address>.
int LogsMany(const Context& ctx, const FleetOptions& fleet, const std::string& dir, bool operation);
// One file per sensor in `dir`: <serial number>.json, else <address>.json.
int BackupMany(const Context& ctx, const FleetOptions& fleet, const std::string& dir);
// The backup as a profile: IP and MAC variables left out unless asked for.
int RestoreMany(const Context& ctx, const FleetOptions& fleet, const std::string& file, const RestoreOptions& options);
// Every sensor checked and the plan shown, then the transfers.
int UpgradeMany(const Context& ctx, const FleetOptions& fleet, const std::string& file, const std::string& var_name,
                bool restart, unsigned wait_s);
struct StreamOptions {
  int data_port = -1;  // -1: the sensor's, else the window's setting
  double seconds = 5;
  std::string pcap;
  uint64_t max_size = 0;  // of the recording; 0: no bound
  bool host_given = false;
};
// Listens on the data port; 0 when datagrams arrived, 3 when none did.
int Stream(const Context& ctx, const StreamOptions& options);
void AddStreamCommand(CLI::App& app, std::function<int(const Context&)>& action);

struct JournalOptions {
  std::string since;  // UTC time; empty: from the start
  std::string host;
  std::string serial;
};
// The change journal, rotated files included, oldest first. Never connects.
int Journal(const Context& ctx, const JournalOptions& options);
// A support bundle at `file`; the connected sensor's parts only `with_sensor` (its logs
// only with `logs` too).
int Bundle(const Context& ctx, const std::string& file, bool with_sensor, bool logs);
struct WatchOptions {
  std::vector<std::string> names;  // empty: every monitored variable of the model
  unsigned interval_ms = 1000;
  uint64_t count = 0;  // 0: until Ctrl-C
  std::string csv;
  std::vector<std::string> alerts;  // "NAME<VALUE" / "NAME>VALUE"
};
// Status 1 when an alert fired, 3 when the connection was lost (every sample before it written).
int Watch(const Context& ctx, const WatchOptions& options);
void AddWatchCommand(CLI::App& app, std::function<int(const Context&)>& action);

// Runs the command line; the program's main and the tests call it alike.
int RunCli(int argc, const char* const* argv, std::ostream& out, std::ostream& err);

}  // namespace varkel::cli
