#pragma once
// The command register map of the small serial sensors: what their "$LDCMD," requests
// (2 = get an item, 3 = set an item) and "$LDOTA," frames are answered with. Replies are
// given as the part of the body after the echoed command (the length byte is implied).
// The same state answers the KTC side of "Zelto-KTC" and "Marvo-KTC" (the serial requests
// carried by KTC, the network block 0x08 and the destination 0x20).
// docs/virtual-lidar.md lists the map; docs/small-sensors.md is the wire page.

#include <array>
#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "ota_receiver.h"

namespace varkel::sim {

struct SmallSensorState {
  uint8_t mode = 0;         // 11 standby, 0 working
  uint8_t spin_rate = 10;   // as last set (the low byte the program sends)
  uint8_t return_mode = 8;  // 8 single, 9 dual
  uint8_t imu_angular_code = 0;
  uint8_t imu_accel_code = 0;
  uint8_t safety_state = 0;  // 0 normal, 1 warning, 2 shutdown
  std::vector<uint16_t> fault_codes{0x0000, 0x0000};
  std::string serial_number = "ZT2411000123";
  std::vector<uint8_t> correction;  // the correction data item 7 hands out, in pieces
  std::array<uint8_t, 4> lidar_ip{192, 168, 1, 201};
  std::array<uint8_t, 4> subnet_mask{255, 255, 255, 0};
  std::array<uint8_t, 4> gateway{192, 168, 1, 1};
  std::array<uint8_t, 4> destination_ip{192, 168, 1, 100};
  uint16_t destination_port = 2368;
  uint64_t ota_frames = 0;
  uint8_t last_ota_type = 0;
  // Work mode item 12: 0 working, 4 upgrade (Marvo components are taken only then).
  uint8_t work_mode = 0;
  // The running application partition: 0 A, 1 B. A reboot after an application arrived
  // whole in upgrade mode runs the other one.
  uint8_t partition = 0;
  // Version texts by the version query's `which`: 0 BMB FPGA, 1 TMB FPGA, 2 BMB MCU, 5 PBL.
  std::map<uint8_t, std::string> versions{
      {0, "BMB-FPGA V1.3.7"}, {1, "TMB-FPGA V1.2.0"}, {2, "BMB-MCU V2.0.5"}, {5, "PBL V1.0.1"}};
  uint64_t images_received = 0;      // Zelto images that ended well
  uint64_t components_received = 0;  // Marvo components that ended well
  uint64_t reboots = 0;              // reboots out of upgrade mode
};

// What one OTA frame did: the reply status and, when an image ended, its record.
struct OtaOutcome {
  uint8_t status = 0;
  std::optional<OtaRecord> finished;
  std::string note;  // for the trace: what took effect
};

class SmallSensor {
 public:
  static constexpr uint8_t kGet = 2;
  static constexpr uint8_t kSet = 3;
  // Data bytes per correction piece; the default file is 3 KiB, so 13 pieces.
  static constexpr size_t kCorrectionPiece = 240;

  SmallSensor();

  // Reply body after the command byte for a "$LDCMD," request.
  std::vector<uint8_t> Command(uint8_t cmd, const std::vector<uint8_t>& payload);
  // A "$LDOTA," frame (docs/upgrade.md). A Zelto image that ends well takes effect at
  // once (the sensor reboots by itself): its "VERSION=" text (docs/virtual-lidar.md)
  // becomes the BMB MCU version (mode 0) or the PBL version (mode 1). Marvo components
  // wait for Reboot.
  OtaOutcome Ota(uint8_t type, uint32_t value1, uint32_t value2, const std::vector<uint8_t>& data);
  // Ends an open image as failed; its record, when one was open.
  std::optional<OtaRecord> AbandonOta();
  // Leaves upgrade mode (the program let go of the line): the components that arrived
  // whole take effect, an application on the other partition, which then runs. Returns
  // what changed, "" when the sensor was not in upgrade mode.
  std::string Reboot();

  // KTC 0x08: lidar address, mask, gateway, destination address, destination port (BE).
  std::vector<uint8_t> NetworkBlock() const;
  // KTC 0x20: [address (4), port (u16 BE)]; false (nothing changed) for another length.
  bool SetDestination(const std::vector<uint8_t>& payload);

  SmallSensorState state() const;
  void set_state(const SmallSensorState& s);

 private:
  std::vector<uint8_t> Get(const std::vector<uint8_t>& payload);
  std::vector<uint8_t> Set(const std::vector<uint8_t>& payload);

  // Keeps apart the serial thread (requests) and the embedding thread (state access).
  mutable std::mutex mu_;
  SmallSensorState s_;
  OtaReceiver ota_;
  // Components that arrived whole in upgrade mode: type -> the version their image names.
  std::map<uint32_t, std::optional<std::string>> pending_components_;
};

}  // namespace varkel::sim
