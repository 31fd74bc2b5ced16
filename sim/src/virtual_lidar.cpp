#include "virtual_lidar.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <fstream>
#include <iterator>

#include "command_key.h"
#include "device_log.h"
#include "firmware_image.h"
#include "ktc_wire.h"
#include "model_table.h"
#include "ota_receiver.h"
#include "platform/net.h"
#include "point_cloud.h"
#include "pty_pair.h"
#include "register_bank.h"
#include "reply_path.h"
#include "return_codes.h"
#include "serial_wire.h"
#include "udp_emitter.h"

namespace varkel::sim {

namespace net = quarn::lidar::net;

namespace {

constexpr int kPollMs = 100;
constexpr int kDefaultUdpRate = 10;
// The small serial sensors' KTC side: 0xFF with 00 01 39 + rate sets the baud rate,
// 0xFF with 00 01 asks for it.
constexpr uint8_t kBaudPrefix[] = {0x00, 0x01, 0x39};
// The small sensors' network block (read) and destination (write) over KTC.
constexpr uint8_t kNetworkBlockCmd = 0x08;
constexpr uint8_t kSetDestinationCmd = 0x20;
// A whole "$LDOTA," frame carried by KTC, and the junction box's file command.
constexpr uint8_t kOtaCmd = 0x84;
constexpr uint8_t kJunctionBoxCmd = 0x83;
constexpr uint32_t kBaudRates[] = {9600,    19200,   38400,   57600,   115200,  230400,  460800, 921600,
                                   1000000, 1500000, 2000000, 3000000, 3125000, 4000000, 5000000};

// A KTC client reading a log of tens of MiB slowly is still reading; one that takes
// nothing for this long is gone. A serial line nobody reads gives up much sooner, so the
// serial thread is not held up.
constexpr int kSocketStallMs = 30000;
constexpr int kSerialStallMs = 1000;

// Writes everything, waiting while the descriptor is full, until it took nothing for the
// stall limit. A socket shut down by Stop or a restart fails the write at once.
bool WriteAll(int fd, const std::vector<uint8_t>& bytes, bool socket) {
  const int stall_limit_ms = socket ? kSocketStallMs : kSerialStallMs;
  size_t done = 0;
  int stalled_ms = 0;
  while (done < bytes.size()) {
    const ssize_t n = socket ? ::send(fd, bytes.data() + done, bytes.size() - done, MSG_NOSIGNAL | MSG_DONTWAIT)
                             : ::write(fd, bytes.data() + done, bytes.size() - done);
    if (n > 0) {
      done += static_cast<size_t>(n);
      stalled_ms = 0;
    } else if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR)) {
      if (stalled_ms >= stall_limit_ms) return false;
      pollfd p{fd, POLLOUT, 0};
      const int r = ::poll(&p, 1, kPollMs);
      if (r < 0 && errno != EINTR) return false;
      if (r == 0) stalled_ms += kPollMs;
    } else {
      return false;
    }
  }
  return true;
}

std::vector<uint8_t> CodeBytes(uint32_t code) {
  std::vector<uint8_t> b(4);
  WriteU32BE(b.data(), code);
  return b;
}

// The title of a log's lines: the variable's name, and for the operation log the part the
// selector picks. nullopt when the selector does not fit the log.
template <typename Log>
std::optional<std::string> LogTitle(const Log& log, std::optional<uint16_t> selector) {
  if (!log.operation) return selector ? std::nullopt : std::optional<std::string>(log.name);
  if (!selector) return std::nullopt;
  const auto part = OperationLogPartOf(*selector);
  if (!part) return std::nullopt;
  return log.name + " " + part->name;
}

}  // namespace

struct VirtualLidar::Connection {
  int fd = -1;  // guarded by conn_mu_ once the thread runs
  std::thread thread;
  std::atomic<bool> done{false};
};

struct VirtualLidar::Reply {
  bool send = true;
  uint8_t return_code = 0;
  std::vector<uint8_t> payload;
  bool close_after = false;
  Lifecycle lifecycle = Lifecycle::kNone;  // what the sensor does once the reply is out
};

VirtualLidar::VirtualLidar(SimOptions options)
    : opt_(std::move(options)),
      path_(std::make_unique<ReplyPath>()),
      restart_delay_ms_(opt_.restart_delay_ms),
      log_size_(std::min(opt_.log_size, kMaxLogSize)) {
  path_->set_verbose(opt_.verbose);
}

VirtualLidar::~VirtualLidar() {
  Stop();
}

bool VirtualLidar::Start(std::string* error) {
  if (running_.load()) return true;
  const std::string dir = opt_.config_dir.empty() ? std::string("Config/varID") : opt_.config_dir;
  const std::string table = dir + "/" + opt_.model + ".csv";
  if (!std::ifstream(table).good()) {
    if (error) *error = "model table not found: " + table;
    return false;
  }
  auto vars = LoadModelTable(table, error);
  if (!vars) return false;
  {
    std::ifstream in(table, std::ios::binary);
    table_bytes_.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
  }
  FindMaintenanceVariables(*vars);
  upgrade_key_ = UpgradeCommand(*vars);
  bank_ = std::make_unique<RegisterBank>(std::move(*vars), opt_.model, opt_.live_values);
  {
    std::lock_guard<std::mutex> lock(stop_mu_);
    stopping_ = false;
    restart_step_ = RestartStep::kNone;
  }
  running_.store(true);
  if (!StartKtc(error) || (opt_.serial && !StartSerial(error))) {
    Stop();
    return false;
  }
  if (!opt_.udp_target.empty()) {
    udp_ = std::make_unique<UdpEmitter>(*path_);
    std::string why;
    if (!udp_->Start(opt_.udp_target, opt_.udp_rate > 0 ? opt_.udp_rate : kDefaultUdpRate, &why)) {
      if (error) *error = "UDP emitter: " + why;
      Stop();
      return false;
    }
  }
  return true;
}

