#pragma once
// The sensor's side of the serial command protocol, written apart from the program's
// frame builder so that the two check each other.
//
// Requests:
//   "$LDCMD," len=(n+1)%256 cmd payload[n] nonce(u32 LE) crc(u32 LE) EE FF
//   "$LDOTA," 00 00 00 type v1(u32 BE) v2(u32 BE) m(u32 BE) data[m] crc(u32 BE) EE FF
// Replies: tag, body = [len = bytes after cmd, cmd, rest...], nonce, crc, EE FF; the CRC
// runs over body and nonce (zero-padded to a multiple of 4), LE for "$LDCMD," replies and
// BE for "$LDOTA," replies.

#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

namespace varkel::sim {

struct SerialRequest {
  bool ota = false;
  uint8_t cmd = 0;               // command code, or the OTA frame type
  std::vector<uint8_t> payload;  // command payload, or the OTA data
  uint32_t value1 = 0;           // OTA caller values
  uint32_t value2 = 0;
  std::vector<uint8_t> frame;
};

class SerialRequestReader {
 public:
  static constexpr uint32_t kMaxOtaData = 1u << 20;

  void Feed(const uint8_t* data, size_t len);
  std::optional<SerialRequest> Next();
  // Frames dropped for a bad CRC or trailer, and bytes skipped while hunting for a tag.
  size_t rejected() const { return rejected_; }
  size_t skipped() const { return skipped_; }

 private:
  std::vector<uint8_t> buf_;
  size_t rejected_ = 0;
  size_t skipped_ = 0;
};

std::vector<uint8_t> BuildSerialCommandReply(uint8_t cmd, const std::vector<uint8_t>& rest, uint32_t nonce);
std::vector<uint8_t> BuildSerialOtaReply(uint8_t cmd, const std::vector<uint8_t>& rest, uint32_t nonce);

}  // namespace varkel::sim
