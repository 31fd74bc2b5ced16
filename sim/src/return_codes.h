#pragma once
// Non-zero return codes the simulated sensor puts in a KTC reply. The program shows
// them as numbers; tests and docs/virtual-lidar.md name them.

#include <cstdint>

namespace varkel::sim {

constexpr uint8_t kRcUnknownCommand = 0x01;  // command (or extended code) the model does not know
constexpr uint8_t kRcBadCrc = 0x02;          // a file piece whose CRC does not match its data
constexpr uint8_t kRcBadPiece = 0x03;        // a file piece out of order, with a changed total or malformed
constexpr uint8_t kRcBadPayload = 0x04;      // payload of the wrong shape for the command

}  // namespace varkel::sim
