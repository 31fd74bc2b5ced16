#include "ota_receiver.h"

#include "crc32_mpeg2.h"
#include "file_receiver.h"

namespace varkel::sim {

uint8_t OtaReceiver::Fail(uint8_t status) {
  Abandon();
  return status;
}

void OtaReceiver::Abandon() {
  if (!open_) return;
  current_.length = static_cast<uint32_t>(data_.size());
  current_.sha256_hex = Sha256Hex(data_);
  current_.ok = false;
  finished_ = current_;
  open_ = false;
  data_.clear();
}

std::optional<OtaRecord> OtaReceiver::TakeFinished() {
  auto r = finished_;
  finished_.reset();
  return r;
}

uint8_t OtaReceiver::OnFrame(uint8_t type, uint32_t value1, uint32_t value2, const std::vector<uint8_t>& data,
                             bool upgrade_mode) {
  switch (type) {
    case kStart:
    case kComponentStart: {
      // A new start abandons whatever was open.
      Abandon();
      const bool component = type == kComponentStart;
      if (!data.empty() || value1 == 0) return kBadData;
      if (value1 > kMaxImage) return kRefused;
      if (component && !upgrade_mode) return kNotExpected;
      if (component ? value2 > 3 : value2 > 1) return kRefused;
      open_ = true;
      current_ = OtaRecord{component, value2, 0, std::string(), false};
      expected_length_ = value1;
      pieces_ = (value1 + kPieceSize - 1) / kPieceSize;
      next_ = 1;
      data_.clear();
      data_.reserve(value1);
      return kTaken;
    }
    case kPiece: {
      if (!open_ || value1 != next_ || value2 != pieces_) return Fail(kNotExpected);
      const uint32_t want = value1 < pieces_ ? kPieceSize : expected_length_ - (pieces_ - 1) * kPieceSize;
      if (data.size() != want) return Fail(kBadData);
      data_.insert(data_.end(), data.begin(), data.end());
      ++next_;
      return kTaken;
    }
    case kEnd: {
      if (!open_ || next_ != pieces_ + 1) return Fail(kNotExpected);
      if (!data.empty() || value1 != data_.size() || value2 != quarn::lidar::Crc32Mpeg2(data_)) return Fail(kBadData);
      current_.length = static_cast<uint32_t>(data_.size());
      current_.sha256_hex = Sha256Hex(data_);
      current_.ok = true;
      finished_ = current_;
      last_complete_.swap(data_);
      data_.clear();
      open_ = false;
      return kTaken;
    }
    default:
      return Fail(kRefused);
  }
}

}  // namespace varkel::sim
