#pragma once
// A fixed ring of 1520-byte packet slots with its own lock and condition variable. The
// serial receive side pushes whole frames or data chunks; readers take whole slots, so a
// reader never sees half of what was pushed. When full, the oldest slot is overwritten:
// the newest reply and the newest points are the ones worth keeping.

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <vector>

namespace quarn::lidar {

constexpr size_t kPacketSlotDataSize = 1500;

struct PacketSlot {
  uint64_t receive_time_us;  // steady clock, for latency figures
  uint32_t sequence;         // running count of pushes, to spot overwritten slots
  uint16_t length;
  uint16_t flags;
  uint8_t data[kPacketSlotDataSize];
  uint8_t reserved[4];
};
static_assert(sizeof(PacketSlot) == 1520, "a ring slot is 1500 data bytes plus length and bookkeeping");

class PacketRing {
 public:
  explicit PacketRing(size_t slots);

  // Copies at most kPacketSlotDataSize bytes (the caller cuts longer runs first).
  void Push(const uint8_t* data, size_t length);

  // Waits until a slot is there, the deadline passes or the ring is shut down. Returns the
  // bytes copied (the slot's length, cut to `capacity`), 0 on time-out, -1 when shut down.
  int Pop(uint8_t* out, size_t capacity, std::chrono::steady_clock::time_point deadline);
  // Takes a slot only if one is waiting: bytes copied, or 0.
  int TryPop(uint8_t* out, size_t capacity);

  void Clear();
  // Shut down wakes every waiter and makes Pop return -1 until Reopen.
  void Shutdown();
  void Reopen();

  size_t Size() const;
  size_t Capacity() const { return slots_.size(); }
  uint64_t Overwritten() const;

 private:
  int TakeLocked(uint8_t* out, size_t capacity);

  mutable std::mutex mutex_;
  std::condition_variable ready_;
  std::vector<PacketSlot> slots_;
  size_t head_ = 0;  // oldest filled slot
  size_t count_ = 0;
  uint32_t sequence_ = 0;
  uint64_t overwritten_ = 0;
  bool shut_down_ = false;
};

}  // namespace quarn::lidar
