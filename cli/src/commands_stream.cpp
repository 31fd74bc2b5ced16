// stream: whether the point data reaches this machine, with figures, and if not, why.

#include <CLI/CLI.hpp>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <memory>
#include <thread>

#include "commands.h"
#include "commands_shared.h"
#include "stream_diagnosis.h"

namespace varkel::cli {
namespace {

namespace ql = quarn::lidar;

constexpr uint16_t kDefaultDataPort = 2368;

// The window's "udp_port" setting, the port it reads point data on.
uint16_t SettingsDataPort() {
  std::ifstream in(SettingsFilePath());
  uint16_t port = kDefaultDataPort;
  for (std::string line; std::getline(in, line);) {
    const size_t eq = line.find('=');
    if (eq == std::string::npos || line.compare(0, eq, "udp_port") != 0) continue;
    const long v = std::strtol(line.c_str() + eq + 1, nullptr, 10);
    if (v > 0 && v <= 65535) port = static_cast<uint16_t>(v);
  }
  return port;
}

std::string Fixed(double v, int decimals) {
  char text[32];
  std::snprintf(text, sizeof(text), "%.*f", decimals, v);
  return text;
}

// Quotes the way a POSIX shell reads back.
std::string ShellWord(const std::string& s) {
  if (!s.empty() &&
      s.find_first_not_of("abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789.-_/:") == std::string::npos)
    return s;
  std::string out = "\"";
  for (char c : s) {
    if (c == '"' || c == '\\' || c == '$' || c == '`') out += '\\';
    out += c;
  }
  return out + "\"";
}

// Connects and reads the destination variables; false with the reason when the sensor
// could not be asked.
bool AskSensor(const ConnectionOptions& options, ql::StreamContext* sc, std::string* why) {
  try {
    Session session(options);
    std::vector<VarInfo*> vars;
    for (const char* name : {ql::kDestinationIpName, ql::kDataPortName, ql::kDestinationModeName}) {
      for (VarInfo* v : session.table().records()) {
        if (v && v->var_name == name && !v->get_cmd.empty()) {
          vars.push_back(v);
          break;
        }
      }
    }
    const auto failures = session.Read(vars);
    for (VarInfo* v : vars) {
      if (failures.count(v->var_id)) continue;
      if (v->var_name == ql::kDestinationIpName) sc->destination_ip = v->current_val;
      if (v->var_name == ql::kDestinationModeName) sc->destination_mode = v->current_val;
      if (v->var_name == ql::kDataPortName) {
        const long p = std::strtol(v->current_val.c_str(), nullptr, 10);
        if (p > 0 && p <= 65535) sc->data_port = static_cast<uint16_t>(p);
      }
    }
  } catch (const CliError& e) {
    *why = e.what();
    return false;
  }
  sc->sensor_connected = true;
  sc->sensor_address = options.host;
  sc->local_address = ql::LocalAddressTowards(options.host);
  ql::LocalAddresses(&sc->local_addresses, &sc->broadcast_addresses);
  return true;
}

}  // namespace

int Stream(const Context& ctx, const StreamOptions& o) {
  ql::StreamContext sc;
  std::string unanswered;
  if (o.host_given) AskSensor(ctx.connection, &sc, &unanswered);

  ql::StreamMonitor::Options mo;
  mo.port = o.data_port >= 0 ? static_cast<uint16_t>(o.data_port) : sc.data_port ? *sc.data_port : SettingsDataPort();
  if (sc.destination_ip && ql::IsMulticastText(*sc.destination_ip)) {
    mo.group = *sc.destination_ip;
    mo.interface_address = sc.local_address;
  }
  const auto listen = std::chrono::duration<double>(o.seconds);
  mo.quiet_period =
      std::min(std::chrono::milliseconds(3000), std::chrono::duration_cast<std::chrono::milliseconds>(listen));
  ql::StreamMonitor monitor;
  std::string error;
  if (!monitor.Start(mo, &error)) throw CliError(kExitBadInput, error);
  if (!o.pcap.empty()) {
    ql::PcapRecorder::Limits limits;
    limits.max_bytes = o.max_size;
    if (!monitor.StartRecording(o.pcap, limits, &error)) throw CliError(kExitBadInput, error);
  }
  using Clock = std::chrono::steady_clock;
  const auto until = Clock::now() + std::chrono::duration_cast<Clock::duration>(listen);
  for (auto now = Clock::now(); now < until; now = Clock::now())
    std::this_thread::sleep_for(std::min<Clock::duration>(until - now, std::chrono::milliseconds(100)));
  ql::StreamFigures f = monitor.Figures();
  monitor.Stop();  // the recording is flushed and closed here
  // A recording that ended on its own stays reported; a stop by the end of listening does not.
  const std::string recording_stopped = f.recording_stopped;

  ql::StreamDiagnosis d = ql::Diagnose(f, sc);
  if (o.host_given && !sc.sensor_connected) {
    d.lines.back() = "The sensor did not answer (" + unanswered + "), so no diagnosis could be made.";
  }
  std::string advice;
  if (!d.fix.empty()) {
    const ConnectionOptions& c = ctx.connection;
    advice = "varkel-cli --host " + ShellWord(c.host) + " --port " + std::to_string(c.port) + " --model " +
             ShellWord(c.model) + " set";
    for (const auto& [name, value] : d.fix) advice += " " + ShellWord(name + "=" + value);
    d.lines.push_back("To send the data here: " + advice);
  }
  if (!recording_stopped.empty()) d.lines.push_back("The recording stopped: " + recording_stopped + ".");

  std::ostream& out = *ctx.out;
  if (ctx.json) {
    Json j;
    j["port"] = f.port;
    j["datagrams"] = f.datagrams;
    j["bytes"] = f.bytes;
    j["datagrams_per_s"] = f.datagrams_per_s;
    j["mbit_per_s"] = f.mbit_per_s;
    j["senders"] = Json::array();
    for (const auto& s : f.senders)
      j["senders"].push_back({{"address", ql::Ipv4Text(s.address)}, {"port", s.port}, {"datagrams", s.datagrams}});
    j["size"] = {{"min", f.size_min}, {"median", f.size_median}, {"max", f.size_max}};
    j["longest_gap_ms"] = f.longest_gap_ms;
    j["kernel_drops"] = f.kernel_drops ? Json(*f.kernel_drops) : Json(nullptr);
    j["diagnosis"] = d.lines;
    out << j.dump(2) << "\n";
  } else {
    std::vector<std::vector<std::string>> rows{
        {"UDP port", std::to_string(f.port) + (f.group.empty() ? "" : " (group " + f.group + ")")},
        {"datagrams", std::to_string(f.datagrams)},
        {"bytes", std::to_string(f.bytes)},
        {"datagrams/s", Fixed(f.datagrams_per_s, 1)},
        {"Mbit/s", Fixed(f.mbit_per_s, 3)},
        {"size", f.datagrams ? std::to_string(f.size_min) + " / " + std::to_string(f.size_median) + " / " +
                                   std::to_string(f.size_max) + " bytes (min / median / max)"
                             : "-"},
        {"jitter", Fixed(f.jitter_ms, 3) + " ms"},
        {"longest gap", Fixed(f.longest_gap_ms, 1) + " ms"},
        {"kernel drops", f.kernel_drops ? std::to_string(*f.kernel_drops) : "not available"}};
    if (!o.pcap.empty()) rows.push_back({"recorded", std::to_string(f.recorded) + " datagrams to " + o.pcap});
    for (const auto& s : f.senders)
      rows.push_back({"from " + ql::Ipv4Text(s.address) + ":" + std::to_string(s.port),
                      std::to_string(s.datagrams) + " (" + Fixed(s.share * 100.0, 0) + " %)"});
    PrintTable(out, rows);
    for (const auto& line : d.lines) out << line << "\n";
  }
  return f.datagrams > 0 ? 0 : kExitSensor;
}

void AddStreamCommand(CLI::App& app, std::function<int(const Context&)>& action) {
  // Owned by the callbacks the command keeps, so each run starts from the defaults.
  auto o = std::make_shared<StreamOptions>();
  auto* stream = app.add_subcommand("stream", "whether the point data reaches this machine, and if not, why");
  stream
      ->add_option("--data-port", o->data_port,
                   "UDP port to listen on (default: the sensor's \"Data Port\", else the window's setting)")
      ->check(CLI::Range(1, 65535));
  stream->add_option("--seconds", o->seconds, "how long to listen")
      ->check(CLI::Range(0.1, 86400.0))
      ->capture_default_str();
  stream->add_option("--pcap", o->pcap, "record the datagrams to this pcap file");
  stream->add_option("--max-size", o->max_size, "with --pcap: stop recording at this file size in bytes");
  stream->callback([&app, &action, o] {
    // Only a sensor named on this command line is asked, never the settings' default.
    o->host_given = app.get_option("--host")->count() > 0;
    action = [o](const Context& c) { return Stream(c, *o); };
  });
}

}  // namespace varkel::cli
