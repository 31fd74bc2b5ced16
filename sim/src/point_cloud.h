#pragma once
// Point-cloud-like packets for the UDP emitter and the serial data line:
//   A5 5A, version 1, point count (u8), sequence (u32 BE), time in microseconds since
//   start (u64 BE), then per point: azimuth (u16 BE, 0.01 degree), distance (u16 BE, mm),
//   intensity (u8).

#include <cstddef>
#include <cstdint>
#include <vector>

namespace varkel::sim {

constexpr size_t kPointCloudHeader = 16;
constexpr size_t kPointSize = 5;
constexpr uint8_t kPointsPerPacket = 100;

std::vector<uint8_t> BuildPointCloudPacket(uint32_t sequence, uint64_t time_us, uint8_t points = kPointsPerPacket);

}  // namespace varkel::sim
