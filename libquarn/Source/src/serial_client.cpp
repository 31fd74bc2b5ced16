#include "serial_client.h"

#include "hex_text.h"
#include "serial_frame.h"

namespace quarn::lidar {

SerialClient::SerialClient(std::shared_ptr<SerialSource> command_source, std::shared_ptr<SerialSource> data_source)
    : command_source_(std::move(command_source)), data_source_(std::move(data_source)) {}

void SerialClient::SetLogCallback(std::function<void(const std::string&)> callback) {
  std::lock_guard<std::mutex> lock(callback_mutex_);
  log_callback_ = std::move(callback);
}

void SerialClient::Log(const std::string& prefix, const uint8_t* data, size_t length) {
  std::lock_guard<std::mutex> lock(callback_mutex_);
  if (log_callback_) log_callback_(prefix + ToHexSpaced(data, length));
}

int SerialClient::SendCommand(uint8_t cmd, const std::vector<uint8_t>& payload, std::vector<uint8_t>& body,
                              uint32_t timeout_ms) {
  std::lock_guard<std::mutex> exchange(exchange_mutex_);
  body.clear();
  if (!command_source_ || !data_source_ || !command_source_->IsOpened() || !data_source_->IsOpened()) {
    return kErrNotReady;
  }
  const std::vector<uint8_t> frame = BuildCommandFrame(cmd, payload, FreshNonce());
  Log("SEND: ", frame.data(), frame.size());
  data_source_->Clear(SerialSource::kClearInput);
  if (command_source_->Send(frame.data(), static_cast<uint16_t>(frame.size()), 0) < 0) return kErrNotReady;

  uint8_t block[kSerialReplyBlockSize];
  const int n = data_source_->Receive(block, sizeof(block), timeout_ms);
  if (n < 0) return kErrReadFailed;
  Log("RECV: ", block, static_cast<size_t>(n));
  return CheckReply(kReplyCheckCommand, block, static_cast<size_t>(n), body) ? kOk : kErrBadReply;
}

int SerialClient::SendOtaFrame(uint32_t value1, uint32_t value2, const uint8_t* data, uint32_t length,
                               uint8_t frame_type, uint8_t& reply_cmd, uint8_t& reply_status) {
  std::lock_guard<std::mutex> exchange(exchange_mutex_);
  if (!data_source_ || !data_source_->IsOpened()) return kErrNotReady;
  const std::vector<uint8_t> frame = BuildOtaFrame(frame_type, value1, value2, data, length);
  data_source_->Clear(SerialSource::kClearInput);
  // One send call; its length field is 16 bits wide.
  if (data_source_->Send(frame.data(), static_cast<uint16_t>(frame.size() % 65536), 0) < 0) return kErrNotReady;
  return WaitReplyLocked(reply_cmd, reply_status, ota_reply_timeout_ms_.load());
}

int SerialClient::WaitReply(uint8_t& reply_cmd, uint8_t& reply_status, uint32_t timeout_ms) {
  std::lock_guard<std::mutex> exchange(exchange_mutex_);
  return WaitReplyLocked(reply_cmd, reply_status, timeout_ms);
}

int SerialClient::WaitReplyLocked(uint8_t& reply_cmd, uint8_t& reply_status, uint32_t timeout_ms) {
  if (!data_source_ || !data_source_->IsOpened()) return kErrNotReady;
  uint8_t block[kSerialReplyBlockSize];
  const int n = data_source_->Receive(block, sizeof(block), timeout_ms);
  if (n < 0) return kErrReadFailed;
  Log("RECV: ", block, static_cast<size_t>(n));
  std::vector<uint8_t> body;
  if (!CheckReply(kReplyCheckOta, block, static_cast<size_t>(n), body)) return kErrBadReply;
  reply_cmd = body[1];
  reply_status = body.back();
  return kOk;
}

}  // namespace quarn::lidar
