#include "point_cloud.h"

#include <cmath>

namespace varkel::sim {

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
  const uint32_t first = (sequence * points) % 36000u;
  for (uint32_t k = 0; k < points; ++k) {
    const uint32_t az = (first + k * 36u) % 36000u;
    const double rad = az * M_PI / 18000.0;
    const auto dist = static_cast<uint16_t>(4000 + 1500 * std::sin(3 * rad) + 300 * std::cos(7 * rad));
    const auto intensity = static_cast<uint8_t>(60 + (az / 100) % 120);
    p.push_back(static_cast<uint8_t>(az >> 8));
    p.push_back(static_cast<uint8_t>(az));
    p.push_back(static_cast<uint8_t>(dist >> 8));
    p.push_back(static_cast<uint8_t>(dist));
    p.push_back(intensity);
  }
  return p;
}

}  // namespace varkel::sim
