#include "ktc_serial_client.h"

#include "ktc_client.h"
#include "serial_client.h"
#include "small_sensor_messages.h"

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

}  // namespace quarn::lidar
