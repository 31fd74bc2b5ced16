// console, restart, reset, logs and upgrade: the commands of the window's console and
// maintenance menu, sent as the controller sends them.

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <thread>

#include <nlohmann/json.hpp>

#include "atomic_file.h"
#include "change_journal.h"
#include "commands.h"
#include "console_request.h"
#include "log_file_name.h"
#include "maintenance_command.h"
#include "manager_catalogue.h"
#include "run_program.h"
#include "var_info.h"

namespace varkel::cli {

using Json = nlohmann::ordered_json;
namespace fs = std::filesystem;

namespace {

constexpr int kTarTimeoutMs = 30000;
constexpr size_t kPieceBytes = 1024;

std::string HexByte(uint8_t byte) {
  char text[8];
  std::snprintf(text, sizeof text, "0x%02X", byte);
  return text;
}

std::string LocalStamp(const char* format) {
  const std::time_t now = std::time(nullptr);
  std::tm local{};
  localtime_r(&now, &local);
  char text[32];
  return std::string(text, std::strftime(text, sizeof text, format, &local));
}

// Sends the table's restart or reset row. The sensor answers, then goes away.
void SendRestartOrReset(Session& session, bool reset) {
  const char* what = reset ? "reset" : "restart";
  const VarInfo* var =
      reset ? FindNamedVar(session.table(), {"Reset", "reset"}) : FindNamedVar(session.table(), {"Restart", "restart"});
  if (!var) throw CliError(kExitBadInput, "the table of " + session.options().model + " has no " + what + " row");
  if (var->set_cmd.empty() && var->get_cmd.empty())
    throw CliError(kExitBadInput, "the table gives " + var->var_name + " no command");
  NamedCommand named;
  try {
    named = ActionCommandOf(*var);
  } catch (const std::invalid_argument&) {
    throw CliError(kExitBadInput, var->var_name + ": command text '" +
                                      (var->set_cmd.empty() ? var->get_cmd : var->set_cmd) + "' is no number");
  }
  std::vector<uint8_t> reply;
  const auto site = session.JournalSite();  // before: the sensor goes away after it
  const int ret = session.client().QueryCommand(named.payload, reply, named.command.cmd);
  RecordExchange(site, what, var->var_name, ret, session.client().GetLastReturnCode());
  if (ret != 0) {
    // A failed exchange whose reply carried no code still failed.
    const int code = session.client().GetLastReturnCode() != 0 ? session.client().GetLastReturnCode() : -1;
    throw CliError(kExitSensor,
                   std::string(what) + " failed, return code " + std::to_string(code) + "; restart the sensor by hand");
  }
}

// A log cut off by a full disk must not pass for a whole one.
bool WriteFile(const fs::path& path, const std::vector<uint8_t>& bytes) {
  return quarn::WriteFileAtomically(path.string(), bytes);
}

// Progress of a transfer: a bar redrawn in place on a terminal, a line per tenth otherwise.
class Progress {
 public:
  Progress(std::ostream& out, bool terminal, uint32_t pieces) : out_(out), terminal_(terminal), pieces_(pieces) {}
  void Show(uint32_t piece) {
    const uint32_t done = std::min(piece, pieces_);
    const int percent = pieces_ == 0 ? 100 : static_cast<int>(100ull * done / pieces_);
    if (terminal_) {
      constexpr int kWidth = 40;
      const int filled = percent * kWidth / 100;
      out_ << "\r[" << std::string(static_cast<size_t>(filled), '#')
           << std::string(static_cast<size_t>(kWidth - filled), ' ') << "] " << percent << "% " << done << "/"
           << pieces_ << std::flush;
    } else if (percent / 10 > last_tenth_) {
      last_tenth_ = percent / 10;
      out_ << "upgrade: " << percent << "% (" << done << "/" << pieces_ << " pieces)\n" << std::flush;
    }
  }
  void End() {
    if (terminal_) out_ << "\n" << std::flush;
  }

