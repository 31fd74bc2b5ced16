#pragma once
// Frames of the serial command protocol: "$LDCMD," commands and "$LDOTA," firmware data,
// and the check of the sensor's replies. Pure functions, shared with the virtual sensor.

#include <cstddef>
#include <cstdint>
#include <vector>

namespace quarn::lidar {

constexpr char kCommandTag[] = "$LDCMD,";
constexpr char kOtaTag[] = "$LDOTA,";
constexpr size_t kSerialTagSize = 7;
constexpr uint8_t kSerialTrailer0 = 0xEE;
constexpr uint8_t kSerialTrailer1 = 0xFF;
// Tag, length byte, command, nonce, CRC, trailer: the smallest frame of either direction.
constexpr size_t kMinSerialReplySize = 19;
// One read of a reply never takes more than this.
constexpr size_t kSerialReplyBlockSize = 1500;

// Reply check kinds: which byte order the reply's CRC is stored in.
constexpr int kReplyCheckCommand = 1;  // least significant byte first
constexpr int kReplyCheckOta = 2;      // most significant byte first

// A fresh 32-bit nonce from an MT19937 seeded from the random device, one per frame.
uint32_t FreshNonce();

// "$LDCMD," frame for `cmd` with `payload` and the given nonce (tests fix it; the client
// passes FreshNonce()).
std::vector<uint8_t> BuildCommandFrame(uint8_t cmd, const std::vector<uint8_t>& payload, uint32_t nonce);

// "$LDOTA," frame: type byte, two caller values and the data, all big-endian, CRC MSB first.
std::vector<uint8_t> BuildOtaFrame(uint8_t frame_type, uint32_t value1, uint32_t value2, const uint8_t* data,
                                   size_t length);

// Checks a received block. On success `body` holds the length byte, the echoed command
// and the rest; on failure `body` is left empty. Replies count in their length byte only
// the bytes after the command code (a request counts the command too), and the check
// holds them to that.
bool CheckReply(int kind, const uint8_t* block, size_t length, std::vector<uint8_t>& body);
inline bool CheckReply(int kind, const std::vector<uint8_t>& block, std::vector<uint8_t>& body) {
  return CheckReply(kind, block.data(), block.size(), body);
}

}  // namespace quarn::lidar
