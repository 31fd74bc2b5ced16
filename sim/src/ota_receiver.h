#pragma once
// The small sensors' side of the OTA exchange (docs/upgrade.md): a start frame opens an
// image (a Zelto image in mode 0/1) or a Marvo component (type 0-3), numbered pieces of
// 1024 bytes follow, an end frame with the length and the CRC-32/MPEG-2 of the whole
// closes it. Each frame gets a status: 0 taken, 1 not expected now, 2 bad data, 3 refused.

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace varkel::sim {

struct OtaRecord {
  bool component = false;  // a Marvo component; otherwise a Zelto image
  uint32_t kind = 0;       // the image's upgrade mode, or the component type
  uint32_t length = 0;     // bytes that arrived
  std::string sha256_hex;  // of those bytes
  bool ok = false;         // ended with a matching length and CRC
};

class OtaReceiver {
 public:
  static constexpr uint8_t kStart = 0x01;
  static constexpr uint8_t kPiece = 0x02;
  static constexpr uint8_t kEnd = 0x03;
  static constexpr uint8_t kComponentStart = 0x11;

  static constexpr uint8_t kTaken = 0;
  static constexpr uint8_t kNotExpected = 1;
  static constexpr uint8_t kBadData = 2;
  static constexpr uint8_t kRefused = 3;

  static constexpr uint32_t kPieceSize = 1024;
  // Larger images are refused at their start.
  static constexpr uint32_t kMaxImage = 64u << 20;

  // One frame. `upgrade_mode`: the sensor is in work mode 4, where components are taken.
  uint8_t OnFrame(uint8_t type, uint32_t value1, uint32_t value2, const std::vector<uint8_t>& data, bool upgrade_mode);
  // Ends the open image as failed (a refused piece, a dropped line).
  void Abandon();

  bool open() const { return open_; }
  // The image or component finished (or abandoned) by the last call, once; then cleared.
  std::optional<OtaRecord> TakeFinished();
  // The bytes of the last image that ended well.
  const std::vector<uint8_t>& last_complete_data() const { return last_complete_; }

 private:
  uint8_t Fail(uint8_t status);

  bool open_ = false;
  OtaRecord current_;
  uint32_t expected_length_ = 0;
  uint32_t pieces_ = 0;
  uint32_t next_ = 1;
  std::vector<uint8_t> data_;
  std::vector<uint8_t> last_complete_;
  std::optional<OtaRecord> finished_;
};

}  // namespace varkel::sim
