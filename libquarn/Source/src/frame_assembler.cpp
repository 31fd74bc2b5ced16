#include "frame_assembler.h"

#include <algorithm>
#include <cstring>

#include "serial_frame.h"

namespace quarn::lidar {
namespace {

// How many leading bytes of `p` (n bytes) agree with either tag.
size_t TagMatch(const uint8_t* p, size_t n) {
  size_t best = 0;
  for (const char* tag : {kCommandTag, kOtaTag}) {
    size_t i = 0;
    while (i < n && i < kSerialTagSize && p[i] == static_cast<uint8_t>(tag[i])) ++i;
    best = std::max(best, i);
  }
  return best;
}

}  // namespace

FrameAssembler::FrameAssembler() {
  pending_.reserve(kWorkBufferSize);
}

void FrameAssembler::Reset() {
  pending_.clear();
}

void FrameAssembler::Feed(const uint8_t* data, size_t length, const Sink& sink) {
  while (length != 0) {
    // Never hold more than the work buffer; a stream with no frames drains as data.
    const size_t room = kWorkBufferSize - pending_.size();
    const size_t take = std::min(room, length);
    pending_.insert(pending_.end(), data, data + take);
    data += take;
    length -= take;
    Process(sink, false);
    if (pending_.size() == kWorkBufferSize) EmitData(std::min(pending_.size(), kMaxDataRun), sink);
  }
}

void FrameAssembler::Idle(const Sink& sink) {
  Process(sink, true);
}

void FrameAssembler::EmitData(size_t count, const Sink& sink) {
  size_t done = 0;
  while (done < count) {
    const size_t run = std::min(kMaxDataRun, count - done);
    sink(Kind::kData, pending_.data() + done, run);
    done += run;
  }
  pending_.erase(pending_.begin(), pending_.begin() + static_cast<std::ptrdiff_t>(count));
}

void FrameAssembler::EmitFrame(size_t count, const Sink& sink) {
  sink(Kind::kFrame, pending_.data(), count);
  pending_.erase(pending_.begin(), pending_.begin() + static_cast<std::ptrdiff_t>(count));
}

size_t FrameAssembler::FirstTrailerEnd() const {
  const size_t limit = std::min(pending_.size(), kMaxFrameSize);
  for (size_t end = kMinSerialReplySize; end <= limit; ++end) {
    if (pending_[end - 2] == kSerialTrailer0 && pending_[end - 1] == kSerialTrailer1) return end;
  }
  return 0;
}

size_t FrameAssembler::NextTagStart() const {
  for (size_t i = 1; i + kSerialTagSize <= pending_.size(); ++i) {
    if (pending_[i] == '$' && TagMatch(&pending_[i], kSerialTagSize) == kSerialTagSize) return i;
  }
  return 0;
}

void FrameAssembler::Process(const Sink& sink, bool idle) {
  while (!pending_.empty()) {
    // Everything before the first '$' is data.
    const auto dollar = std::find(pending_.begin(), pending_.end(), static_cast<uint8_t>('$'));
    const size_t lead = static_cast<size_t>(dollar - pending_.begin());
    if (lead != 0) {
      EmitData(lead, sink);
      continue;
    }
    const size_t matched = TagMatch(pending_.data(), pending_.size());
    if (matched < kSerialTagSize) {
      if (matched == pending_.size()) return;  // the start of a tag; wait for the rest
      // A '$' that starts no tag: data up to the next '$'.
      const auto next = std::find(pending_.begin() + 1, pending_.end(), static_cast<uint8_t>('$'));
      EmitData(static_cast<size_t>(next - pending_.begin()), sink);
      continue;
    }
    if (pending_.size() <= kSerialTagSize) return;
    // The length byte of a reply counts the bytes after the command code.
    const size_t predicted = kMinSerialReplySize + pending_[kSerialTagSize];
    if (pending_.size() >= predicted && pending_[predicted - 2] == kSerialTrailer0 &&
        pending_[predicted - 1] == kSerialTrailer1) {
      EmitFrame(predicted, sink);
      continue;
    }
    if (pending_.size() >= predicted || idle) {
      // The length byte does not fit what arrived. A new tag before any trailer means this
      // frame was cut short: give it up as data. Otherwise the first trailer ends it and
      // the reply check judges it. A quiet line with neither keeps waiting: the frame may
      // still be on its way, and the next exchange clears it anyway.
      const size_t trailer_end = FirstTrailerEnd();
      const size_t next_tag = NextTagStart();
      if (next_tag != 0 && (trailer_end == 0 || next_tag < trailer_end)) {
        EmitData(next_tag, sink);
        continue;
      }
      if (trailer_end != 0) {
        EmitFrame(trailer_end, sink);
        continue;
      }
      if (pending_.size() >= kMaxFrameSize) {
        // No trailer within the largest frame: the tag was noise.
        const auto next = std::find(pending_.begin() + 1, pending_.end(), static_cast<uint8_t>('$'));
        EmitData(static_cast<size_t>(next - pending_.begin()), sink);
        continue;
      }
    }
    return;  // a frame still arriving
  }
}

}  // namespace quarn::lidar
