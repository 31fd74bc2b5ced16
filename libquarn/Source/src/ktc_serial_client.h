#pragma once
// The small serial sensors' get (2) and set (3) requests over either link a connection
// holds: "$LDCMD," frames on the serial lines (connection type 1) or KTC exchanges whose
// command byte is the request type (connection type 2). Both hand back the serial reply
// body [length, request type, item, ...], so the callers check replies one way.

#include <atomic>
#include <cstdint>
#include <memory>
#include <vector>

namespace quarn::lidar {

class KtcClient;
class SerialClient;

class KtcSerialClient {
 public:
  static constexpr uint32_t kSerialTimeoutMs = 1000;

  explicit KtcSerialClient(std::shared_ptr<SerialClient> serial);
  explicit KtcSerialClient(std::shared_ptr<KtcClient> ktc);

  // One request: 0 with the reply body, or the link's error code (for KTC the sensor's
  // non-zero return code, else -1).
  int Exchange(uint8_t request_type, const std::vector<uint8_t>& payload, std::vector<uint8_t>& body);

  // A set request [item, value]: 0, the sensor's status code, -2 for a reply of another
  // shape, or the link's error code.
  int Set(uint8_t item, uint8_t value);

  // The standby item last set successfully (11 standby, 0 working); -1 before any.
  int CurrentMode() const { return current_mode_.load(); }
  void RecordMode(uint8_t mode) { current_mode_.store(mode); }

  bool OverSerial() const { return serial_ != nullptr; }

 private:
  std::shared_ptr<SerialClient> serial_;
  std::shared_ptr<KtcClient> ktc_;
  std::atomic<int> current_mode_{-1};
};

}  // namespace quarn::lidar
