#include "virtual_lidar.h"

#include <unistd.h>

#include <cerrno>

#include "command_key.h"
#include "device_log.h"
#include "firmware_image.h"
#include "ktc_wire.h"
#include "platform/net.h"
#include "register_bank.h"
#include "reply_path.h"
#include "return_codes.h"
#include "serial_wire.h"
#include "udp_emitter.h"
#include "virtual_lidar_parts.h"

// What the sensor answers to each KTC command, and the restarts its answers start.
namespace varkel::sim {

namespace net = quarn::lidar::net;

using namespace lidar_parts;

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

}  // namespace varkel::sim