void VirtualLidar::FindMaintenanceVariables(const std::vector<BankVariable>& vars) {
  // The program looks these up by name, the first spelling before the second.
  auto find = [&](const char* name, const char* second) -> const BankVariable* {
    for (const char* n : {name, second})
      for (const auto& v : vars)
        if (v.var_name == n) return &v;
    return nullptr;
  };
  restart_key_.reset();
  reset_key_.reset();
  if (const BankVariable* v = find("Restart", "restart")) restart_key_ = ParseCommandText(v->set_cmd);
  if (const BankVariable* v = find("Reset", "reset")) reset_key_ = ParseCommandText(v->set_cmd);
  const BankVariable* operation = find("Operation Log", "operation log");
  logs_.clear();
  for (const auto& v : vars) {
    const auto key = ParseCommandText(v.get_cmd);
    if (v.var_type != "raw" || !key || ParseCommandText(v.set_cmd)) continue;
    logs_.push_back(LogVar{v.var_name, *key, v.get_payload, &v == operation});
  }
}

int VirtualLidar::OpenListener(uint16_t port, std::string* error) {
  const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
  auto fail = [&](const std::string& why) {
    if (error) *error = why;
    if (fd >= 0) net::CloseSocket(fd);
    return -1;
  };
  if (fd < 0) return fail(std::string("socket: ") + net::ErrorText(errno));
  // Reuse lets a restarted simulator take its port back from connections in TIME_WAIT;
  // a port another program listens on still refuses the bind.
  const int one = 1;
  setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof(one));
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_port = htons(port);
  if (inet_pton(AF_INET, opt_.host.c_str(), &addr.sin_addr) != 1) return fail("bad host address: " + opt_.host);
  if (::bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0) {
    const int err = errno;
    if (err == EADDRINUSE) return fail("port " + std::to_string(port) + " on " + opt_.host + " is already in use");
    return fail("cannot bind " + opt_.host + ":" + std::to_string(port) + ": " + net::ErrorText(err));
  }
  if (::listen(fd, 8) != 0) return fail(std::string("listen: ") + net::ErrorText(errno));
  return fd;
}

bool VirtualLidar::StartKtc(std::string* error) {
  net::Startup();
  ktc_started_ = true;
  if (::pipe2(wake_pipe_, O_CLOEXEC | O_NONBLOCK) != 0) {
    if (error) *error = std::string("pipe: ") + net::ErrorText(errno);
    return false;
  }
  listen_fd_ = OpenListener(opt_.port, error);
  if (listen_fd_ < 0) return false;
  sockaddr_in addr{};
  socklen_t len = sizeof(addr);
  getsockname(listen_fd_, reinterpret_cast<sockaddr*>(&addr), &len);
  port_.store(ntohs(addr.sin_port));
  accept_thread_ = std::thread(&VirtualLidar::AcceptLoop, this);
  return true;
}

bool VirtualLidar::StartSerial(std::string* error) {
  cmd_pty_ = std::make_unique<PtyPair>();
  data_pty_ = std::make_unique<PtyPair>();
  std::string why;
  if (!cmd_pty_->Open(&why) || !data_pty_->Open(&why)) {
    if (error) *error = "pseudo-terminal: " + why;
    return false;
  }
  serial_thread_ = std::thread(&VirtualLidar::SerialLoop, this);
  return true;
}

void VirtualLidar::Stop() {
  running_.store(false);
  {
    std::lock_guard<std::mutex> lock(stop_mu_);
    stopping_ = true;
  }
  stop_cv_.notify_all();
  if (accept_thread_.joinable()) accept_thread_.join();
  if (listen_fd_ >= 0) net::CloseSocket(listen_fd_);
  listen_fd_ = -1;
  DropConnections();
  for (int& fd : wake_pipe_) {
    if (fd >= 0) ::close(fd);
    fd = -1;
  }
  if (ktc_started_) net::Cleanup();
  ktc_started_ = false;
  if (serial_thread_.joinable()) serial_thread_.join();
  if (udp_) udp_->Stop();
  udp_.reset();
  cmd_pty_.reset();
  data_pty_.reset();
}

bool VirtualLidar::Pause(int ms) {
  std::unique_lock<std::mutex> lock(stop_mu_);
  if (ms <= 0) return stopping_;
  return stop_cv_.wait_for(lock, std::chrono::milliseconds(ms), [this] { return stopping_; });
}

std::string VirtualLidar::command_port_path() const {
  return cmd_pty_ ? cmd_pty_->path() : std::string();
}
std::string VirtualLidar::data_port_path() const {
  return data_pty_ ? data_pty_->path() : std::string();
}

