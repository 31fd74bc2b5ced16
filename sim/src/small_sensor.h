#pragma once
// The command register map of the small serial sensors: what their "$LDCMD," requests
// (2 = get an item, 3 = set an item) and "$LDOTA," frames are answered with. Replies are
// given as the part of the body after the echoed command (the length byte is implied).
// Later small-sensor functions grow this map; docs/virtual-lidar.md lists it.

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
  std::vector<uint8_t> correction;  // the correction data item 7 hands out
  uint64_t ota_frames = 0;
  uint8_t last_ota_type = 0;
};

class SmallSensor {
 public:
  static constexpr uint8_t kGet = 2;
  static constexpr uint8_t kSet = 3;

  SmallSensor();

  // Reply body after the command byte for a "$LDCMD," request.
  std::vector<uint8_t> Command(uint8_t cmd, const std::vector<uint8_t>& payload);
  // Reply body after the type byte for a "$LDOTA," frame: the status byte.
  std::vector<uint8_t> Ota(uint8_t type, uint32_t value1, uint32_t value2, const std::vector<uint8_t>& data);

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
