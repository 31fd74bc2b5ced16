#pragma once
// Reassembles a file sent as numbered pieces (16-byte piece header: 0, k, total, CRC of
// the data; all u32 big-endian; then 1 to 1024 data bytes) and fingerprints it.

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace varkel::sim {

struct TransferRecord {
  uint32_t length = 0;     // bytes received
  std::string sha256_hex;  // of those bytes, lower-case
  bool ok = false;         // every piece arrived, in order, with a good CRC
};

class FileReceiver {
 public:
  enum class Result { kAccepted, kCompleted, kBadCrc, kBadNumber, kMalformed };

  static constexpr size_t kPieceHeader = 16;
  static constexpr size_t kPieceData = 1024;

  // One piece (header and data). Any refusal abandons the file being received and
  // records it as failed; piece 1 always starts a new file.
  Result OnPiece(const uint8_t* piece, size_t len);

  // Ends the file being received, if any, as failed (its connection went away).
  void Abandon() {
    if (open_) Finish(false);
  }

  // The last file finished or abandoned.
  std::optional<TransferRecord> last() const { return last_; }
  // The bytes of the last file that arrived whole (empty until one did).
  const std::vector<uint8_t>& last_complete_data() const { return last_complete_; }
  // Pieces accepted of the file now being received (0 when none is open).
  uint32_t pieces_in_progress() const { return open_ ? next_ - 1 : 0; }

 private:
  void Finish(bool ok);

  bool open_ = false;
  uint32_t next_ = 1;
  uint32_t total_ = 0;
  std::vector<uint8_t> data_;
  std::optional<TransferRecord> last_;
  std::vector<uint8_t> last_complete_;
};

std::string Sha256Hex(const std::vector<uint8_t>& data);

}  // namespace varkel::sim