void VirtualLidar::DropConnections() {
  std::vector<std::unique_ptr<Connection>> conns;
  {
    std::lock_guard<std::mutex> lock(conn_mu_);
    for (auto& c : connections_)
      if (c->fd >= 0) ::shutdown(c->fd, SHUT_RDWR);
    conns.swap(connections_);
  }
  for (auto& c : conns)
    if (c->thread.joinable()) c->thread.join();
}

void VirtualLidar::AcceptLoop() {
  while (running_.load()) {
    pollfd p[2] = {{listen_fd_, POLLIN, 0}, {wake_pipe_[0], POLLIN, 0}};
    if (::poll(p, 2, kPollMs) <= 0) continue;
    if (p[1].revents & POLLIN) {
      uint8_t drain[16];
      while (::read(wake_pipe_[0], drain, sizeof(drain)) > 0) {
      }
      bool requested = false;
      {
        std::lock_guard<std::mutex> lock(stop_mu_);
        requested = restart_step_ == RestartStep::kRequested;
      }
      if (requested) RunRestart();
      continue;
    }
    if (!(p[0].revents & POLLIN)) continue;
    const int fd = ::accept(listen_fd_, nullptr, nullptr);
    if (fd < 0) continue;
    path_->Note("KTC connection accepted");
    std::lock_guard<std::mutex> lock(conn_mu_);
    // Finished connections are reaped here, so a long session does not pile up threads.
    for (auto it = connections_.begin(); it != connections_.end();) {
      if ((*it)->done.load()) {
        (*it)->thread.join();
        it = connections_.erase(it);
      } else {
        ++it;
      }
    }
    auto conn = std::make_unique<Connection>();
    conn->fd = fd;
    Connection* raw = conn.get();
    connections_.push_back(std::move(conn));
    raw->thread = std::thread(&VirtualLidar::Serve, this, raw);
  }
}

void VirtualLidar::Serve(Connection* conn) {
  int fd;
  {
    std::lock_guard<std::mutex> lock(conn_mu_);
    fd = conn->fd;
  }
  KtcRequestReader reader(opt_.ktc_version);
  const int version = opt_.ktc_version == 2 ? 2 : 1;
  std::vector<uint8_t> buf(4096);
  bool open = true;
  auto close_conn = [&](bool reset) {
    std::lock_guard<std::mutex> lock(conn_mu_);
    if (reset) {
      // Linger 0 turns the close into a reset.
      linger lg{1, 0};
      setsockopt(conn->fd, SOL_SOCKET, SO_LINGER, &lg, sizeof(lg));
    }
    ::close(conn->fd);
    conn->fd = -1;
    open = false;
  };
  auto write_fd = [&](const std::vector<uint8_t>& bytes) { return WriteAll(fd, bytes, true); };

  while (open && running_.load()) {
    pollfd p{fd, POLLIN, 0};
    const int r = ::poll(&p, 1, kPollMs);
    if (r == 0 || (r < 0 && errno == EINTR)) continue;
    const ssize_t n = r > 0 ? ::recv(fd, buf.data(), buf.size(), 0) : -1;
    if (n <= 0) break;
    reader.Feed(buf.data(), static_cast<size_t>(n));
    if (reader.broken()) {
      path_->Note("KTC request announces an impossible length; connection dropped");
      break;
    }
    while (open) {
      const size_t noise_before = reader.discarded();
      auto req = reader.Next();
      if (reader.discarded() != noise_before)
        path_->Note("KTC in:  " + std::to_string(reader.discarded() - noise_before) + " bytes before a header skipped");
      if (!req) break;
      path_->TraceIn("KTC", req->frame.data(), req->frame.size());
      Count(*req);
      Reply reply = Dispatch(*req, conn);
      FailureSpec failure = FailureFor(req->cmd);
      bool silent = false;
      {
        std::lock_guard<std::mutex> lock(state_mu_);
        silent = silent_[req->cmd];
      }
      if (silent || !reply.send) continue;
      // A swallowed or refused request leaves the sensor running; the other failure modes
      // only spoil the reply on its way, the sensor itself has taken the command.
      const bool restart = reply.lifecycle != Lifecycle::kNone && failure.mode != FailureMode::kNoReply &&
                           failure.mode != FailureMode::kReturnCode && BeginRestart(reply.lifecycle);
      auto frame = BuildKtcReply(version, req->cmd, reply.return_code, reply.payload);
      std::vector<uint8_t>().swap(reply.payload);  // a log is big; one copy in memory is enough
      for (const WriteStep& step : ShapeReply(version, std::move(frame), failure.mode, failure.param)) {
        if (Pause(step.delay_ms)) {
          close_conn(false);
          break;
        }
        path_->Send("KTC", step.bytes, write_fd);
        if (step.after != WriteStep::After::kNothing) {
          close_conn(step.after == WriteStep::After::kReset);
          break;
        }
      }
      if (open && reply.close_after) close_conn(false);
      if (restart) RestartReplySent();
    }
  }
  {
    std::lock_guard<std::mutex> lock(state_mu_);
    // A transfer whose connection went away is over, and failed.
    if (transfer_owner_ == conn) {
      files_.Abandon();
      transfer_owner_ = nullptr;
    }
  }
  if (open) close_conn(false);
  if (SmallSensorOverKtc()) {
    // The program let go of the line: an image half sent is lost, and a sensor in upgrade
    // mode reboots into what arrived whole.
    RecordOta(small_.AbandonOta(), "OTA image abandoned: the connection closed");
    const std::string rebooted = small_.Reboot();
    if (!rebooted.empty()) path_->Note(rebooted);
  }
  conn->done.store(true);
}

