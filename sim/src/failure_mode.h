#pragma once
// Ways the simulated sensor misbehaves on purpose, and how a reply frame is cut into
// writes for each of them.

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace varkel::sim {

enum class FailureMode {
  kNone,
  kNoReply,                // the request is swallowed
  kDelay,                  // the reply comes after param ms (default 1000)
  kReturnCode,             // the reply carries return code param (default 1)
  kWrongEchoCmd,           // the reply echoes another command
  kWrongIdentifiers,       // the reply starts with the other frame version's identifiers
  kNoiseBeforeHeader,      // param (default 5) noise bytes precede the reply
  kSplitHeader,            // the header goes out in two writes, cut after param bytes (default 3)
  kTruncatedPayload,       // half the payload, then the connection is closed
  kLyingLength,            // the length field claims param (default 16) bytes more than follow
  kResetMidReply,          // half the header, then the connection is reset
  kSlowDrip,               // identifiers together, then one byte every param ms (default 5)
  kDisconnectAfterPieces,  // a file transfer's connection is closed after param pieces (default 1)
  kRefusePiece,            // file piece number param (default 1) is refused with 0x03; the file fails
  kSilentAfterPieces,      // file pieces after number param (default 1) are swallowed unanswered
};

// Command-line names: "no-reply", "slow-drip"...
const char* FailureModeName(FailureMode mode);
std::optional<FailureMode> FailureModeFromName(const std::string& name);
std::vector<std::string> FailureModeNames();

// One write of a shaped reply.
struct WriteStep {
  enum class After { kNothing, kClose, kReset };
  int delay_ms = 0;  // wait before writing
  std::vector<uint8_t> bytes;
  After after = After::kNothing;
};

// Cuts a well-formed reply frame of KTC version `version` into the writes `mode` asks
// for. kNoReply yields no step; kDisconnectAfterPieces and the other file-piece modes leave
// the reply alone. The frame is taken by value: a log reply can be tens of MiB, and callers
// move it in.
std::vector<WriteStep> ShapeReply(int version, std::vector<uint8_t> frame, FailureMode mode, int param);

}  // namespace varkel::sim
