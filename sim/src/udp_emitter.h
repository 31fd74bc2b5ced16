#pragma once
// Sends point-cloud-like datagrams at a fixed rate to HOST:PORT, or wherever the target
// source says, as a sensor follows its destination registers. Only addresses of this
// machine get them; a group address (224.0.0.0 to 239.255.255.255) is sent as multicast
// out of the loopback interface (TTL 1, loop on). Any other target (another host, a
// broadcast address) is counted as sent but nothing is put on the wire.

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "reply_path.h"

namespace varkel::sim {

class UdpEmitter {
 public:
  explicit UdpEmitter(ReplyPath& path) : path_(path) {}
  ~UdpEmitter() { Stop(); }

  struct Target {
    uint32_t addr = 0;  // network order
    uint16_t port = 0;  // host order
  };
  // Asked about ten times a second for where the datagrams go; nullopt keeps the target.
  using TargetSource = std::function<std::optional<Target>()>;

  static constexpr size_t kMinSize = 64;
  static constexpr size_t kMaxSize = 1472;  // one Ethernet frame

  // target "HOST:PORT" (HOST a dotted IPv4 address or a name), rate datagrams per second,
  // size bytes per datagram (0: a whole point packet).
  bool Start(const std::string& target, int rate, size_t size, std::string* error, TargetSource source = nullptr);
  void Stop();
  // Datagrams sent, those that went to another host (never on the wire) included.
  uint64_t sent() const { return sent_.load(); }
  uint64_t withheld() const { return withheld_.load(); }

 private:
  void Run();
  std::vector<uint8_t> Packet(uint32_t seq, uint64_t time_us) const;
  // Follows the target source; says once per target when it is not put on the wire.
  void Retarget(const Target& t);

  ReplyPath& path_;
  int fd_ = -1;
  uint32_t addr_ = 0;  // network order
  uint16_t port_ = 0;  // host order
  int rate_ = 0;
  size_t size_ = 0;
  TargetSource source_;
  bool on_wire_ = true;  // the target is an address of this machine or a group
  std::atomic<uint64_t> sent_{0};
  std::atomic<uint64_t> withheld_{0};
  std::thread thread_;
  // Keeps apart the emitter thread's paced wait and Stop from the embedding thread.
  // Also guards the target (addr_, port_, on_wire_), which Retarget changes.
  std::mutex mu_;
  std::condition_variable cv_;
  bool stop_ = false;
};

// "HOST:PORT" -> IPv4 address (network order) and port; false with a reason.
bool ParseHostPort(const std::string& text, uint32_t* addr, uint16_t* port, std::string* error);
// Whether a datagram to `addr` stays on this machine: one of its unicast addresses (or
// loopback), or a multicast group (sent out of loopback only).
bool StaysOnThisMachine(uint32_t addr);

}  // namespace varkel::sim
