#pragma once
// Splits the byte stream of a serial line into whole reply frames ("$LDCMD,"/"$LDOTA,"
// tag ... EE FF) and everything else (streamed data). Pure: no I/O, no clock; the caller
// says when the line has gone quiet.

#include <cstddef>
#include <cstdint>
#include <functional>
#include <vector>

namespace quarn::lidar {

class FrameAssembler {
 public:
  enum class Kind { kFrame, kData };
  using Sink = std::function<void(Kind, const uint8_t*, size_t)>;

  // Bytes held while a frame is being put together, and the largest frame accepted.
  static constexpr size_t kWorkBufferSize = 81920;
  static constexpr size_t kMaxFrameSize = 1500;
  // Data is handed on in runs of at most this many bytes (one ring slot).
  static constexpr size_t kMaxDataRun = 1500;

  FrameAssembler();

  // Appends bytes and emits every frame and data run that is now complete.
  void Feed(const uint8_t* data, size_t length, const Sink& sink);
  // The line went quiet: a frame whose trailer arrived but whose length byte promised more
  // is taken as ending at that trailer. A frame with no trailer yet keeps waiting.
  void Idle(const Sink& sink);
  void Reset();

  size_t Pending() const { return pending_.size(); }

 private:
  void Process(const Sink& sink, bool idle);
  void EmitData(size_t count, const Sink& sink);
  void EmitFrame(size_t count, const Sink& sink);
  // First frame length >= 19 ending in EE FF within what is held, or 0.
  size_t FirstTrailerEnd() const;
  // Where a complete tag starts after the first byte, or 0.
  size_t NextTagStart() const;

  std::vector<uint8_t> pending_;
};

}  // namespace quarn::lidar
