#pragma once
// A KTC transport over bytes in memory, for driving KtcClient without a socket. The stream
// is `stale` (late bytes of an earlier exchange, there before anything is sent) followed
// by `reply` (arrives with the first Send). Each read hands out at most the next of
// `chunks` (cycled; a 0 counts as 1), the way a network cuts a stream. When the bytes run
// out a read fails at once, as a timed-out one would, so a fuzz run never waits.

#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

#include "client_base.h"

namespace varkel_fuzz {

class MemoryTransport : public quarn::lidar::ClientBase {
 public:
  MemoryTransport(std::vector<uint8_t> stale, const std::vector<uint8_t>& reply, std::vector<uint8_t> chunks)
      : stream_(std::move(stale)), stale_size_(stream_.size()), chunks_(std::move(chunks)) {
    stream_.insert(stream_.end(), reply.begin(), reply.end());
    if (chunks_.empty()) chunks_.push_back(0xFF);
  }

  bool Open(const std::string&, uint16_t, bool, const char*, const char*, const char*) override { return true; }
  bool TryOpen(uint16_t, const std::string&, uint16_t, bool, const char*, const char*, const char*, uint32_t) override {
    return true;
  }
  void Close() override { open_ = false; }
  bool IsOpened() override { return open_; }

  int Send(const uint8_t* data, uint16_t length, int) override {
    sent_.emplace_back(data, data + length);
    stale_left_at_send_ = pos_ < stale_size_ ? stale_size_ - pos_ : 0;
    return length;
  }

  int Receive(uint8_t* buffer, uint32_t length, int) override {
    const size_t end = sent_.empty() ? stale_size_ : stream_.size();
    if (!open_ || pos_ >= end || length == 0) return -1;
    const size_t chunk = std::max<size_t>(1, chunks_[next_chunk_++ % chunks_.size()]);
    const size_t n = std::min({static_cast<size_t>(length), end - pos_, chunk});
    std::copy(stream_.begin() + static_cast<std::ptrdiff_t>(pos_),
              stream_.begin() + static_cast<std::ptrdiff_t>(pos_ + n), buffer);
    if (!sent_.empty() && first_reply_read_ == 0) first_reply_read_ = n;
    pos_ += n;
    return static_cast<int>(n);
  }

  bool SetReceiveTimeout(uint32_t) override { return true; }
  int SetTimeout(uint32_t, uint32_t) override { return 0; }
  void SetReceiveBufferSize(const uint32_t&) override {}

  const std::vector<std::vector<uint8_t>>& sent() const { return sent_; }
  // Bytes of the stale part still unread when the request went out.
  size_t stale_left_at_send() const { return stale_left_at_send_; }
  // Bytes the first read after the request handed out (0 before one).
  size_t first_reply_read() const { return first_reply_read_; }
  // Bytes of the reply part read so far.
  size_t reply_read() const { return pos_ > stale_size_ ? pos_ - stale_size_ : 0; }

 private:
  std::vector<uint8_t> stream_;
  size_t stale_size_;
  std::vector<uint8_t> chunks_;
  size_t next_chunk_ = 0;
  size_t pos_ = 0;
  size_t stale_left_at_send_ = 0;
  size_t first_reply_read_ = 0;
  bool open_ = true;
  std::vector<std::vector<uint8_t>> sent_;
};

}  // namespace varkel_fuzz
