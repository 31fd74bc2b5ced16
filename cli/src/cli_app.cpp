// The command line of varkel-cli: options, subcommands, and the mapping of failures to one
// line on standard error and an exit status.

#include <CLI/CLI.hpp>

#include <unistd.h>

#include <functional>
#include <iostream>

#include "commands.h"
#include "completion.h"
#include "journal.h"
#include "varkel_version.h"

namespace varkel::cli {

int RunCli(int argc, const char* const* argv, std::ostream& out, std::ostream& err) {
  Context ctx;
  ctx.out = &out;
  ctx.err = &err;
  ctx.terminal = &err == &std::cerr && ::isatty(STDERR_FILENO);
  // The window's last connection is the default, as the window itself starts with it.
  ApplySettingsFile(SettingsFilePath(), ctx.connection);
  quarn::journal::SetProgram("varkel-cli");

  CLI::App app{"Inspect and configure lidar sensors from a terminal.", "varkel-cli"};
  app.require_subcommand(1, 1);
  app.set_version_flag("--version", std::string("varkel-cli ") + VARKEL_VERSION,
                       "print the program's version and exit");
  // Connection options may stand before or after the command.
  app.fallthrough();
  // A later option wins, so a script can override what an alias put first.
  app.option_defaults()->multi_option_policy(CLI::MultiOptionPolicy::TakeLast);
  ConnectionOptions& c = ctx.connection;
  app.add_option("--model", c.model, "model table to use")->capture_default_str();
  app.add_option("--host", c.host, "sensor address (default from the window's settings)")->capture_default_str();
  app.add_option("--port", c.port, "KTC port")->capture_default_str();
  app.add_option("--ktc-version", c.ktc_version, "KTC frame version")
      ->check(CLI::IsMember({1, 2}))
      ->capture_default_str();
  app.add_option("--timeout", c.timeout_ms, "reply and connect time-out in ms")
      ->check(CLI::Range(1u, 600000u))
      ->capture_default_str();
  app.add_option("--config-dir", c.config_dir, "folder of the model tables");
  app.add_flag("--json", ctx.json, "machine-readable output");
  app.add_flag("--tls", c.tls, "KTC over TLS, the sensor's certificate verified");
  app.add_option("--ca", c.ca, "with --tls: CA file the sensor's certificate must come from (default: the system's)");
  app.add_option("--cert", c.cert, "with --tls: client certificate (PEM)");
  app.add_option("--key", c.key, "with --tls: the client certificate's key (PEM)");

  std::function<int(const Context&)> action;
  // With --hosts: the command for many sensors, when it is more than `action` per host.
  std::function<int()> many;
  FleetOptions fleet;
  app.add_option("--hosts", fleet.hosts,
                 "many sensors: A.B.C.D[:PORT], ranges A.B.C.D-E.F.G.H, @FILE, comma-separated");
  app.add_option("--jobs", fleet.jobs, "with --hosts: sensors worked on at once")
      ->check(CLI::Range(1u, 256u))
      ->capture_default_str();

  app.add_subcommand("models", "list the models whose tables are installed")->callback([&] {
    action = [&](const Context& c) { return Models(c); };
  });
  app.add_subcommand("info", "serial number, part number and versions")->callback([&] {
    action = [&](const Context& c) { return Info(c); };
  });

  std::vector<std::string> keys;
  auto* get = app.add_subcommand("get", "read every readable variable, or the ones named");
  get->add_option("variables", keys, "variable names or ids (\"7-1\")");
  get->callback([&] { action = [&](const Context& c) { return Get(c, keys); }; });

  std::vector<std::string> assignments;
  bool force = false;
  auto* set = app.add_subcommand("set", "write variables as the window's Save does, then read them back");
  set->add_option("assignments", assignments, "NAME=VALUE (name or id)")->required();
  set->add_flag("--force", force, "write values outside their range or options");
  set->callback([&] { action = [&](const Context& c) { return Set(c, assignments, force); }; });

  std::string file;
  auto* backup = app.add_subcommand("backup", "save every readable variable to a file");
  backup->add_option("file", file, "backup file (JSON)")->required();
  backup->add_flag("--force", fleet.force, "with --hosts: replace backup files that exist");
  backup->callback([&] {
    action = [&](const Context& c) { return Backup(c, file); };
    many = [&] { return BackupMany(ctx, fleet, file); };
  });

  bool all = false;
  auto* diff = app.add_subcommand("diff", "compare the sensor with a backup (exit status 1 when they differ)");
  diff->add_option("file", file, "backup file")->required();
  diff->add_flag("--all", all, "compare read-only variables too");
  diff->callback([&] { action = [&](const Context& c) { return Diff(c, file, all); }; });

  RestoreOptions restore_options;
  auto* restore = app.add_subcommand("restore", "write the backup's values that differ, then read them back");
  restore->add_option("file", file, "backup file")->required();
  restore->add_flag("--dry-run", restore_options.dry_run, "only list what would be written");
  restore->add_flag("--other-model", restore_options.other_model,
                    "restore a backup of another model (entries whose id and name both match)");
  restore->add_flag("--force", restore_options.force, "write values outside their range or options");
  restore->add_flag("--rollback", restore_options.rollback,
                    "when the restore stops, write back the values the sensor held before it");
  restore->add_flag("--include-addresses", fleet.include_addresses, "with --hosts: write IP and MAC variables too");
  restore->add_option("--only", fleet.only, "with --hosts: only these variables (names or ids)")->delimiter(',');
  restore->add_option("--except", fleet.except, "with --hosts: not these variables (names or ids)")->delimiter(',');
  restore->callback([&] {
    action = [&](const Context& c) { return Restore(c, file, restore_options); };
    many = [&] { return RestoreMany(ctx, fleet, file, restore_options); };
  });

  std::string cmd_text;
  std::vector<std::string> payload;
  auto* console = app.add_subcommand("console", "send one command as the window's console does");
  console->add_option("cmd", cmd_text, "command byte, hexadecimal (\"13\" or \"0x13\")")->required();
  console->add_option("payload", payload, "payload bytes, hexadecimal, one blank apart (\"0A 01\" or 0A 01)");
  console->callback([&] { action = [&](const Context& c) { return Console(c, cmd_text, payload); }; });

  app.add_subcommand("restart", "restart the sensor")->callback([&] {
    action = [&](const Context& c) { return RestartOrReset(c, false, false); };
  });
  bool yes = false;
  auto* reset = app.add_subcommand("reset", "return every setting to its factory value, then restart");
  reset->add_flag("--yes", yes, "agree to losing the sensor's configuration");
  reset->callback([&] { action = [&](const Context& c) { return RestartOrReset(c, true, yes); }; });

  std::string dir;
  bool operation = false;
  auto* logs = app.add_subcommand("logs", "download every log of the table into a folder");
  logs->add_option("dir", dir, "folder for the log files")->required();
  logs->add_flag("--operation", operation, "the operation log's four parts, as one tar archive");
  logs->callback([&] {
    action = [&](const Context& c) { return Logs(c, dir, operation); };
    many = [&] { return LogsMany(ctx, fleet, dir, operation); };
  });

  std::string upgrade_var;
  bool no_restart = false;
  unsigned wait_s = 10;
  auto* upgrade = app.add_subcommand("upgrade", "send a firmware file, then restart the sensor");
  upgrade->add_option("file", file, "firmware file")->required();
  upgrade->add_option("--var", upgrade_var, "the variable whose command carries the file (default: the upgrade row)");
  upgrade->add_flag("--no-restart", no_restart, "leave the restart to the user");
  upgrade->add_option("--wait", wait_s, "seconds between the transfer and the restart")
      ->check(CLI::Range(0u, 600u))
      ->capture_default_str();
  upgrade->add_option("--max-failures", fleet.max_failures, "with --hosts: failed transfers after which none starts")
      ->check(CLI::Range(1u, 100000u))
      ->capture_default_str();
  upgrade->callback([&] {
    action = [&](const Context& c) { return Upgrade(c, file, upgrade_var, !no_restart, wait_s); };
    many = [&] { return UpgradeMany(ctx, fleet, file, upgrade_var, !no_restart, wait_s); };
  });

  std::string network, ports;
  auto* scan = app.add_subcommand(
      "scan", "which addresses answer KTC, and why the others do not (with --tls: inside a verified handshake)");
  scan->add_option("host", network, "HOST or HOST/PREFIX (/24 at most)")->required();
  scan->add_option("--ports", ports, "ports to try, comma-separated (default: --port)");
  scan->callback([&] { action = [&](const Context& c) { return Scan(c, network, ports); }; });

  AddStreamCommand(app, action);

  JournalOptions journal_options;
  auto* journal = app.add_subcommand("journal", "the changes made to sensors from this account (never connects)");
  journal->add_option("--since", journal_options.since, "only changes from this UTC time on (2026-11-26T08:00)");
  journal->add_option("--host", journal_options.host, "only changes to this address or serial port");
  journal->add_option("--serial", journal_options.serial, "only changes to this serial number");
  journal->callback([&] { action = [&](const Context& c) { return Journal(c, journal_options); }; });

  bool bundle_logs = false;
  auto* bundle = app.add_subcommand("bundle", "one archive for support: versions, logs, journal, settings");
  bundle->add_option("file", file, "archive to write (FILE.tar.gz)")->required();
  bundle->add_flag("--logs", bundle_logs, "with --host: the sensor's logs too");
  // The sensor's parts only for a sensor named here, never the settings' default one.
  bundle->callback([&] {
    action = [&](const Context& c) { return Bundle(c, file, app.get_option("--host")->count() > 0, bundle_logs); };
  });

  AddWatchCommand(app, action);

  std::string shell;
  auto* completion = app.add_subcommand("completion", "print a completion script for bash or zsh");
  completion->add_option("shell", shell, "bash or zsh")->required()->check(CLI::IsMember({"bash", "zsh"}));
  completion->callback([&] {
    action = [&](const Context&) {
      out << (shell == "bash" ? BashCompletion(app) : ZshCompletion(app));
      return 0;
    };
  });

  try {
    app.parse(argc, argv);
  } catch (const CLI::CallForHelp& e) {
    return app.exit(e, out, err);
  } catch (const CLI::CallForAllHelp& e) {
    return app.exit(e, out, err);
  } catch (const CLI::CallForVersion& e) {
    return app.exit(e, out, err);
  } catch (const CLI::ParseError& e) {
    err << "varkel-cli: " << e.what() << "\n";
    return kExitBadInput;
  }
  if (!c.tls && (!c.ca.empty() || !c.cert.empty() || !c.key.empty())) {
    err << "varkel-cli: --ca, --cert and --key go with --tls\n";
    return kExitBadInput;
  }
  const std::string command = app.get_subcommands().empty() ? "" : app.get_subcommands()[0]->get_name();
  const std::string fleet_fault = FleetOptionsFault(fleet, command, app.count("--host") != 0);
  if (!fleet_fault.empty()) {
    err << "varkel-cli: " << fleet_fault << "\n";
    return kExitBadInput;
  }
  try {
    if (!fleet.hosts.empty()) return many ? many() : RunOnHosts(ctx, fleet, command, action);
    return action ? action(ctx) : kExitBadInput;
  } catch (const CliError& e) {
    err << "varkel-cli: " << e.what() << "\n";
    return e.status();
  } catch (const std::exception& e) {
    err << "varkel-cli: " << e.what() << "\n";
    return kExitSensor;
  }
}

}  // namespace varkel::cli
