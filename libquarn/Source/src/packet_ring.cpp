#include "packet_ring.h"

#include <algorithm>
#include <cstring>

namespace quarn::lidar {

PacketRing::PacketRing(size_t slots) : slots_(std::max<size_t>(slots, 1)) {}

void PacketRing::Push(const uint8_t* data, size_t length) {
  const size_t n = std::min(length, kPacketSlotDataSize);
  const auto now =
      std::chrono::duration_cast<std::chrono::microseconds>(std::chrono::steady_clock::now().time_since_epoch());
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (count_ == slots_.size()) {
      head_ = (head_ + 1) % slots_.size();
      --count_;
      ++overwritten_;
    }
    PacketSlot& slot = slots_[(head_ + count_) % slots_.size()];
    slot.receive_time_us = static_cast<uint64_t>(now.count());
    slot.sequence = sequence_++;
    slot.length = static_cast<uint16_t>(n);
    slot.flags = 0;
    if (n != 0) std::memcpy(slot.data, data, n);
    ++count_;
  }
  ready_.notify_one();
}

int PacketRing::TakeLocked(uint8_t* out, size_t capacity) {
  const PacketSlot& slot = slots_[head_];
  const size_t n = std::min<size_t>(slot.length, capacity);
  if (n != 0) std::memcpy(out, slot.data, n);
  head_ = (head_ + 1) % slots_.size();
  --count_;
  return static_cast<int>(n);
}

int PacketRing::Pop(uint8_t* out, size_t capacity, std::chrono::steady_clock::time_point deadline) {
  std::unique_lock<std::mutex> lock(mutex_);
  ready_.wait_until(lock, deadline, [this] { return shut_down_ || count_ != 0; });
  if (shut_down_) return -1;
  if (count_ == 0) return 0;
  return TakeLocked(out, capacity);
}

int PacketRing::TryPop(uint8_t* out, size_t capacity) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (count_ == 0) return 0;
  return TakeLocked(out, capacity);
}

void PacketRing::Clear() {
  std::lock_guard<std::mutex> lock(mutex_);
  head_ = 0;
  count_ = 0;
}

void PacketRing::Shutdown() {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    shut_down_ = true;
  }
  ready_.notify_all();
}

void PacketRing::Reopen() {
  std::lock_guard<std::mutex> lock(mutex_);
  shut_down_ = false;
  head_ = 0;
  count_ = 0;
}

size_t PacketRing::Size() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return count_;
}

uint64_t PacketRing::Overwritten() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return overwritten_;
}

}  // namespace quarn::lidar
