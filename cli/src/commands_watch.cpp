// watch: the monitored variables sampled at an interval, as rows, JSON lines or a CSV
// recording, with alerts on standard error.

#include <CLI/CLI.hpp>

#include <signal.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <iomanip>
#include <thread>

#include "commands.h"
#include "commands_shared.h"
#include "csv_recorder.h"
#include "limit_watch.h"
#include "monitor_plan.h"
#include "var_info.h"

namespace varkel::cli {
namespace {

using namespace quarn::monitor;

std::atomic<bool> g_interrupted{false};

void OnInterrupt(int) {
  g_interrupted.store(true);
}

// Ctrl-C ends the watch after the sample in hand, so the recording stays whole.
class InterruptGuard {
 public:
  InterruptGuard() {
    g_interrupted.store(false);
    struct sigaction action {};
    action.sa_handler = OnInterrupt;
    sigemptyset(&action.sa_mask);
    ::sigaction(SIGINT, &action, &previous_);
  }
  ~InterruptGuard() { ::sigaction(SIGINT, &previous_, nullptr); }

 private:
  struct sigaction previous_ {};
};

struct Channel {
  std::string id;
  std::string title;
  std::string name;
  std::string unit;
};

struct Rule {
  size_t channel;
  Limits limits;
  LimitWatch watch;
};

size_t Columns(const std::string& text) {
  size_t n = 0;
  for (unsigned char c : text) n += (c & 0xC0) != 0x80;
  return n;
}

std::string Pad(const std::string& text, size_t width) {
  const size_t n = Columns(text);
  return n >= width ? text : std::string(width - n, ' ') + text;
}

// Sleeps until `until`, waking early for Ctrl-C.
void SleepUntil(std::chrono::steady_clock::time_point until) {
  while (!g_interrupted.load() && std::chrono::steady_clock::now() < until)
    std::this_thread::sleep_for(std::min<std::chrono::steady_clock::duration>(until - std::chrono::steady_clock::now(),
                                                                              std::chrono::milliseconds(50)));
}

}  // namespace

int Watch(const Context& ctx, const WatchOptions& options) {
  // Everything the user typed is checked against the table before anything is sent.
  const std::string dir = ctx.connection.config_dir.empty() ? DefaultConfigDir() : ctx.connection.config_dir;
  const std::unique_ptr<ConfigParser> table = LoadModel(dir, ctx.connection.model);
  std::vector<Channel> channels;
  auto add = [&](const VarInfo& var) {
    for (size_t i = 0; i < channels.size(); ++i)
      if (channels[i].id == var.var_id) return i;
    const std::string unit = BareUnit(var);
    channels.push_back(Channel{var.var_id, ColumnTitle(var.var_name, unit), var.var_name, unit});
    return channels.size() - 1;
  };
  auto numeric = [&](const std::string& key) -> const VarInfo& {
    const VarInfo& var = FindVariable(*table, key);
    if (!IsNumericVarType(var.var_type) || var.get_cmd.empty())
      throw CliError(kExitBadInput, var.var_name + " is not a number that can be read");
    return var;
  };
  if (options.names.empty()) {
    for (const MonitorChannel& c : PlanMonitor(*table).channels) add(*c.var);
  } else {
    for (const std::string& key : options.names) add(numeric(key));
  }
  std::vector<Rule> rules;
  for (const std::string& text : options.alerts) {
    std::string key;
    Limits limits;
    if (!ParseAlertRule(text, &key, &limits))
      throw CliError(kExitBadInput, "alert '" + text + "' is not NAME<VALUE or NAME>VALUE");
    rules.push_back(Rule{add(numeric(key)), limits, LimitWatch(0)});
  }
  if (channels.empty()) throw CliError(kExitBadInput, "model " + ctx.connection.model + " has nothing to watch");

  CsvRecorder csv;
  std::vector<std::string> titles;
  for (const Channel& c : channels) titles.push_back(c.title);
  if (!options.csv.empty() && !csv.Open(options.csv, titles)) throw CliError(kExitBadInput, csv.error());

  Session session(ctx.connection);
  std::vector<VarInfo*> vars;
  for (const Channel& c : channels) vars.push_back(session.table().FindById(c.id));

  std::vector<size_t> width;
  for (const Channel& c : channels) width.push_back(std::max<size_t>(Columns(c.title), 10));
  if (!ctx.json) {
    std::string line = "TIME" + std::string(21, ' ');
    for (size_t i = 0; i < channels.size(); ++i) line += "  " + Pad(channels[i].title, width[i]);
    *ctx.out << line << std::endl;
  }

  InterruptGuard interrupt;
  bool alerted = false;
  const auto interval = std::chrono::milliseconds(options.interval_ms);
  auto next = std::chrono::steady_clock::now();
  for (uint64_t n = 0; (options.count == 0 || n < options.count) && !g_interrupted.load(); ++n) {
    if (n > 0) {
      next += interval;
      // A slow round does not make the next ones crowd in.
      next = std::max(next, std::chrono::steady_clock::now() - interval);
      SleepUntil(next);
      if (g_interrupted.load()) break;
    }
    const int64_t now_ms =
        std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::system_clock::now().time_since_epoch())
            .count();
    const auto failures = session.Read(vars);
    if (failures.size() == vars.size()) {
      *ctx.err << "varkel-cli: connection lost: " << failures.begin()->second << "\n";
      return kExitSensor;
    }
    std::vector<double> values;
    for (const VarInfo* var : vars) values.push_back(failures.count(var->var_id) ? NAN : ValueNumber(var->current_val));

    if (ctx.json) {
      Json row{{"time", IsoTimeMs(now_ms)}, {"values", Json::object()}};
      for (size_t i = 0; i < channels.size(); ++i)
        row["values"][channels[i].name] = std::isnan(values[i]) ? Json(nullptr) : Json(values[i]);
      *ctx.out << row.dump() << std::endl;
    } else {
      std::string line = IsoTimeMs(now_ms);
      for (size_t i = 0; i < channels.size(); ++i)
        line += "  " + Pad(std::isnan(values[i]) ? "-" : NumberText(values[i]), width[i]);
      *ctx.out << line << std::endl;
    }
    if (csv.recording() && !csv.WriteSample(now_ms, values)) *ctx.err << "varkel-cli: " << csv.error() << "\n";

    for (Rule& rule : rules) {
      const Channel& c = channels[rule.channel];
      const LimitEvent event = rule.watch.Update(values[rule.channel], rule.limits);
      if (event.kind == LimitEvent::kNone) continue;
      const std::string text = AlertText(c.name, c.unit, values[rule.channel], event);
      if (event.kind == LimitEvent::kRaised) {
        alerted = true;
        *ctx.err << "varkel-cli: alert: " << text << std::endl;
      }
      if (csv.recording() && !csv.WriteEvent(now_ms, text)) *ctx.err << "varkel-cli: " << csv.error() << "\n";
    }
  }
  return alerted ? kExitDiffers : 0;
}

void AddWatchCommand(CLI::App& app, std::function<int(const Context&)>& action) {
  auto options = std::make_shared<WatchOptions>();
  auto* watch =
      app.add_subcommand("watch", "sample the monitored variables at an interval (exit status 1 when an alert fired)");
  watch->add_option("variables", options->names, "variable names or ids (default: every monitored one)");
  watch->add_option("--interval", options->interval_ms, "milliseconds between samples")
      ->check(CLI::Range(100u, 3600000u))
      ->capture_default_str();
  watch->add_option("--count", options->count, "stop after this many samples (default: until Ctrl-C)");
  watch->add_option("--csv", options->csv, "record to this CSV file as well");
  watch->add_option("--alert", options->alerts, "\"NAME<VALUE\" or \"NAME>VALUE\": a line on standard error")
      ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
  watch->callback([&action, options] { action = [options](const Context& c) { return Watch(c, *options); }; });
}

}  // namespace varkel::cli
