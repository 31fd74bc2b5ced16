#include "point_cloud.h"

#include <array>
#include <cmath>

namespace varkel::sim {
namespace {

constexpr uint32_t kTurn = 36000;  // azimuth steps of 0.01 degree

// Every point of the room once, worked out at first use: the emitter's high rates then
// copy bytes instead of computing two sines per point.
const std::vector<std::array<uint8_t, kPointSize>>& Room() {
  static const auto room = [] {
    std::vector<std::array<uint8_t, kPointSize>> r(kTurn);
    for (uint32_t az = 0; az < kTurn; ++az) {
      const double rad = az * M_PI / 18000.0;
      const auto dist = static_cast<uint16_t>(4000 + 1500 * std::sin(3 * rad) + 300 * std::cos(7 * rad));
      const auto intensity = static_cast<uint8_t>(60 + (az / 100) % 120);
      r[az] = {static_cast<uint8_t>(az >> 8), static_cast<uint8_t>(az), static_cast<uint8_t>(dist >> 8),
               static_cast<uint8_t>(dist), intensity};
    }
    return r;
  }();
  return room;
}

}  // namespace

std::vector<uint8_t> BuildPointCloudPacket(uint32_t sequence, uint64_t time_us, uint8_t points) {
  std::vector<uint8_t> p;
  p.reserve(kPointCloudHeader + size_t{points} * kPointSize);
  p.push_back(0xA5);
  p.push_back(0x5A);
  p.push_back(1);
  p.push_back(points);
  for (int i = 3; i >= 0; --i) p.push_back(static_cast<uint8_t>(sequence >> (8 * i)));
  for (int i = 7; i >= 0; --i) p.push_back(static_cast<uint8_t>(time_us >> (8 * i)));
  // A slowly turning room: each packet covers the next slice of a full turn.
  const auto& room = Room();
  const uint32_t first = (sequence * points) % kTurn;
  for (uint32_t k = 0; k < points; ++k) {
    const auto& point = room[(first + k * 36u) % kTurn];
    p.insert(p.end(), point.begin(), point.end());
  }
  return p;
}

}  // namespace varkel::sim
