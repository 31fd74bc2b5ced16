#include "ktc_client.h"

#include <algorithm>
#include <chrono>
#include <stdexcept>

#include "hex_text.h"
#include "logger.h"
#include "tcp_client.h"
#include "tcp_ssl_client.h"
#include "verified_tls_client.h"

namespace quarn::lidar {
namespace {

using Clock = std::chrono::steady_clock;

constexpr uint32_t kDrainTimeoutMs = 50;
constexpr size_t kDrainBufferSize = 1500;
constexpr uint32_t kLargePayloadWarning = 10240;
// The payload buffer grows by at most this much ahead of the bytes that have arrived.
constexpr size_t kPayloadChunk = 64 * 1024;
// A transport's own time-out, used while the client has none configured.
constexpr uint32_t kDefaultTransportTimeoutMs = 500;
constexpr size_t kMaxFrameSize = 0xFFFF;  // what one Send call can carry

uint32_t BigEndian32(const uint8_t* at) {
  return (static_cast<uint32_t>(at[0]) << 24) | (static_cast<uint32_t>(at[1]) << 16) |
         (static_cast<uint32_t>(at[2]) << 8) | static_cast<uint32_t>(at[3]);
}

int64_t MillisecondsSince(Clock::time_point start) {
  return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count();
}

}  // namespace

KtcClient::KtcClient(const std::string& lidar_ip, uint16_t lidar_port, bool auto_receive, uint32_t client_type,
                     uint8_t protocol_version, const std::string& cert_path, const std::string& private_key_path,
                     const std::string& ca_path, uint32_t recv_timeout_ms, uint32_t send_timeout_ms,
                     float connect_timeout_s, uint16_t local_port)
    : client_type_(client_type),
      protocol_version_(protocol_version),
      lidar_ip_(lidar_ip),
      lidar_port_(lidar_port),
      local_port_(local_port),
      auto_receive_(auto_receive),
      cert_path_(cert_path),
      private_key_path_(private_key_path),
      ca_path_(ca_path),
      recv_timeout_ms_(recv_timeout_ms),
      send_timeout_ms_(send_timeout_ms),
      current_recv_timeout_ms_(recv_timeout_ms != 0 ? recv_timeout_ms : kDefaultTransportTimeoutMs),
      current_send_timeout_ms_(send_timeout_ms != 0 ? send_timeout_ms : kDefaultTransportTimeoutMs),
      connect_timeout_s_(connect_timeout_s) {
  // The parser exists before the thread starts so that no exchange can see it half made.
  parser_ = std::make_shared<KtcParser>(protocol_version_);
  connect_thread_ = std::thread(&KtcClient::TryOpen, this);
}

KtcClient::KtcClient(std::shared_ptr<ClientBase> transport, uint8_t protocol_version, uint32_t recv_timeout_ms,
                     uint32_t send_timeout_ms)
    : client_type_(kClientGiven),
      protocol_version_(protocol_version),
      transport_(std::move(transport)),
      parser_(std::make_shared<KtcParser>(protocol_version)),
      lidar_port_(0),
      local_port_(0),
      auto_receive_(false),
      recv_timeout_ms_(recv_timeout_ms),
      send_timeout_ms_(send_timeout_ms),
      current_recv_timeout_ms_(recv_timeout_ms != 0 ? recv_timeout_ms : kDefaultTransportTimeoutMs),
      current_send_timeout_ms_(send_timeout_ms != 0 ? send_timeout_ms : kDefaultTransportTimeoutMs),
      connect_timeout_s_(0) {
  // What the connect thread does once a transport it made is open.
  if (transport_ && recv_timeout_ms_ != 0 && send_timeout_ms_ != 0) {
    std::lock_guard<std::mutex> lock(command_mutex_);
    ApplyTimeouts(*transport_, recv_timeout_ms_, send_timeout_ms_);
  }
}

KtcClient::~KtcClient() {
  Stop();
  if (auto transport = Transport()) {
    std::lock_guard<std::mutex> lock(command_mutex_);
    transport->Close();
  }
}

void KtcClient::Stop() {
  running_.store(false);
  std::lock_guard<std::mutex> lock(stop_mutex_);
  if (connect_thread_.joinable() && connect_thread_.get_id() != std::this_thread::get_id()) connect_thread_.join();
}

void KtcClient::Interrupt() {
  interrupted_.store(true);
  transfers_cancelled_.store(true);
  if (auto transport = Transport()) transport->Interrupt();
}

void KtcClient::SetLidarIp(const std::string& ip) {
  std::lock_guard<std::mutex> lock(ip_mutex_);
  lidar_ip_ = ip;
}

std::string KtcClient::GetLidarIp() const {
  std::lock_guard<std::mutex> lock(ip_mutex_);
  return lidar_ip_;
}

void KtcClient::SetLogCallback(std::function<void(const std::string&)> callback, std::function<bool()> wanted) {
  std::lock_guard<std::mutex> lock(callback_mutex_);
  log_callback_ = std::move(callback);
  log_wanted_ = std::move(wanted);
}

std::shared_ptr<ClientBase> KtcClient::Transport() const {
  std::lock_guard<std::mutex> lock(transport_mutex_);
  return transport_;
}

bool KtcClient::IsOpen() {
  auto transport = Transport();
  return transport && transport->IsOpened();
}

void KtcClient::TryOpen() {
  const auto start = Clock::now();
  const auto timed_out = [&] {
    return connect_timeout_s_ >= 0 && static_cast<double>(MillisecondsSince(start)) > connect_timeout_s_ * 1000.0;
  };

  std::string ip = GetLidarIp();
  if (ip.empty()) {
    LOG_WARNING("KtcClient::KtcClient() lidar_ip_ is empty, wait recv could point to get lidar ip");
    while ((ip = GetLidarIp()).empty()) {
      if (!running_.load()) {
        LOG_WARNING("ktc connect exit 1");
        return;
      }
      if (timed_out()) {
        LOG_WARNING("ktc connect : get lidar ip timeout");
        return;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
  }
  LOG_PROGRESS("KtcClient::KtcClient() %s %u", ip.c_str(), static_cast<unsigned>(lidar_port_));

  std::shared_ptr<ClientBase> transport;
  if (client_type_ == kClientTcp) {
    transport = std::make_shared<TcpClient>();
  } else if (client_type_ == kClientTls) {
    transport = std::make_shared<TcpSslClient>();
  } else if (client_type_ == kClientVerifiedTls) {
    auto verified = std::make_shared<VerifiedTlsClient>();
    // The handshake may take the whole connect time-out, not the one-second connect try.
    verified->SetHandshakeTimeoutMs(connect_timeout_s_ > 0 ? static_cast<uint32_t>(connect_timeout_s_ * 1000.0f)
                                                           : 5000);
    transport = verified;
  }
  if (transport) {
    {
      std::lock_guard<std::mutex> lock(transport_mutex_);
      transport_ = transport;
    }
    const bool tls = client_type_ == kClientTls || client_type_ == kClientVerifiedTls;
    auto* verified = dynamic_cast<VerifiedTlsClient*>(transport.get());
    while (running_.load()) {
      if (transport->TryOpen(local_port_, ip, lidar_port_, auto_receive_, tls ? cert_path_.c_str() : nullptr,
                             tls ? private_key_path_.c_str() : nullptr, tls ? ca_path_.c_str() : nullptr, 1)) {
        break;
      }
      // A certificate refused now is refused on every try.
      if (verified != nullptr && verified->FailedFinally()) break;
      if (timed_out()) break;
      std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
  }

  transport = Transport();
  if (running_.load() && transport && transport->IsOpened()) {
    // An exchange may already have started on the open transport; time-outs change under its lock.
    std::lock_guard<std::mutex> lock(command_mutex_);
    if (recv_timeout_ms_ != 0 && send_timeout_ms_ != 0) {
      LOG_PROGRESS("u32RecvTimeoutMs %u", recv_timeout_ms_);
      LOG_PROGRESS("u32SendTimeoutMs %u", send_timeout_ms_);
      ApplyTimeouts(*transport, recv_timeout_ms_, send_timeout_ms_);
    }
    LOG_PROGRESS("ktc connect success");
  } else {
    LOG_WARNING("ktc connect exit 2");
  }
  connect_ended_.store(true);
}

std::string KtcClient::ConnectError() const {
  auto transport = Transport();
  auto* verified = dynamic_cast<VerifiedTlsClient*>(transport.get());
  if (verified == nullptr || verified->IsOpened()) return {};
  if (!verified->FailedFinally() && !connect_ended_.load()) return {};
  const std::string error = verified->LastError();
  return error.empty() && connect_ended_.load() ? "no connection within the connect time-out" : error;
}

std::string KtcClient::PeerIssuer() const {
  auto transport = Transport();
  auto* verified = dynamic_cast<VerifiedTlsClient*>(transport.get());
  return verified != nullptr && verified->IsOpened() ? verified->PeerIssuer() : std::string();
}

void KtcClient::ApplyTimeouts(ClientBase& transport, uint32_t receive_ms, uint32_t send_ms) {
  current_recv_timeout_ms_ = receive_ms;
  current_send_timeout_ms_ = send_ms;
  transport.SetTimeout(receive_ms, send_ms);
}

void KtcClient::EmitLog(const std::function<std::string()>& make) {
  std::function<void(const std::string&)> callback;
  std::function<bool()> wanted;
  {
    std::lock_guard<std::mutex> lock(callback_mutex_);
    if (!log_callback_) return;
    callback = log_callback_;
    wanted = log_wanted_;
  }
  if (wanted && !wanted()) return;
  callback(make());
}

void KtcClient::DrainStaleInput(ClientBase& transport) {
  uint8_t buffer[kDrainBufferSize];
  // A peer that never stops sending cannot keep the drain going past one receive time-out.
  const auto start = Clock::now();
  const int64_t limit_ms = std::max<int64_t>(current_recv_timeout_ms_, kDrainTimeoutMs);
  if (literal_drain_.load() || timed_drain_due_) {
    // Waits for a late reply to an abandoned exchange.
    transport.SetTimeout(kDrainTimeoutMs, kDrainTimeoutMs);
    while (transport.Receive(buffer, kDrainBufferSize, 0) > 0 && MillisecondsSince(start) < limit_ms) {
    }
    transport.SetTimeout(current_recv_timeout_ms_, current_send_timeout_ms_);
  } else {
    // Only what is already buffered; nothing stale is expected after a clean exchange.
    while (transport.Receive(buffer, kDrainBufferSize, kReceiveNonBlocking) > 0 &&
           MillisecondsSince(start) < limit_ms) {
    }
  }
}

int KtcClient::QueryCommand(const std::vector<uint8_t>& payload, std::vector<uint8_t>& result, uint8_t cmd,
                            bool with_header) {
  return Exchange(payload, result, cmd, with_header, false);
}

int KtcClient::DownloadQuery(const std::vector<uint8_t>& payload, std::vector<uint8_t>& result, uint8_t cmd) {
  return Exchange(payload, result, cmd, false, true);
}

int KtcClient::Exchange(const std::vector<uint8_t>& payload, std::vector<uint8_t>& result, uint8_t cmd,
                        bool with_header, bool download, bool train) {
  auto transport = Transport();
  if (!transport || !transport->IsOpened()) {
    LOG_ERROR("Client is not open, cannot send command.");
    return -1;
  }
  std::lock_guard<std::mutex> lock(command_mutex_);
  // Checked under the lock: an exchange that waited for it behind an interrupted one must
  // not go out on the link being let go.
  if (interrupted_.load()) {
    last_return_code_.store(kKtcSendFailed);
    return -1;
  }
  const auto start = Clock::now();
  // A download may pause between reads for longer than a command reply may take; the
  // time-out bounds each silence, not the whole transfer. Restored before the lock goes.
  const uint32_t saved_recv_ms = current_recv_timeout_ms_;
  const uint32_t saved_send_ms = current_send_timeout_ms_;
  if (download) ApplyTimeouts(*transport, download_idle_timeout_ms_.load(), saved_send_ms);
  GeneralKtcParser* parser = parser_->parser();

  int ret = 0;
  bool ended_before_payload = false;
  std::vector<uint8_t> header;

  std::vector<uint8_t> frame;
  if (parser == nullptr || !parser_->KtcStreamEncode(payload, frame, cmd)) {
    LOG_ERROR("KtcClient::QueryCommand, no frame parser for protocol version %u",
              static_cast<unsigned>(protocol_version_));
    ret = -1;
    last_return_code_.store(kKtcSendFailed);
    ended_before_payload = true;
  } else {
    if (!train || timed_drain_due_ || literal_drain_.load()) DrainStaleInput(*transport);
    // One Send carries at most 65535 bytes; a longer frame is refused whole rather than cut.
    const int sent =
        frame.size() <= kMaxFrameSize ? transport->Send(frame.data(), static_cast<uint16_t>(frame.size()), 0) : 0;
    EmitLog([&] { return "SEND: " + ToHexSpaced(frame); });
    if (sent != static_cast<int>(frame.size())) {
      LOG_WARNING("send failure, %d.", sent);
      ret = -1;
      last_return_code_.store(kKtcSendFailed);
      ended_before_payload = true;
    }
  }

  const uint32_t header_size = parser != nullptr ? parser->GetHeaderSize() : 0;
  if (ret == 0) {
    // Hunt for the identifier pair, then complete the header.
    const uint8_t id0 = parser->GetHeaderIdentifier0();
    const uint8_t id1 = parser->GetHeaderIdentifier1();
    const auto hunt_start = Clock::now();
    uint8_t block[Ktc_2_0_parser::kHeaderSize];
    bool found = false;
    header.reserve(header_size);
    while (header.size() < header_size) {
      const int n = transport->Receive(block, header_size - static_cast<uint32_t>(header.size()), 0);
      if (n <= 0) {
        ret = -1;
        break;
      }
      if (found) {
        header.insert(header.end(), block, block + n);
        continue;
      }
      for (int i = 0; i + 1 < n; ++i) {
        if (block[i] == id0 && block[i + 1] == id1) {
          header.assign(block + i, block + n);
          found = true;
          break;
        }
      }
      // Endless noise must not hold the exchange longer than one receive time-out.
      if (!found && MillisecondsSince(hunt_start) > static_cast<int64_t>(current_recv_timeout_ms_)) {
        LOG_WARNING("KtcClient::QueryCommand, no reply header within %u ms", current_recv_timeout_ms_);
        ret = -1;
        break;
      }
    }
    if (ret != 0) {
      last_return_code_.store(kKtcHeaderReadFailed);
      ended_before_payload = true;
    }
  }

  if (ret == 0) {
    const bool v1 = header_size == Ktc_1_0_parser::kHeaderSize;
    const uint8_t return_code = v1 ? header[3] : header[4];
    const uint8_t return_cmd = v1 ? header[2] : header[3];
    if (header[0] != parser->GetHeaderIdentifier0() || header[1] != parser->GetHeaderIdentifier1() ||
        return_code != 0 || return_cmd != cmd) {
      if (v1) {
        LOG_WARNING("KtcClient::QueryCommand, RspCode invalid:%u, return_cmd:%u, cmd:%u", return_code, return_cmd, cmd);
      } else {
        LOG_WARNING("KtcClient::QueryCommand,RspCode invalid:%u, return_cmd:%u, cmd:%u", return_code, return_cmd, cmd);
      }
      ret = -1;
      last_return_code_.store(return_code);
      ended_before_payload = true;
    }
  }

  if (ret == 0) {
    const uint32_t length = BigEndian32(header.data() + (header_size == Ktc_1_0_parser::kHeaderSize ? 4 : 8));
    if (length < 1) {
      ended_before_payload = true;
    } else {
      if (length > kLargePayloadWarning && !download) {
        LOG_WARNING("KtcClient::QueryCommand, warning, nPayLoadLen too large:%d", static_cast<int>(length));
      }
      // Grown as bytes arrive: the claimed length is the peer's word, not a size to allocate.
      std::vector<uint8_t> body;
      if (with_header) body = header;
      const size_t prefix = body.size();
      size_t got = 0;
      while (got < length) {
        const size_t want = std::min<size_t>(kPayloadChunk, length - got);
        body.resize(prefix + got + want);
        const int n = transport->Receive(body.data() + prefix + got, static_cast<uint32_t>(want), 0);
        if (n <= 0) {
          ret = -1;
          break;
        }
        got += static_cast<size_t>(n);
      }
      if (ret == 0) {
        body.resize(prefix + got);
        result.swap(body);
      } else {
        last_return_code_.store(kKtcPayloadReadFailed);
      }
    }
  }

  if (ended_before_payload && with_header) result = header;
  // Anything short of a complete reply may leave bytes in flight; the next exchange waits them out.
  timed_drain_due_ = ret != 0;
  if (download) ApplyTimeouts(*transport, saved_recv_ms, saved_send_ms);

  EmitLog([&] {
    return ret == -1 ? "RECV: ret_code is " + std::to_string(last_return_code_.load()) : "RECV: " + ToHexSpaced(result);
  });
  const auto us = std::chrono::duration_cast<std::chrono::microseconds>(Clock::now() - start).count();
  LOG_TIMING("exec time: %fms", static_cast<double>(us) / 1000.0);
  return ret;
}

int KtcClient::TransferFile(const std::vector<uint8_t>& data, uint32_t code, bool extended,
                            std::atomic<uint32_t>& progress) {
  const auto set_timeouts = [this](uint32_t receive_ms, uint32_t send_ms) {
    std::lock_guard<std::mutex> lock(command_mutex_);
    if (auto transport = Transport()) {
      ApplyTimeouts(*transport, receive_ms, send_ms);
    } else {
      current_recv_timeout_ms_ = receive_ms;
      current_send_timeout_ms_ = send_ms;
    }
  };
  const auto restore = [&] {
    set_timeouts(recv_timeout_ms_ != 0 ? recv_timeout_ms_ : kDefaultTransportTimeoutMs,
                 send_timeout_ms_ != 0 ? send_timeout_ms_ : kDefaultTransportTimeoutMs);
  };
  set_timeouts(transfer_timeout_ms_.load(), transfer_timeout_ms_.load());

  const uint8_t cmd = extended ? 0xFF : static_cast<uint8_t>(code & 0xFF);
  std::vector<std::vector<uint8_t>> frames;
  if (!parser_->KtcFilestreamSend(data, cmd, frames)) {
    restore();
    return -1;
  }
  std::vector<uint8_t> payload;
  std::vector<uint8_t> reply;
  for (size_t k = 0; k < frames.size(); ++k) {
    if (transfers_cancelled_.load()) {
      restore();
      return -1;
    }
    progress.store(static_cast<uint32_t>(k + 1));
    payload.clear();
    if (extended) {
      payload.push_back(static_cast<uint8_t>(code >> 24));
      payload.push_back(static_cast<uint8_t>(code >> 16));
      payload.push_back(static_cast<uint8_t>(code >> 8));
      payload.push_back(static_cast<uint8_t>(code));
    }
    payload.insert(payload.end(), frames[k].begin(), frames[k].end());
    // Within one transfer the lidar speaks only when asked and every reply so far was read
    // whole, so nothing stale can wait before piece k > 1: its drain (a system call per
    // piece, a quarter of the time per piece on a virtual machine) is left out. The first
    // piece drains as every exchange does; a failed one ends the transfer.
    if (Exchange(payload, reply, cmd, false, false, k > 0) != 0) {
      restore();
      return -1;
    }
  }
  restore();
  return 0;
}

int KtcClient::TransferFileByCmdText(const std::vector<uint8_t>& data, std::string& cmd_text,
                                     std::atomic<uint32_t>& progress) {
  int value = 0;
  try {
    value = std::stoi(cmd_text, nullptr, 16);
  } catch (const std::invalid_argument&) {
    throw std::invalid_argument("invalid stoi argument");
  } catch (const std::out_of_range&) {
    throw std::out_of_range("stoi argument out of range");
  }
  const int ret = TransferFile(data, static_cast<uint32_t>(value), cmd_text.size() != 4, progress);
  cmd_text.clear();
  return ret;
}

bool KtcClient::KtcStreamDecode(uint8_t status, uint8_t byte, const std::vector<uint8_t>& in, int32_t offset,
                                int32_t length, std::vector<uint8_t>& out) {
  return parser_->KtcStreamDecode(status, byte, in, offset, length, out);
}

}  // namespace quarn::lidar
