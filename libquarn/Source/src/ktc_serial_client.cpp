#include "ktc_serial_client.h"

#include "crc32_mpeg2.h"
#include "ktc_client.h"
#include "serial_client.h"
#include "serial_frame.h"
#include "small_sensor_messages.h"

#include <algorithm>
#include <cstdint>

namespace quarn::lidar {

KtcSerialClient::KtcSerialClient(std::shared_ptr<SerialClient> serial) : serial_(std::move(serial)) {}

KtcSerialClient::KtcSerialClient(std::shared_ptr<KtcClient> ktc) : ktc_(std::move(ktc)) {}

int KtcSerialClient::Exchange(uint8_t request_type, const std::vector<uint8_t>& payload, std::vector<uint8_t>& body) {
  body.clear();
  if (serial_) return serial_->SendCommand(request_type, payload, body, kSerialTimeoutMs);
  if (!ktc_) return -1;
  if (ktc_->QueryCommand(payload, body, request_type) == 0) return 0;
  body.clear();
  const int code = ktc_->GetLastReturnCode();
  return code != 0 ? code : -1;
}

int KtcSerialClient::Set(uint8_t item, uint8_t value) {
  std::vector<uint8_t> body;
  const int ret = Exchange(small_sensor::kSet, {item, value}, body);
  if (ret != 0) return ret;
  return small_sensor::SetReplyStatus(body, item);
}

int KtcSerialClient::OtaFrame(uint8_t type, uint32_t value1, uint32_t value2, const uint8_t* data, uint32_t length) {
  if (serial_) {
    uint8_t echoed = 0;
    uint8_t status = 0;
    const int ret = serial_->SendOtaFrame(value1, value2, data, length, type, echoed, status);
    if (ret != 0) return ret;
    if (echoed != type) return small_sensor::kBadShape;
    return status;
  }
  if (!ktc_) return -1;
  // The whole serial frame travels, its CRC with it: the sensor checks each piece the same
  // way whichever line brought it.
  const std::vector<uint8_t> frame = BuildOtaFrame(type, value1, value2, data, length);
  std::vector<uint8_t> body;
  if (ktc_->QueryCommand(frame, body, kOtaKtcCmd) != 0) {
    const int code = ktc_->GetLastReturnCode();
    return code != 0 ? code : -1;
  }
  return small_sensor::OtaReplyStatus(body, type);
}

int KtcSerialClient::SendImage(uint8_t start_type, uint32_t start_value2, const std::vector<uint8_t>& data,
                               uint32_t& taken, const std::function<void(uint32_t)>& on_piece) {
  taken = 0;
  if (data.empty() || data.size() > UINT32_MAX) return small_sensor::kBadShape;
  const auto length = static_cast<uint32_t>(data.size());
  const uint32_t pieces = static_cast<uint32_t>((data.size() + kOtaPieceSize - 1) / kOtaPieceSize);
  if (cancelled_.load()) return -1;
  // The sensor answers the start once the place it writes to is ready.
  int ret = OtaFrame(start_type, length, start_value2, nullptr, 0);
  if (ret != 0) return ret;
  for (uint32_t k = 1; k <= pieces; ++k) {
    if (cancelled_.load()) return -1;
    if (on_piece) on_piece(k);
    const size_t from = size_t{k - 1} * kOtaPieceSize;
    const size_t n = std::min(kOtaPieceSize, data.size() - from);
    ret = OtaFrame(kOtaPiece, k, pieces, data.data() + from, static_cast<uint32_t>(n));
    if (ret != 0) return ret;
    taken = k;
  }
  if (cancelled_.load()) return -1;
  return OtaFrame(kOtaEnd, length, Crc32Mpeg2(data), nullptr, 0);
}

int KtcSerialClient::OtaTransfer(const std::vector<uint8_t>& image, uint32_t mode, std::atomic<uint32_t>& progress) {
  uint32_t taken = 0;
  return SendImage(kOtaStart, mode, image, taken, [&progress](uint32_t k) { progress.store(k); });
}

int KtcSerialClient::SendComponent(const std::vector<uint8_t>& data, uint8_t type, uint32_t& blocks_sent,
                                   const std::function<void(uint32_t)>& on_piece) {
  return SendImage(kOtaComponentStart, type, data, blocks_sent, on_piece);
}

int KtcSerialClient::SetBaudRate(uint32_t rate) {
  if (!ktc_ || serial_) return -1;
  std::vector<uint8_t> reply;
  if (ktc_->QueryCommand(small_sensor::BaudRateSet(rate), reply, small_sensor::kBaudRateCmd) == 0) return 0;
  const int code = ktc_->GetLastReturnCode();
  return code != 0 ? code : -1;
}

int KtcSerialClient::ChangeMode(uint8_t mode, uint32_t& partition) {
  std::vector<uint8_t> body;
  const int ret = Exchange(small_sensor::kSet, {small_sensor::kItemWorkMode, mode}, body);
  if (ret != 0) return ret;
  return small_sensor::ChangeModeReplyStatus(body, mode, partition);
}

}  // namespace quarn::lidar