void VirtualLidar::Count(const KtcRequest& req) {
  std::lock_guard<std::mutex> lock(state_mu_);
  ++counts_[req.cmd];
  last_payload_[req.cmd] = req.payload;
  if (req.cmd == kExtendedCommand && req.payload.size() >= 4) {
    const uint32_t code = ReadU32BE(req.payload.data());
    ++ext_counts_[code];
    ext_last_payload_[code].assign(req.payload.begin() + 4, req.payload.end());
  }
}

VirtualLidar::FailureSpec VirtualLidar::FailureFor(uint8_t cmd) const {
  std::lock_guard<std::mutex> lock(state_mu_);
  auto it = failures_.find(cmd);
  if (it == failures_.end()) it = failures_.find(-1);
  return it == failures_.end() ? FailureSpec{} : it->second;
}

VirtualLidar::Reply VirtualLidar::Dispatch(const KtcRequest& req, const Connection* conn) {
  Reply r;
  const std::vector<uint8_t>& p = req.payload;
  if (req.cmd == kExtendedCommand) {
    if (p.size() == 7 && std::equal(kBaudPrefix, kBaudPrefix + 3, p.begin())) {
      const uint32_t rate = ReadU32BE(p.data() + 3);
      const bool taken = SupportedBaudRate(rate);
      {
        std::lock_guard<std::mutex> lock(state_mu_);
        baud_requests_.push_back(BaudRequest{rate, taken});
      }
      if (!taken) {
        r.return_code = kRcBadPayload;
        path_->Note("baud rate " + std::to_string(rate) + " refused: not a rate of this sensor");
        return r;
      }
      baud_rate_.store(rate);
      path_->Note("baud rate now " + std::to_string(rate));
      return r;
    }
    if (p.size() == 2 && p[0] == kBaudPrefix[0] && p[1] == kBaudPrefix[1]) {
      r.payload = CodeBytes(baud_rate_.load());
      return r;
    }
    if (p.size() < 4) {
      r.return_code = kRcBadPayload;
      return r;
    }
    const uint32_t code = ReadU32BE(p.data());
    const std::vector<uint8_t> rest(p.begin() + 4, p.end());
    if (auto inner = ParseWholeV1Frame(rest.data(), rest.size()); inner && inner->cmd == req.cmd)
      return OnPiece(req.cmd, CommandKey{true, code}, CodeBytes(code), inner->payload, conn);
    if (auto log = LogAnswer(CommandKey{true, code}, rest)) return std::move(*log);
    if (auto a = bank_->Handle(CommandKey{true, code}, rest)) {
      r.return_code = a->return_code;
      r.payload = std::move(a->payload);
      r.lifecycle = LifecycleOf(CommandKey{true, code}, r.return_code);
      return r;
    }
    r.return_code = kRcUnknownCommand;
    r.payload = CodeBytes(code);
    return r;
  }
  if (auto inner = ParseWholeV1Frame(p.data(), p.size()); inner && inner->cmd == req.cmd)
    return OnPiece(req.cmd, CommandKey{false, req.cmd}, {}, inner->payload, conn);
  if (auto fov = FovAnswer(req.cmd, p)) return *fov;
  if (req.cmd == kTableReadCmd && p.empty()) {
    r.payload = table_bytes_;
    return r;
  }
  if (auto log = LogAnswer(CommandKey{false, req.cmd}, p)) return std::move(*log);
  if (auto small = SmallSensorKtcAnswer(req.cmd, p)) return *small;
  const bool probe = req.cmd == 7 || req.cmd == 8;
  if (auto a = bank_->Handle(CommandKey{false, req.cmd}, p)) {
    // A table may use 7 or 8 for a read of its own; a probe still gets its plain answer.
    if (!(probe && a->return_code != 0)) {
      r.return_code = a->return_code;
      r.payload = std::move(a->payload);
      r.lifecycle = LifecycleOf(CommandKey{false, req.cmd}, r.return_code);
      return r;
    }
  }
  // The probes of the connection lifecycle answer with an empty payload.
  if (probe) return r;
  // The table read-back is known to every model; only its payload can be wrong.
  r.return_code = req.cmd == kTableReadCmd ? kRcBadPayload : kRcUnknownCommand;
  return r;
}

std::optional<VirtualLidar::Reply> VirtualLidar::LogAnswer(const CommandKey& key, const std::vector<uint8_t>& p) {
  bool known = false;
  for (const LogVar& log : logs_) {
    if (!(log.key == key)) continue;
    known = true;
    const size_t n = log.payload.size();
    if (p.size() != n + (log.operation ? 2 : 0) || !std::equal(log.payload.begin(), log.payload.end(), p.begin()))
      continue;
    std::optional<uint16_t> selector;
    if (log.operation) selector = static_cast<uint16_t>((p[n] << 8) | p[n + 1]);
    const auto title = LogTitle(log, selector);
    if (!title) continue;
    Reply r;
    if (key.extended) r.payload = CodeBytes(key.code);
    const auto body = BuildLogBody(*title, log_size_.load());
    if (r.payload.empty()) {
      r.payload = std::move(body);
    } else {
      r.payload.insert(r.payload.end(), body.begin(), body.end());
    }
    return r;
  }
  if (!known) return std::nullopt;
  // A log's command answers its log only: another payload or selector is refused.
  Reply r;
  r.return_code = kRcBadPayload;
  if (key.extended) r.payload = CodeBytes(key.code);
  return r;
}

