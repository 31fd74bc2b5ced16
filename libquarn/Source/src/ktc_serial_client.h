#pragma once
// The small serial sensors' get (2) and set (3) requests over either link a connection
// holds: "$LDCMD," frames on the serial lines (connection type 1) or KTC exchanges whose
// command byte is the request type (connection type 2). Both hand back the serial reply
// body [length, request type, item, ...], so the callers check replies one way.

#include <atomic>
#include <cstdint>
#include <functional>
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

  // ---- firmware (docs/upgrade.md) ----
  static constexpr uint8_t kOtaStart = 0x01;
  static constexpr uint8_t kOtaPiece = 0x02;
  static constexpr uint8_t kOtaEnd = 0x03;
  static constexpr uint8_t kOtaComponentStart = 0x11;
  // KTC command that carries a whole "$LDOTA," frame over connection type 2.
  static constexpr uint8_t kOtaKtcCmd = 0x84;
  static constexpr uint8_t kUpgradeWorkMode = 4;
  static constexpr size_t kOtaPieceSize = 1024;

  // One OTA frame and its reply over the link: 0 when taken, the sensor's status code,
  // -2 for a reply of another shape or echo, or the link's error code.
  int OtaFrame(uint8_t type, uint32_t value1, uint32_t value2, const uint8_t* data, uint32_t length);

  // A whole image in upgrade `mode` (0 APP+FPGA, 1 PBL): start, pieces, end. `progress`
  // holds the number of the piece being sent. 0, or the first failing frame's code.
  int OtaTransfer(const std::vector<uint8_t>& image, uint32_t mode, std::atomic<uint32_t>& progress);

  // One Marvo component: start 0x11 with `type`, pieces, end. `blocks_sent` = pieces the
  // sensor took; `on_piece` (when given) hears the number of each piece before it goes.
  int SendComponent(const std::vector<uint8_t>& data, uint8_t type, uint32_t& blocks_sent,
                    const std::function<void(uint32_t)>& on_piece = {});

  // KTC 0xFF [00 01 39, rate (u32 BE)]: 0, or the sensor's return code (-1 without one).
  // Only over KTC; -1 on the serial lines.
  int SetBaudRate(uint32_t rate);

  // Set request [12, mode]; 0 with the running partition (0 A, 1 B), the sensor's status,
  // -2 for another reply shape, or the link's error code.
  int ChangeMode(uint8_t mode, uint32_t& partition);

  // Every transfer on this client, running or later, ends with -1 before its next frame.
  void Cancel() { cancelled_.store(true); }

 private:
  std::shared_ptr<SerialClient> serial_;
  std::shared_ptr<KtcClient> ktc_;
  std::atomic<int> current_mode_{-1};
  std::atomic<bool> cancelled_{false};

  int SendImage(uint8_t start_type, uint32_t start_value2, const std::vector<uint8_t>& data, uint32_t& taken,
                const std::function<void(uint32_t)>& on_piece);
};

}  // namespace quarn::lidar
