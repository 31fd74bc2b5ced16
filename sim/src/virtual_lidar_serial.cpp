#include "virtual_lidar.h"

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <iterator>

#include "ota_receiver.h"
#include "point_cloud.h"
#include "pty_pair.h"
#include "reply_path.h"
#include "serial_wire.h"
#include "virtual_lidar_parts.h"

// The small sensors' serial lines, and the OTA frames they and KTC carry.
namespace varkel::sim {

using namespace lidar_parts;

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

bool VirtualLidar::SupportedBaudRate(uint32_t rate) {
  return std::find(std::begin(kBaudRates), std::end(kBaudRates), rate) != std::end(kBaudRates);
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

}  // namespace varkel::sim
