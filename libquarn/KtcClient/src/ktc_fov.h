#pragma once
// The field of view over KTC: the multi-range read (command 0x23) and the channel write
// (command 0x22). Angles travel as unsigned 16-bit big-endian hundredths of a degree.
//
//   read request   (0x23): empty
//   read reply     (0x23): channel u8, start[5] u16, end[5] u16         (21 bytes)
//   write request  (0x22): channel u8, value[5] u16                      (11 bytes)
//   write reply    (0x22): empty
//
// The channel byte is the value of the table's field-of-view variable (0 = every channel,
// n = channel n): the read reports it, the write sends it with the five values. An
// ordinary get of 0x23 therefore finds that variable at byte 0, as the table lays it out.

#include <array>
#include <cstdint>
#include <string>
#include <vector>

namespace quarn::lidar {

class KtcClient;

constexpr uint8_t kKtcFovReadCmd = 0x23;
constexpr uint8_t kKtcFovWriteCmd = 0x22;
constexpr size_t kFovRanges = 5;
constexpr size_t kFovReadReplySize = 1 + 4 * kFovRanges;
constexpr size_t kFovWritePayloadSize = 1 + 2 * kFovRanges;
constexpr float kFovMaxDegrees = 360.0f;

struct MultiFovConfig {
  uint8_t channel = 0;
  std::array<float, kFovRanges> start{};
  std::array<float, kFovRanges> end{};
};

// False, with a reason in *error when given, for a reply that is not exactly 21 bytes or
// holds an angle above 360 degrees.
bool DecodeMultiFov(const std::vector<uint8_t>& payload, MultiFovConfig& out, std::string* error = nullptr);

// False for an angle outside [0, 360] or not a number; nothing is encoded then.
bool EncodeChannelFov(uint8_t channel, const std::array<float, kFovRanges>& values, std::vector<uint8_t>& payload,
                      std::string* error = nullptr);

// One exchange each: 0 on success, -1 on failure (an exchange failure leaves its reason
// in the client's last return code; a malformed reply or a refused value is -1 as well).
int GetMultiFovConfig(KtcClient& client, MultiFovConfig& out);
int SetChannelFov(KtcClient& client, uint8_t channel, const std::array<float, kFovRanges>& values);

}  // namespace quarn::lidar