 private:
  std::ostream& out_;
  bool terminal_;
  uint32_t pieces_;
  int last_tenth_ = -1;
};

}  // namespace

int Console(const Context& ctx, const std::string& cmd, const std::vector<std::string>& payload) {
  std::string payload_text;
  for (const std::string& piece : payload) payload_text += (payload_text.empty() ? "" : " ") + piece;
  const ConsoleRequest request = ParseConsoleRequest(cmd, payload_text);
  const char* why = request.hex_fault == HexFault::kOutOfRange ? "above 0xFF" : "not a hexadecimal byte";
  if (request.fault == ConsoleRequest::Fault::kHeader)
    throw CliError(kExitBadInput, "malformed command '" + cmd + "': " + why);
  if (request.fault == ConsoleRequest::Fault::kPayload)
    throw CliError(kExitBadInput, "malformed payload '" + payload_text + "': a piece is " + why +
                                      " (bytes are hexadecimal, one blank apart)");

  std::optional<Session> own;
  Session& session = Opened(ctx, own);
  std::vector<uint8_t> reply;
  const size_t header_bytes = ctx.connection.ktc_version == 2 ? 12 : 8;
  const auto site = session.JournalSite();
  const int ret = session.client().QueryCommand(request.payload, reply, request.cmd, true);
  RecordExchange(site, "console", (request.cmd_text + " " + request.payload_text), ret,
                 session.client().GetLastReturnCode());
  if (ret != 0 || reply.size() < header_bytes)
    throw CliError(kExitSensor, "command " + HexByte(request.cmd) + " failed, return code " +
                                    std::to_string(session.client().GetLastReturnCode()));
  const bool restarts = request.cmd == kConsoleRestartCmd || request.cmd == kConsoleResetCmd;
  const std::string header = UpperHexSpaced(reply.data(), header_bytes);
  // The whole payload: a script may want every byte, where the window shows the first 1024.
  const std::string body = UpperHexSpaced(reply.data() + header_bytes, reply.size() - header_bytes);
  if (ctx.json) {
    *ctx.out << Json{{"command", HexByte(request.cmd)},
                     {"sent", request.payload_text},
                     {"header", header},
                     {"payload", body},
                     {"payload_bytes", reply.size() - header_bytes},
                     {"restarts", restarts}}
                    .dump(2)
             << "\n";
  } else {
    *ctx.out << "header   " << header << "\npayload  " << body << "\n";
    if (restarts) *ctx.out << "the sensor restarts\n";
  }
  return 0;
}

int RestartOrReset(const Context& ctx, bool reset, bool yes) {
  if (reset && !yes)
    throw CliError(kExitBadInput, "reset returns every setting of the sensor to its factory value; add --yes to reset");
  std::optional<Session> own;
  Session& session = Opened(ctx, own);
  SendRestartOrReset(session, reset);
  if (ctx.json)
    *ctx.out << Json{{"action", reset ? "reset" : "restart"}, {"ok", true}}.dump(2) << "\n";
  else
    *ctx.out << (reset ? "the sensor resets and restarts\n" : "the sensor restarts\n");
  return 0;
}

int Logs(const Context& ctx, const std::string& dir, bool operation) {
  std::error_code ec;
  fs::create_directories(dir, ec);
  if (!fs::is_directory(dir)) throw CliError(kExitBadInput, "cannot create folder " + dir);
  std::optional<Session> own;
  Session& session = Opened(ctx, own);
  ConfigParser& table = session.table();
  quarn::lidar::KtcClient& client = session.client();
  Json files = Json::array();
  bool all_ok = true;
  std::string first_fault;
  const auto fail = [&](const std::string& fault) {
    all_ok = false;
    if (first_fault.empty()) first_fault = fault;
  };
  const auto command_of = [](const VarInfo& var, const std::vector<uint8_t>& extra) {
    try {
      return LogCommandOf(var, extra);
    } catch (const std::invalid_argument&) {
      throw CliError(kExitBadInput, var.var_name + ": command text '" + var.get_cmd + "' is no number");
    }
  };

  std::string archive;
  if (!operation) {
    const std::vector<std::string> names = DownloadableLogNames(table);
    if (names.empty()) throw CliError(kExitBadInput, "the table of " + session.options().model + " names no logs");
    const std::string stamp = LocalStamp("%Y%m%d-%H%M%S");
    for (const std::string& name : names) {
      const VarInfo* var = table.FindByName(name);
      const NamedCommand named = command_of(*var, {});
      std::vector<uint8_t> body;
      Json row{{"name", name}};
      if (client.DownloadQuery(named.payload, body, named.command.cmd) != 0) {
        const std::string fault = name + " download failed, return code " + std::to_string(client.GetLastReturnCode());
        row["error"] = fault;
        fail(fault);
      } else {
        // The name comes from the table: it must not lead the file out of the folder.
        const fs::path path = fs::path(dir) / (SafeLogFileStem(name) + "_" + stamp + ".bin");
        row["file"] = path.string();
        row["bytes"] = body.size();
        if (!WriteFile(path, body)) fail("cannot write " + path.string());
      }
      files.push_back(row);
    }
  } else {
    const VarInfo* var = FindNamedVar(table, {"Operation Log", "operation log"});
    if (!var) throw CliError(kExitBadInput, "the table of " + session.options().model + " has no operation log");
    const std::string stamp = LocalStamp("%Y_%m_%d_%H_%M_%S");
    archive = fs::absolute(fs::path(dir) / ("operation_log_" + stamp + ".tar")).string();
    // The parts are gathered in a folder of their own, which goes once the archive holds them.
    const fs::path work = fs::path(dir) / ("operation_log_" + stamp);
    fs::create_directories(work, ec);
    if (!fs::is_directory(work)) throw CliError(kExitBadInput, "cannot create folder " + work.string());
    std::vector<std::string> args{"tar", "-cvf", archive};
    for (const OperationLogPart& part : kOperationLogParts) {
      const NamedCommand named = command_of(*var, {part.selector[0], part.selector[1]});
      std::vector<uint8_t> body;
      const std::string name = std::string(part.prefix) + stamp + ".bin";
      Json row{{"name", name}};
      if (client.DownloadQuery(named.payload, body, named.command.cmd) != 0) {
        const std::string fault = name + ": download failed, return code " + std::to_string(client.GetLastReturnCode());
        row["error"] = fault;
        fail(fault);
      }
      row["bytes"] = body.size();
      if (!WriteFile(work / name, body)) fail("cannot write " + (work / name).string());
      args.push_back(name);
      files.push_back(row);
    }
    std::string tar_output;
    const int tar = RunProgram(args, work.string(), kTarTimeoutMs, &tar_output);
    if (tar != 0) {
      const std::string said = tar_output.substr(0, tar_output.find('\n'));
      fail("tar failed (" + (tar < 0 ? std::string("did not run or overran 30 s") : "status " + std::to_string(tar)) +
           (said.empty() ? "" : ": " + said) + "); the parts stay in " + work.string());
    } else if (!all_ok) {
      first_fault += "; the parts stay in " + work.string();
    } else {
      for (const OperationLogPart& part : kOperationLogParts)
        fs::remove(work / (std::string(part.prefix) + stamp + ".bin"), ec);
      fs::remove(work, ec);
    }
  }

  if (ctx.json) {
    Json report{{"files", files}};
    if (operation) report["archive"] = archive;
    report["ok"] = all_ok;
    *ctx.out << report.dump(2) << "\n";
  } else {
    for (const Json& row : files) {
      if (row.contains("error"))
        *ctx.out << row["name"].get<std::string>() << ": " << row["error"].get<std::string>() << "\n";
      else if (row.contains("file"))
        *ctx.out << row["file"].get<std::string>() << "  " << row["bytes"].get<size_t>() << " bytes\n";
    }
    if (operation && all_ok) *ctx.out << archive << "  " << files.size() << " parts\n";
  }
  if (!all_ok) throw CliError(kExitSensor, first_fault);
  return 0;
}

int Upgrade(const Context& ctx, const std::string& file, const std::string& var_name, bool restart, unsigned wait_s) {
  std::ifstream in(file, std::ios::binary);
  if (!in) throw CliError(kExitBadInput, "cannot open " + file);
  const std::vector<uint8_t> data((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  if (data.empty()) throw CliError(kExitBadInput, file + " is empty");

  std::optional<Session> own;
  Session& session = Opened(ctx, own);
  const VarInfo* var = nullptr;
  if (!var_name.empty()) {
    var = &FindVariable(session.table(), var_name);
  } else {
    for (const VarInfo* record : session.table().records())
      if (record->component_type == 4 && !var) var = record;
    if (!var)
      throw CliError(kExitBadInput,
                     "the table of " + session.options().model + " has no upgrade row; name one with --var");
  }
  // The upgrade writes to the sensor, so the set command names it; else the get command.
  std::string command = var->set_cmd.empty() ? var->get_cmd : var->set_cmd;
  if (command.empty()) throw CliError(kExitBadInput, "the table gives " + var->var_name + " no command");
  const std::string command_shown = command;

  const uint32_t pieces = static_cast<uint32_t>((data.size() + kPieceBytes - 1) / kPieceBytes);
  std::atomic<uint32_t> progress{0};
  std::atomic<bool> done{false};
  int ret = -1;
  std::string fault;
  const auto site = session.JournalSite();
  std::thread transfer([&] {
    try {
      ret = session.client().TransferFileByCmdText(data, command, progress);
    } catch (const std::exception& e) {
      fault = e.what();
    }
    done.store(true);
  });
  Progress bar(*ctx.err, ctx.terminal, pieces);
  const auto show = [&](uint32_t piece) { ctx.progress ? ctx.progress(piece, pieces) : bar.Show(piece); };
  while (!done.load()) {
    show(progress.load());
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
  }
  transfer.join();
  if (fault.empty())
    RecordExchange(site, "upgrade", fs::path(file).filename().string(), ret, session.client().GetLastReturnCode());
  if (ret == 0) show(pieces);
  if (!ctx.progress) bar.End();
  if (!fault.empty()) throw CliError(kExitBadInput, var->var_name + ": command text '" + command_shown + "': " + fault);
  if (ret != 0)
    throw CliError(kExitSensor, "upgrade transfer failed at piece " + std::to_string(progress.load()) + " of " +
                                    std::to_string(pieces) + ", return code " +
                                    std::to_string(session.client().GetLastReturnCode()));

  if (restart) {
    // The sensor takes its time with the image before it will restart.
    if (!ctx.json) *ctx.out << "transmitted; restarting the sensor in " << wait_s << " s\n" << std::flush;
    std::this_thread::sleep_for(std::chrono::seconds(wait_s));
    SendRestartOrReset(session, false);
  }
  if (ctx.json) {
    *ctx.out
        << Json{{"file", file},     {"bytes", data.size()}, {"variable", var->var_name}, {"command", command_shown},
                {"pieces", pieces}, {"restarted", restart}}
               .dump(2)
        << "\n";
  } else {
    *ctx.out << (restart ? "upgrade sent; the sensor restarts\n"
                         : "upgrade sent; the sensor takes it at its next restart\n");
  }
  return 0;
}

}  // namespace varkel::cli
