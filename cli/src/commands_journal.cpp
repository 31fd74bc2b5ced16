// The commands that never change a sensor's settings but record and collect around them:
// reading the change journal, and the support bundle.

#include <filesystem>
#include <sstream>

#include <nlohmann/json.hpp>

#include "commands.h"
#include "commands_shared.h"
#include "journal.h"
#include "support_bundle.h"

namespace varkel::cli {

namespace journal = quarn::journal;

namespace {

std::string Field(const nlohmann::ordered_json& entry, const char* key) {
  const auto it = entry.find(key);
  if (it == entry.end()) return "";
  return it->is_string() ? it->get<std::string>() : it->dump();
}

}  // namespace

int Journal(const Context& ctx, const JournalOptions& options) {
  journal::Filter filter{std::nullopt, options.host, options.serial};
  if (!options.since.empty()) {
    filter.since_ms = journal::ParseTime(options.since);
    if (!filter.since_ms)
      throw CliError(kExitBadInput, "--since '" + options.since + "': not a UTC time like 2026-11-26T08:00:00");
  }
  size_t skipped = 0;
  const auto entries = journal::Read(journal::DefaultDirectory(), filter, &skipped);
  if (skipped > 0 && ctx.err)
    *ctx.err << "varkel-cli: " << skipped << " journal line" << (skipped == 1 ? " is" : "s are")
             << " no JSON and left out\n";
  if (ctx.json) {
    *ctx.out << nlohmann::ordered_json(entries).dump(2) << "\n";
    return 0;
  }
  std::vector<std::vector<std::string>> rows{
      {"TIME", "PROGRAM", "USER", "HOST", "SERIAL", "WHAT", "NAME", "OLD", "NEW", "OUTCOME"}};
  for (const auto& e : entries) {
    std::string outcome = Field(e, "outcome");
    if (e.contains("code")) outcome += " (" + Field(e, "code") + ")";
    rows.push_back({Field(e, "time"), Field(e, "program"), Field(e, "user"), Field(e, "host"), Field(e, "serial"),
                    Field(e, "what"), Field(e, "name"), Field(e, "old"), Field(e, "new"), outcome});
  }
  PrintTable(*ctx.out, rows);
  return 0;
}

int Bundle(const Context& ctx, const std::string& file, bool with_sensor, bool logs) {
  if (file.empty()) throw CliError(kExitBadInput, "bundle: no file named");
  try {
    BundleStage stage;
    stage.AddProgramParts("varkel-cli", SettingsFilePath());
    if (with_sensor) {
      // The sensor's parts as the commands of their own make them.
      std::ostringstream said;
      Session session(ctx.connection, ctx.opened);
      Context quiet = ctx;
      quiet.session = &session;
      quiet.json = true;
      quiet.terminal = false;
      quiet.out = &said;
      Info(quiet);
      stage.Add("sensor/versions.json", said.str());
      said.str("");
      Backup(quiet, stage.dir() + "/sensor/backup.json");
      if (logs && Logs(quiet, stage.dir() + "/sensor/logs", false) != 0)
        throw CliError(kExitSensor, "the sensor's logs could not all be downloaded");
    }
    stage.Pack(file);
  } catch (const std::runtime_error& e) {
    if (const auto* cli = dynamic_cast<const CliError*>(&e))
      throw CliError(cli->status(), std::string("bundle: ") + e.what());
    throw CliError(kExitBadInput, std::string("bundle: ") + e.what());
  }
  if (ctx.json)
    *ctx.out << nlohmann::ordered_json{{"file", file}, {"sensor", with_sensor}, {"logs", with_sensor && logs}}.dump(2)
             << "\n";
  else
    *ctx.out << "support bundle written to " << file << "\n";
  return 0;
}

}  // namespace varkel::cli
