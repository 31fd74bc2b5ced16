#pragma once
// What the many-sensor commands (commands_fleet.cpp, commands_fleet_upgrade.cpp) share: a
// single-sensor command run for one host with its output captured, and the table of rows.

#include <functional>
#include <sstream>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "commands.h"
#include "host_list.h"

namespace varkel::cli {

using Json = nlohmann::ordered_json;

// Status of a sensor left alone: Ctrl-C came first, or enough upgrades had failed.
constexpr int kExitInterrupted = 130;
constexpr int kExitHeldBack = 4;

// One sensor's row.
struct HostRow {
  explicit HostRow(HostTarget t) : target(std::move(t)) {}
  HostTarget target;
  bool done = false;  // its command ran (or failed trying)
  int status = 0;
  std::string serial;            // "" until known
  Json fields = Json::object();  // what the single-sensor command gives in JSON
  std::string error;             // the failure, as the single-sensor command says it
  std::string detail;            // the row's last column when it did not fail
};

// A context aimed at one host, its output going into `out` as JSON.
Context ForHost(const Context& ctx, const HostTarget& target, std::ostringstream& out, std::ostringstream& err);

// Runs a single-sensor command for `row`: its JSON becomes the row's fields (an array under
// "values"), its failure the row's status and error.
void Capture(HostRow& row, const Context& ctx, const std::function<int(const Context&)>& command);

// The hosts of --hosts, or CliError.
std::vector<HostRow> Rows(const Context& ctx, const FleetOptions& fleet);

// Rows that did not run: marked not done, with why.
void MarkNotRun(std::vector<HostRow>& rows, const std::vector<bool>& ran, int status, const std::string& why);

// The rows in list order and the summary line (or the JSON array); the worst status.
int Report(const Context& ctx, const std::vector<HostRow>& rows);

}  // namespace varkel::cli