VirtualLidar::Lifecycle VirtualLidar::LifecycleOf(const CommandKey& key, uint8_t return_code) const {
  if (return_code != 0) return Lifecycle::kNone;
  if (reset_key_ && *reset_key_ == key) return Lifecycle::kReset;
  if (restart_key_ && *restart_key_ == key) return Lifecycle::kRestart;
  return Lifecycle::kNone;
}

bool VirtualLidar::BeginRestart(Lifecycle kind) {
  {
    std::lock_guard<std::mutex> lock(stop_mu_);
    if (stopping_ || restart_step_ != RestartStep::kNone) return false;
    restart_step_ = RestartStep::kRequested;
    restart_kind_ = kind;
  }
  const uint8_t wake = 1;
  if (::write(wake_pipe_[1], &wake, 1) != 1) {
    // The pipe holds a wake-up already (it is only ever drained by the accept thread).
  }
  // The listening socket goes first, so that no client can connect between the reply and
  // the restart.
  std::unique_lock<std::mutex> lock(stop_mu_);
  stop_cv_.wait(lock, [this] { return stopping_ || restart_step_ == RestartStep::kListenerClosed; });
  return restart_step_ == RestartStep::kListenerClosed;
}

void VirtualLidar::RestartReplySent() {
  {
    std::lock_guard<std::mutex> lock(stop_mu_);
    if (restart_step_ == RestartStep::kListenerClosed) restart_step_ = RestartStep::kReplied;
  }
  stop_cv_.notify_all();
}

void VirtualLidar::RunRestart() {
  Lifecycle kind;
  {
    std::lock_guard<std::mutex> lock(stop_mu_);
    net::CloseSocket(listen_fd_);
    listen_fd_ = -1;
    restart_step_ = RestartStep::kListenerClosed;
    kind = restart_kind_;
  }
  stop_cv_.notify_all();
  {
    std::unique_lock<std::mutex> lock(stop_mu_);
    stop_cv_.wait(lock, [this] { return stopping_ || restart_step_ == RestartStep::kReplied; });
    if (stopping_) return;
  }
  DropConnections();
  if (kind == Lifecycle::kReset) {
    bank_->RestoreDefaults();
    fov_.RestoreDefaults();
  }
  // After the defaults: the firmware a reset restarts into is the newly flashed one.
  ApplyPendingUpgrade();
  {
    std::lock_guard<std::mutex> lock(state_mu_);
    ++restarts_;
    if (kind == Lifecycle::kReset) ++resets_;
  }
  path_->Note(std::string(kind == Lifecycle::kReset ? "reset" : "restart") + ": connections closed, back in " +
              std::to_string(restart_delay_ms_.load()) + " ms");
  if (Pause(restart_delay_ms_.load())) return;
  bank_->RestartRunTimes();
  std::string why;
  // Another program may have taken the port meanwhile; a sensor keeps trying.
  while ((listen_fd_ = OpenListener(port_.load(), &why)) < 0) {
    path_->Note("restart: " + why + "; trying again");
    if (Pause(10 * kPollMs)) return;
  }
  path_->Note("restart: listening again");
  std::lock_guard<std::mutex> lock(stop_mu_);
  restart_step_ = RestartStep::kNone;
}

bool VirtualLidar::SmallSensorOverKtc() const {
  return opt_.model == "Zelto-KTC" || opt_.model == "Marvo-KTC";
}

std::optional<VirtualLidar::Reply> VirtualLidar::SmallSensorKtcAnswer(uint8_t cmd, const std::vector<uint8_t>& p) {
  if (!SmallSensorOverKtc()) return std::nullopt;
  Reply r;
  switch (cmd) {
    case SmallSensor::kGet:
    case SmallSensor::kSet: {
      // The payload is the serial request's; the reply is the body the serial line would
      // carry: [length = bytes after the request type, request type, ...].
      const std::vector<uint8_t> rest = small_.Command(cmd, p);
      r.payload.push_back(static_cast<uint8_t>(rest.size()));
      r.payload.push_back(cmd);
      r.payload.insert(r.payload.end(), rest.begin(), rest.end());
      return r;
    }
    case kNetworkBlockCmd:
      // Also the probe's fall-back, which ignores what it gets.
      r.payload = small_.NetworkBlock();
      return r;
    case kSetDestinationCmd:
      if (!small_.SetDestination(p)) r.return_code = kRcBadPayload;
      return r;
    case kOtaCmd: {
      // The payload is one whole serial OTA frame, read by the sensor's own frame reader.
      SerialRequestReader reader;
      reader.Feed(p.data(), p.size());
      const auto frame = reader.Next();
      if (!frame || !frame->ota || frame->frame.size() != p.size()) {
        r.return_code = kRcBadPayload;
        path_->Note("KTC 0x84 without exactly one good OTA frame refused");
        return r;
      }
      bool drop_line = false;
      const auto status = AnswerOta(frame->cmd, frame->value1, frame->value2, frame->payload, drop_line);
      if (!status) {
        r.send = false;
        return r;
      }
      r.payload = {1, frame->cmd, *status};
      r.close_after = drop_line;
      return r;
    }
    default:
      return std::nullopt;
  }
}

