#include "cli_session.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <thread>

#include "change_journal.h"
#include "data_root.h"
#include "ktc_fov.h"
#include "str_parser.h"
#include "var_info.h"

namespace varkel::cli {
namespace {

std::string Trim(const std::string& text) {
  const size_t first = text.find_first_not_of(" \t\r\n");
  if (first == std::string::npos) return "";
  return text.substr(first, text.find_last_not_of(" \t\r\n") - first + 1);
}

std::string Unquote(std::string text) {
  if (text.size() >= 2 && text.front() == '"' && text.back() == '"') text = text.substr(1, text.size() - 2);
  return text;
}

// The documents folder as the desktop names it (XDG user dirs), else ~/Documents.
std::string DocumentsDir() {
  const char* home_env = std::getenv("HOME");
  const std::string home = home_env ? home_env : ".";
  const char* config_env = std::getenv("XDG_CONFIG_HOME");
  const std::string config = config_env && *config_env ? config_env : home + "/.config";
  std::ifstream dirs(config + "/user-dirs.dirs");
  std::string line;
  while (std::getline(dirs, line)) {
    line = Trim(line);
    const std::string key = "XDG_DOCUMENTS_DIR=";
    if (line.compare(0, key.size(), key) != 0) continue;
    std::string value = Unquote(line.substr(key.size()));
    if (value.compare(0, 5, "$HOME") == 0) value = home + value.substr(5);
    if (!value.empty() && value != home) return value;
  }
  return home + "/Documents";
}

}  // namespace

std::string SettingsFilePath() {
  return DocumentsDir() + "/VelmoraDataFiles/RecvSettings.ini";
}

void ApplySettingsFile(const std::string& path, ConnectionOptions& options) {
  std::ifstream in(path);
  std::string line;
  while (std::getline(in, line)) {
    line = Trim(line);
    const size_t eq = line.find('=');
    if (line.empty() || line[0] == '[' || line[0] == ';' || eq == std::string::npos) continue;
    const std::string key = Trim(line.substr(0, eq));
    const std::string value = Unquote(Trim(line.substr(eq + 1)));
    if (key == "device_ip_address" && !value.empty()) options.host = value;
    if (key == "ktc_port") {
      // A port the window could not use either is left at the default.
      char* end = nullptr;
      const long port = std::strtol(value.c_str(), &end, 10);
      if (end && *end == '\0' && port > 0 && port <= 65535) options.port = static_cast<uint16_t>(port);
    }
  }
}

std::string DefaultConfigDir() {
  return quarn::DefaultModelTableDir(quarn::ExecutablePath());
}

std::unique_ptr<ConfigParser> LoadModel(const std::string& dir, const std::string& model) {
  const std::vector<std::string> models = ConfigParser::ListModels(dir);
  const std::string path = dir + "/" + model + ".csv";
  if (!std::filesystem::is_regular_file(path)) {
    std::string known;
    for (const std::string& m : models) known += (known.empty() ? "" : ", ") + m;
    throw CliError(kExitBadInput, "unknown model '" + model + "' (models in " + dir + ": " + known + ")");
  }
  auto table = std::make_unique<ConfigParser>();
  try {
    table->Load(path);
  } catch (const std::exception& e) {
    throw CliError(kExitBadInput, std::string("model table not loaded: ") + e.what());
  }
  return table;
}

VarInfo& FindVariable(const ConfigParser& table, const std::string& key) {
  if (VarInfo* var = table.FindById(key)) return *var;
  if (VarInfo* var = table.FindByName(key)) return *var;
  throw CliError(kExitBadInput, "unknown variable '" + key + "'");
}

void CliHost::StoreRead(VarInfo& var, const std::string& text) {
  if (edited_.count(var.var_id)) return;
  var.current_val = text;
  from_sensor_.insert(var.var_id);
}

std::array<float, quarn::lidar::kFovRanges> CliHost::FovValues() {
  quarn::lidar::MultiFovConfig fov;
  if (!client_ || quarn::lidar::GetMultiFovConfig(*client_, fov) != 0)
    throw std::invalid_argument("could not read the field of view before writing its channel");
  return fov.start;
}

void CliHost::Edit(VarInfo& var, const std::string& text) {
  var.current_val = text;
  edited_[var.var_id] = text;
  from_sensor_.erase(var.var_id);
}

std::string TcpReachable(const std::string& host, uint16_t port, uint32_t timeout_ms, double* rtt_ms) {
  addrinfo hints{};
  hints.ai_family = AF_INET;
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* found = nullptr;
  if (::getaddrinfo(host.c_str(), nullptr, &hints, &found) != 0 || !found) return "unknown host";
  sockaddr_in address = *reinterpret_cast<sockaddr_in*>(found->ai_addr);
  ::freeaddrinfo(found);
  address.sin_port = htons(port);

  const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  if (fd < 0) return std::strerror(errno);
  const auto start = std::chrono::steady_clock::now();
  std::string reason;
  if (::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0) {
    if (errno != EINPROGRESS) {
      reason = errno == ECONNREFUSED ? "connection refused" : std::strerror(errno);
    } else {
      pollfd p{fd, POLLOUT, 0};
      const int ready = ::poll(&p, 1, static_cast<int>(timeout_ms));
      int error = 0;
      socklen_t len = sizeof(error);
      if (ready == 0) {
        reason = "no answer within " + std::to_string(timeout_ms) + " ms";
      } else if (ready < 0 || ::getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &len) != 0) {
        reason = std::strerror(errno);
      } else if (error != 0) {
        reason = error == ECONNREFUSED ? "connection refused" : std::strerror(error);
      }
    }
  }
  if (rtt_ms) *rtt_ms = std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count();
  ::close(fd);
  return reason;
}

