#pragma once
// The sensor's side of the KTC frame: cutting requests out of a byte stream and building
// replies. Written for the sensor on its own (not shared with the program's encoder), so
// that a mistake in one side cannot be mirrored by the other.
//
//   version 1: 'G' 't' cmd rc len(u32 BE)                      payload   (8-byte header)
//   version 2: 'W' 'u' 0x01 cmd rc 0 0 0 len(u32 BE)           payload   (12-byte header)

#include <cstddef>
#include <cstdint>
#include <deque>
#include <optional>
#include <vector>

namespace varkel::sim {

struct KtcLayout {
  uint8_t id0;
  uint8_t id1;
  size_t header_size;
  size_t cmd_at;
  size_t rc_at;
  size_t len_at;
};

// Layout of frame version 1 or 2 (anything else is treated as 1).
const KtcLayout& KtcLayoutOf(int version);

struct KtcRequest {
  uint8_t cmd = 0;
  std::vector<uint8_t> payload;
  std::vector<uint8_t> frame;  // the whole frame as received, for the trace
};

// Collects stream bytes and yields whole request frames. Bytes before the identifier
// pair are noise and are dropped (counted in discarded()).
class KtcRequestReader {
 public:
  // A request announcing more than this is taken as a broken stream.
  static constexpr uint32_t kMaxPayload = 64u * 1024u * 1024u;

  explicit KtcRequestReader(int version) : layout_(KtcLayoutOf(version)) {}

  void Feed(const uint8_t* data, size_t len);
  // The next complete request, if one has arrived.
  std::optional<KtcRequest> Next();
  size_t discarded() const { return discarded_; }
  // True once a request announced a payload over kMaxPayload; the stream is unusable.
  bool broken() const { return broken_; }

 private:
  KtcLayout layout_;
  std::vector<uint8_t> buf_;
  size_t discarded_ = 0;
  bool broken_ = false;
};

std::vector<uint8_t> BuildKtcReply(int version, uint8_t cmd, uint8_t return_code, const std::vector<uint8_t>& payload);

// A complete version-1 frame and nothing more (the pieces of a file transfer travel as
// such frames inside a request's payload): its command and payload.
std::optional<KtcRequest> ParseWholeV1Frame(const uint8_t* data, size_t len);

uint32_t ReadU32BE(const uint8_t* p);
void WriteU32BE(uint8_t* p, uint32_t v);

}  // namespace varkel::sim