std::optional<VirtualLidar::Reply> VirtualLidar::FovAnswer(uint8_t cmd, const std::vector<uint8_t>& p) {
  // Only a table with the field-of-view variable has a field of view.
  if ((cmd != FovBlock::kReadCmd && cmd != FovBlock::kWriteCmd) ||
      !bank_->Knows(CommandKey{false, FovBlock::kReadCmd}) || !bank_->Knows(CommandKey{false, FovBlock::kWriteCmd}))
    return std::nullopt;
  Reply r;
  if (cmd == FovBlock::kReadCmd) {
    // The channel is the variable's field, at byte 0 of the ordinary get reply.
    auto a = bank_->Handle(CommandKey{false, FovBlock::kReadCmd}, p);
    if (!a || a->return_code != 0 || a->payload.empty()) return std::nullopt;
    r.payload = fov_.Reply(a->payload[0]);
    return r;
  }
  if (!fov_.Write(p)) {
    r.return_code = kRcBadPayload;
    return r;
  }
  bank_->Handle(CommandKey{false, FovBlock::kWriteCmd}, {p[0]});
  return r;
}

VirtualLidar::Reply VirtualLidar::OnPiece(uint8_t cmd, const CommandKey& key, const std::vector<uint8_t>& code_prefix,
                                          const std::vector<uint8_t>& piece, const Connection* conn) {
  Reply r;
  r.payload = code_prefix;
  const FailureSpec f = FailureFor(cmd);
  const uint32_t k = piece.size() >= 8 ? ReadU32BE(piece.data() + 4) : 0;
  const uint32_t limit = static_cast<uint32_t>(f.param > 0 ? f.param : 1);
  if (f.mode == FailureMode::kSilentAfterPieces && k > limit) {
    r.send = false;
    path_->Note("file piece swallowed (silent-after-pieces)");
    return r;
  }
  FileReceiver::Result result;
  {
    std::lock_guard<std::mutex> lock(state_mu_);
    if (f.mode == FailureMode::kRefusePiece && k == limit) {
      files_.Abandon();
      transfer_owner_ = nullptr;
      r.return_code = kRcBadPiece;
      path_->Note("file piece refused (refuse-piece)");
      return r;
    }
    result = files_.OnPiece(piece.data(), piece.size());
    transfer_owner_ = files_.pieces_in_progress() > 0 ? conn : nullptr;
    if (result == FileReceiver::Result::kCompleted && SmallSensorOverKtc() &&
        key == CommandKey{false, kJunctionBoxCmd}) {
      ++junction_box_upgrades_;
      path_->Note("junction box image received: " + std::to_string(files_.last()->length) + " bytes, SHA-256 " +
                  files_.last()->sha256_hex);
    }
    if (result == FileReceiver::Result::kCompleted && upgrade_key_ == key) {
      // Flashed, in the sensor's terms; it runs the new image only after a restart.
      ++upgrades_received_;
      upgrade_pending_ = true;
      pending_version_ = ImageVersion(files_.last_complete_data());
    }
  }
  switch (result) {
    case FileReceiver::Result::kAccepted:
    case FileReceiver::Result::kCompleted:
      break;
    case FileReceiver::Result::kBadCrc:
      r.return_code = kRcBadCrc;
      path_->Note("file piece refused: bad CRC");
      return r;
    case FileReceiver::Result::kBadNumber:
    case FileReceiver::Result::kMalformed:
      r.return_code = kRcBadPiece;
      path_->Note("file piece refused: out of order or malformed");
      return r;
  }
  if (f.mode == FailureMode::kDisconnectAfterPieces && k >= limit) r.close_after = true;
  return r;
}

void VirtualLidar::ApplyPendingUpgrade() {
  std::optional<std::string> version;
  {
    std::lock_guard<std::mutex> lock(state_mu_);
    if (!upgrade_pending_) return;
    upgrade_pending_ = false;
    version = pending_version_;
  }
  if (!version) {
    path_->Note("restart: the new image announces no version; Firmware Version unchanged");
  } else if (!bank_->SetValue("Firmware Version", *version)) {
    path_->Note("restart: version text \"" + *version + "\" does not fit Firmware Version; unchanged");
  } else {
    path_->Note("restart: now running firmware " + *version);
  }
}