Session::Session(const ConnectionOptions& options, const std::function<void(Session&)>& opened) : options_(options) {
  const std::string dir = options.config_dir.empty() ? DefaultConfigDir() : options.config_dir;
  table_ = LoadModel(dir, options.model);
  const std::string where = options.host + ":" + std::to_string(options.port);
  if (options.ktc_version != 1 && options.ktc_version != 2)
    throw CliError(kExitBadInput, "KTC version must be 1 or 2, not " + std::to_string(options.ktc_version));
  // The client's connect thread only says whether it is open; a plain connect first
  // says why not.
  const std::string unreachable = TcpReachable(options.host, options.port, options.timeout_ms);
  if (!unreachable.empty()) throw CliError(kExitSensor, "cannot reach " + where + ": " + unreachable);

  using quarn::lidar::KtcClient;
  client_ = std::make_unique<KtcClient>(
      options.host, options.port, false, options.tls ? KtcClient::kClientVerifiedTls : KtcClient::kClientTcp,
      static_cast<uint8_t>(options.ktc_version), options.cert, options.key, options.ca, options.timeout_ms,
      options.timeout_ms, options.timeout_ms / 1000.0f, 0);
  // Over TLS the handshake may take its own time-out after the connect's.
  const auto deadline = std::chrono::steady_clock::now() +
                        std::chrono::milliseconds(options.tls ? 2 * options.timeout_ms + 1000 : options.timeout_ms);
  while (!client_->IsOpen() && std::chrono::steady_clock::now() < deadline &&
         (!options.tls || client_->ConnectError().empty()))
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  if (options.tls && !client_->IsOpen()) {
    const std::string why = client_->ConnectError();
    throw TlsRefused(kExitSensor, "no verified TLS connection to " + where + ": " +
                                      (why.empty() ? "the handshake did not end in time" : why));
  }
  if (!client_->IsOpen()) throw CliError(kExitSensor, "cannot reach " + where + ": the connection was not opened");
  // The window's probe: command 7, else 8.
  std::vector<uint8_t> reply;
  if (client_->QueryCommand({}, reply, 7) != 0 && client_->QueryCommand({}, reply, 8) != 0)
    throw CliError(kExitSensor, where + " accepts connections but does not answer KTC " +
                                    std::to_string(options.ktc_version) + ".0");
  host_ = CliHost(client_.get());
  if (opened) opened(*this);
}

quarn::journal::Site Session::JournalSite() {
  return ChangeSite(host_, *client_, *table_);
}

std::vector<VarInfo*> Session::Readable() const {
  std::vector<VarInfo*> vars;
  for (VarInfo* var : table_->records())
    if (IsReadable(*var)) vars.push_back(var);
  return vars;
}

std::map<std::string, std::string> Session::Read(const std::vector<VarInfo*>& vars) {
  std::map<std::string, std::string> failures;
  for (const varkel::ReadGroup& group : varkel::GroupForReading(vars)) {
    std::vector<uint8_t> reply;
    const int ret = varkel::QueryGroup(*client_, *group.vars.front(), reply);
    if (ret != 0) {
      const std::string why = ret == varkel::kEmptyReply
                                  ? "empty reply to " + group.vars.front()->get_cmd
                                  : "no reply to " + group.vars.front()->get_cmd + " (return code " +
                                        std::to_string(client_->GetLastReturnCode()) + ")";
      for (const VarInfo* var : group.vars) failures[var->var_id] = why;
      continue;
    }
    std::vector<uint8_t> slice;
    for (VarInfo* var : group.vars) {
      std::string fault;
      switch (varkel::CutValue(host_, *table_, *var, var->get_cmd, reply, slice, &fault)) {
        case varkel::CutResult::kStored:
          break;
        case varkel::CutResult::kNoPosition:
          failures[var->var_id] = "the table gives it no position in " + var->get_cmd;
          break;
        case varkel::CutResult::kOutsideReply:
          failures[var->var_id] = "its field lies outside the reply to " + var->get_cmd;
          break;
        case varkel::CutResult::kBadValue:
          failures[var->var_id] = fault;
          break;
      }
    }
  }
  return failures;
}

}  // namespace varkel::cli
