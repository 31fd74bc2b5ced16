#pragma once
// The command register map of the small serial sensors: what their "$LDCMD," requests
// (2 = get an item, 3 = set an item) and "$LDOTA," frames are answered with. Replies are
// given as the part of the body after the echoed command (the length byte is implied).
// The same state answers the KTC side of "Zelto-KTC" and "Marvo-KTC" (the serial requests
// carried by KTC, the network block 0x08 and the destination 0x20).
// docs/virtual-lidar.md lists the map; docs/small-sensors.md is the wire page.

#include <array>
#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

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
  // Reply body after the type byte for a "$LDOTA," frame: the status byte.
  std::vector<uint8_t> Ota(uint8_t type, uint32_t value1, uint32_t value2, const std::vector<uint8_t>& data);

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
};

}  // namespace varkel::sim