void VirtualLidar::SerialLoop() {
  SerialRequestReader readers[2];
  PtyPair* ports[2] = {cmd_pty_.get(), data_pty_.get()};
  const char* names[2] = {"UART", "RS485"};
  uint32_t nonce = 0x5EED0001u;
  const int stream_rate = opt_.serial_stream_rate;
  const auto start = std::chrono::steady_clock::now();
  auto next_packet = start;
  uint32_t seq = 0;
  std::vector<uint8_t> buf(4096);
  while (running_.load()) {
    pollfd p[2] = {{ports[0]->master(), POLLIN, 0}, {ports[1]->master(), POLLIN, 0}};
    const int r = ::poll(p, 2, stream_rate > 0 ? 10 : kPollMs);
    for (int i = 0; i < 2 && r > 0; ++i) {
      if (!(p[i].revents & POLLIN)) continue;
      const ssize_t n = ::read(ports[i]->master(), buf.data(), buf.size());
      if (n <= 0) continue;
      readers[i].Feed(buf.data(), static_cast<size_t>(n));
      while (auto req = readers[i].Next()) {
        path_->TraceIn(names[i], req->frame.data(), req->frame.size());
        std::vector<uint8_t> reply;
        if (req->ota) {
          bool drop_line = false;
          bool dead = false;
          {
            std::lock_guard<std::mutex> lock(state_mu_);
            if (req->cmd == OtaReceiver::kStart || req->cmd == OtaReceiver::kComponentStart) serial_ota_dead_ = false;
            dead = serial_ota_dead_;
          }
          const auto status =
              dead ? std::nullopt : AnswerOta(req->cmd, req->value1, req->value2, req->payload, drop_line);
          if (drop_line) {
            // A serial line cannot be hung up; it goes dead instead, and the image is lost.
            std::lock_guard<std::mutex> lock(state_mu_);
            serial_ota_dead_ = true;
          }
          if (drop_line) RecordOta(small_.AbandonOta(), "OTA image abandoned: the line went dead");
          if (!status) continue;
          reply = BuildSerialOtaReply(req->cmd, {*status}, ++nonce);
        } else {
          {
            std::lock_guard<std::mutex> lock(state_mu_);
            ++serial_counts_[req->cmd];
            serial_last_payload_[req->cmd] = req->payload;
          }
          reply = BuildSerialCommandReply(req->cmd, small_.Command(req->cmd, req->payload), ++nonce);
        }
        // Every reply comes back on the data (RS485) line, as the streamed points do; commands
        // arrive on the UART line, firmware frames on the data line.
        const int fd = ports[1]->master();
        path_->Send(names[1], reply, [fd](const std::vector<uint8_t>& b) { return WriteAll(fd, b, false); });
      }
    }
    // p[i].revents with POLLHUP alone (no program on the line) must not spin the loop.
    if (r > 0 && !(p[0].revents & POLLIN) && !(p[1].revents & POLLIN)) Pause(kPollMs / 10);
    if (stream_rate > 0 && std::chrono::steady_clock::now() >= next_packet) {
      next_packet += std::chrono::microseconds(1000000 / stream_rate);
      const auto us =
          std::chrono::duration_cast<std::chrono::microseconds>(std::chrono::steady_clock::now() - start).count();
      const int fd = ports[1]->master();
      // A full line (nobody reading) drops the packet rather than stall the commands.
      path_->Send("RS485", BuildPointCloudPacket(seq++, static_cast<uint64_t>(us)),
                  [fd](const std::vector<uint8_t>& b) {
                    return ::write(fd, b.data(), b.size()) == static_cast<ssize_t>(b.size());
                  });
    }
  }
}

void VirtualLidar::SetFailure(FailureMode mode, int cmd, int param) {
  std::lock_guard<std::mutex> lock(state_mu_);
  if (mode == FailureMode::kNone) {
    failures_.erase(cmd);
  } else {
    failures_[cmd] = FailureSpec{mode, param};
  }
}

void VirtualLidar::ClearFailures() {
  std::lock_guard<std::mutex> lock(state_mu_);
  failures_.clear();
}

void VirtualLidar::SetSilent(uint8_t cmd, bool silent) {
  std::lock_guard<std::mutex> lock(state_mu_);
  silent_[cmd] = silent;
}

void VirtualLidar::SetLinkLost(bool lost) {
  path_->set_link_lost(lost);
}

uint64_t VirtualLidar::CommandCount(uint8_t cmd) const {
  std::lock_guard<std::mutex> lock(state_mu_);
  auto it = counts_.find(cmd);
  return it == counts_.end() ? 0 : it->second;
}

std::vector<uint8_t> VirtualLidar::LastPayload(uint8_t cmd) const {
  std::lock_guard<std::mutex> lock(state_mu_);
  auto it = last_payload_.find(cmd);
  return it == last_payload_.end() ? std::vector<uint8_t>() : it->second;
}

uint64_t VirtualLidar::ExtendedCount(uint32_t code) const {
  std::lock_guard<std::mutex> lock(state_mu_);
  auto it = ext_counts_.find(code);
  return it == ext_counts_.end() ? 0 : it->second;
}

std::vector<uint8_t> VirtualLidar::LastExtendedPayload(uint32_t code) const {
  std::lock_guard<std::mutex> lock(state_mu_);
  auto it = ext_last_payload_.find(code);
  return it == ext_last_payload_.end() ? std::vector<uint8_t>() : it->second;
}

uint64_t VirtualLidar::SerialCommandCount(uint8_t cmd) const {
  std::lock_guard<std::mutex> lock(state_mu_);
  auto it = serial_counts_.find(cmd);
  return it == serial_counts_.end() ? 0 : it->second;
}

std::vector<uint8_t> VirtualLidar::LastSerialPayload(uint8_t cmd) const {
  std::lock_guard<std::mutex> lock(state_mu_);
  auto it = serial_last_payload_.find(cmd);
  return it == serial_last_payload_.end() ? std::vector<uint8_t>() : it->second;
}

