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
#include <cstdlib>
#include <fstream>
#include <iterator>

#include "command_key.h"
#include "device_log.h"
#include "ktc_wire.h"
#include "model_table.h"
#include "platform/net.h"
#include "platform/net_socket_options.h"
#include "pty_pair.h"
#include "register_bank.h"
#include "reply_path.h"
#include "serial_wire.h"
#include "tls_server.h"
#include "udp_emitter.h"
#include "virtual_lidar_parts.h"

// Start and stop, the KTC listener, and the connections it serves.
namespace varkel::sim {

namespace net = quarn::lidar::net;

using namespace lidar_parts;

bool lidar_parts::WriteAll(int fd, const std::vector<uint8_t>& bytes, bool socket) {
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
  if (!StartKtc(error) || (opt_.serial && !StartSerial(error)) || !bank_->StartExcursions(opt_.excursions, error)) {
    Stop();
    return false;
  }
  if (!opt_.udp_target.empty()) {
    udp_ = std::make_unique<UdpEmitter>(*path_);
    std::string why;
    // A sensor sends where its destination registers say; --udp gives their first values.
    uint32_t addr = 0;
    uint16_t udp_port = 0;
    if (ParseHostPort(opt_.udp_target, &addr, &udp_port, nullptr)) {
      in_addr a{};
      a.s_addr = addr;
      bank_->SetValue(kDestinationIpRegister, inet_ntoa(a));
      bank_->SetValue(kDataPortRegister, std::to_string(udp_port));
    }
    auto registers = [this]() -> std::optional<UdpEmitter::Target> {
      const auto ip = bank_->Value(kDestinationIpRegister);
      const auto port_text = bank_->Value(kDataPortRegister);
      UdpEmitter::Target t;
      in_addr a{};
      if (!ip || !port_text || inet_pton(AF_INET, ip->c_str(), &a) != 1) return std::nullopt;
      const long p = std::strtol(port_text->c_str(), nullptr, 10);
      if (p < 1 || p > 65535) return std::nullopt;
      t.addr = a.s_addr;
      t.port = static_cast<uint16_t>(p);
      return t;
    };
    if (!udp_->Start(opt_.udp_target, opt_.udp_rate > 0 ? opt_.udp_rate : kDefaultUdpRate, opt_.udp_size, &why,
                     registers)) {
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
  if (opt_.tls) {
    tls_ctx_ = MakeServerContext(opt_.tls_cert, opt_.tls_key, opt_.tls_client_ca, error);
    if (!tls_ctx_) return false;
  }
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
    path_->Note("KTC connection accepted (" + std::to_string(++connections_accepted_) + " so far)");
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
  // Over TLS a read takes a whole record (up to 16 KiB) at once.
  std::vector<uint8_t> buf(tls_ctx_ ? 16384 : 4096);
  bool open = true;
  // Over TLS the connection starts with the handshake; reads wake every poll period so that
  // Stop is seen, and a failed handshake ends the connection without a word.
  SSL* ssl = nullptr;
  bool handshaken = true;
  if (tls_ctx_) {
    net::SetReceiveTimeoutMs(fd, kPollMs);
    net::SetSendTimeoutMs(fd, kPollMs);
    // Replies are whole records, one send each; nothing is gained by holding one back.
    net::SetNoDelay(fd);
    std::string why;
    ssl = AcceptTls(tls_ctx_.get(), fd, kTlsHandshakeMs, running_, &why);
    if (ssl == nullptr) {
      path_->Note("TLS handshake refused: " + why);
      handshaken = false;
    }
  }
  auto close_conn = [&](bool reset) {
    std::lock_guard<std::mutex> lock(conn_mu_);
    if (ssl != nullptr && !reset) SSL_shutdown(ssl);
    if (reset) {
      // Linger 0 turns the close into a reset.
      linger lg{1, 0};
      setsockopt(conn->fd, SOL_SOCKET, SO_LINGER, &lg, sizeof(lg));
    }
    ::close(conn->fd);
    conn->fd = -1;
    open = false;
  };
  auto write_fd = [&](const std::vector<uint8_t>& bytes) {
    return ssl != nullptr ? TlsWriteAll(ssl, bytes, kSocketStallMs) : WriteAll(fd, bytes, true);
  };

  while (handshaken && open && running_.load()) {
    // Over TLS the read itself waits: the socket's receive time-out wakes it every poll
    // period, so a poll before it would only cost a system call per request.
    if (ssl == nullptr) {
      pollfd p{fd, POLLIN, 0};
      const int r = ::poll(&p, 1, kPollMs);
      if (r == 0 || (r < 0 && errno == EINTR)) continue;
      if (r < 0) break;
    }
    const ssize_t n =
        ssl != nullptr ? TlsRead(ssl, buf.data(), static_cast<int>(buf.size())) : ::recv(fd, buf.data(), buf.size(), 0);
    if (ssl != nullptr && n < 0) continue;  // nothing within the poll period, or a record not yet whole
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
      FailureSpec failure = FailureFor(req->cmd);
      bool silent = false;
      {
        std::lock_guard<std::mutex> lock(state_mu_);
        silent = silent_[req->cmd];
      }
      if (silent) continue;
      // A swallowed or refused request is not taken: nothing is written, no transfer moves.
      const bool refused = failure.mode == FailureMode::kNoReply || failure.mode == FailureMode::kReturnCode;
      Reply reply = refused ? Reply{} : Dispatch(*req, conn);
      if (!reply.send) continue;
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
  SSL_free(ssl);
  if (handshaken && SmallSensorOverKtc()) {
    // The program let go of the line: an image half sent is lost, and a sensor in upgrade
    // mode reboots into what arrived whole.
    RecordOta(small_.AbandonOta(), "OTA image abandoned: the connection closed");
    const std::string rebooted = small_.Reboot();
    if (!rebooted.empty()) path_->Note(rebooted);
  }
  conn->done.store(true);
}

}  // namespace varkel::sim
