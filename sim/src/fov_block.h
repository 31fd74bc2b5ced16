#pragma once
// The field of view the simulated lidar applies: five start and five end angles, in
// hundredths of a degree, behind commands 0x23 (read) and 0x22 (write). The channel byte
// of both is the table's field-of-view variable, which stays in the register bank.
// docs/field-of-view.md gives the bytes.

#include <array>
#include <cstdint>
#include <mutex>
#include <vector>

namespace varkel::sim {

class FovBlock {
 public:
  using Angles = std::array<uint16_t, 5>;
  static constexpr uint8_t kReadCmd = 0x23;
  static constexpr uint8_t kWriteCmd = 0x22;
  static constexpr uint16_t kMaxAngle = 36000;

  // channel, start 1..5, end 1..5 (u16 big-endian each): 21 bytes.
  std::vector<uint8_t> Reply(uint8_t channel) const;
  // A write is channel + five start angles (11 bytes, each at most 36000). False, and
  // nothing changes, for any other payload.
  bool Write(const std::vector<uint8_t>& payload);

  void Set(const Angles& start, const Angles& end);
  // The whole circle on every channel, as the sensor starts (a reset returns there).
  void RestoreDefaults();
  Angles Start() const;
  Angles End() const;

 private:
  mutable std::mutex mu_;  // connection threads against the embedding thread
  static constexpr Angles kDefaultStart{0, 0, 0, 0, 0};
  static constexpr Angles kDefaultEnd{kMaxAngle, kMaxAngle, kMaxAngle, kMaxAngle, kMaxAngle};
  Angles start_ = kDefaultStart;
  Angles end_ = kDefaultEnd;
};

}  // namespace varkel::sim