void VirtualLidar::ResetCounters() {
  std::lock_guard<std::mutex> lock(state_mu_);
  counts_.clear();
  last_payload_.clear();
  ext_counts_.clear();
  ext_last_payload_.clear();
  serial_counts_.clear();
  serial_last_payload_.clear();
}

uint64_t VirtualLidar::RestartCount() const {
  std::lock_guard<std::mutex> lock(state_mu_);
  return restarts_;
}

uint64_t VirtualLidar::ResetCount() const {
  std::lock_guard<std::mutex> lock(state_mu_);
  return resets_;
}

void VirtualLidar::SetRestartDelay(int ms) {
  restart_delay_ms_.store(std::max(ms, 0));
}

void VirtualLidar::SetLogSize(uint32_t bytes) {
  log_size_.store(std::min(bytes, kMaxLogSize));
}

std::vector<std::string> VirtualLidar::LogNames() const {
  std::vector<std::string> names;
  for (const auto& log : logs_) names.push_back(log.name);
  return names;
}

std::optional<std::vector<uint8_t>> VirtualLidar::LogBody(const std::string& log_name,
                                                          std::optional<uint16_t> selector) const {
  for (const auto& log : logs_) {
    if (log.name != log_name) continue;
    const auto title = LogTitle(log, selector);
    if (!title) return std::nullopt;
    return BuildLogBody(*title, log_size_.load());
  }
  return std::nullopt;
}

std::string VirtualLidar::Value(const std::string& var_name_or_id) const {
  if (!bank_) return std::string();
  return bank_->Value(var_name_or_id).value_or(std::string());
}

bool VirtualLidar::SetValue(const std::string& var_name_or_id, const std::string& text) {
  return bank_ && bank_->SetValue(var_name_or_id, text);
}

std::vector<std::string> VirtualLidar::VariableIds() const {
  return bank_ ? bank_->VariableIds() : std::vector<std::string>();
}

std::optional<VirtualLidar::Transfer> VirtualLidar::LastTransfer() const {
  std::lock_guard<std::mutex> lock(state_mu_);
  return files_.last();
}

uint64_t VirtualLidar::UpgradesReceived() const {
  std::lock_guard<std::mutex> lock(state_mu_);
  return upgrades_received_;
}

std::optional<std::string> VirtualLidar::PendingFirmwareVersion() const {
  std::lock_guard<std::mutex> lock(state_mu_);
  if (!upgrade_pending_) return std::nullopt;
  return pending_version_;
}

bool VirtualLidar::SupportedBaudRate(uint32_t rate) {
  return std::find(std::begin(kBaudRates), std::end(kBaudRates), rate) != std::end(kBaudRates);
}

std::vector<VirtualLidar::BaudRequest> VirtualLidar::BaudRateRequests() const {
  std::lock_guard<std::mutex> lock(state_mu_);
  return baud_requests_;
}

std::vector<OtaRecord> VirtualLidar::OtaRecords() const {
  std::lock_guard<std::mutex> lock(state_mu_);
  return ota_records_;
}

uint64_t VirtualLidar::JunctionBoxUpgrades() const {
  std::lock_guard<std::mutex> lock(state_mu_);
  return junction_box_upgrades_;
}

void VirtualLidar::RecordOta(const std::optional<OtaRecord>& record, const std::string& note) {
  if (!record) return;
  {
    std::lock_guard<std::mutex> lock(state_mu_);
    ota_records_.push_back(*record);
  }
  path_->Note(std::string(record->component ? "component type " : "image mode ") + std::to_string(record->kind) +
              (record->ok ? " received: " : " failed after ") + std::to_string(record->length) + " bytes, SHA-256 " +
              record->sha256_hex + (note.empty() ? "" : "; " + note));
}

std::optional<uint8_t> VirtualLidar::AnswerOta(uint8_t type, uint32_t value1, uint32_t value2,
                                               const std::vector<uint8_t>& data, bool& drop_line) {
  drop_line = false;
  const FailureSpec f = FailureFor(kOtaCmd);
  const uint32_t limit = static_cast<uint32_t>(f.param > 0 ? f.param : 1);
  if (type == OtaReceiver::kPiece) {
    if (f.mode == FailureMode::kSilentAfterPieces && value1 > limit) {
      path_->Note("OTA piece swallowed (silent-after-pieces)");
      return std::nullopt;
    }
    if (f.mode == FailureMode::kRefusePiece && value1 == limit) {
      path_->Note("OTA piece refused (refuse-piece)");
      RecordOta(small_.AbandonOta(), "refused a piece");
      return OtaReceiver::kRefused;
    }
    drop_line = f.mode == FailureMode::kDisconnectAfterPieces && value1 >= limit;
  }
  OtaOutcome out = small_.Ota(type, value1, value2, data);
  if (out.status != OtaReceiver::kTaken)
    path_->Note("OTA frame type " + std::to_string(type) + " answered with status " + std::to_string(out.status));
  RecordOta(out.finished, out.note);
  return out.status;
}

SmallSensorState VirtualLidar::SmallSensor() const {
  return small_.state();
}
void VirtualLidar::SetSmallSensor(const SmallSensorState& state) {
  small_.set_state(state);
}
uint64_t VirtualLidar::DatagramsSent() const {
  return udp_ ? udp_->sent() : 0;
}

}  // namespace varkel::sim
