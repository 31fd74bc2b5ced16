#pragma once
// Sends point-cloud-like datagrams at a fixed rate to HOST:PORT; a group address
// (224.0.0.0 to 239.255.255.255) is sent as multicast on the loopback interface's
// reach (TTL 1, loop on).

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <string>
#include <thread>

#include "reply_path.h"

namespace varkel::sim {

class UdpEmitter {
 public:
  explicit UdpEmitter(ReplyPath& path) : path_(path) {}
  ~UdpEmitter() { Stop(); }

  // target "HOST:PORT" (HOST a dotted IPv4 address or a name), rate datagrams per second.
  bool Start(const std::string& target, int rate, std::string* error);
  void Stop();
  uint64_t sent() const { return sent_.load(); }

 private:
  void Run();

  ReplyPath& path_;
  int fd_ = -1;
  uint32_t addr_ = 0;  // network order
  uint16_t port_ = 0;  // host order
  int rate_ = 0;
  std::atomic<uint64_t> sent_{0};
  std::thread thread_;
  // Keeps apart the emitter thread's paced wait and Stop from the embedding thread.
  std::mutex mu_;
  std::condition_variable cv_;
  bool stop_ = false;
};

// "HOST:PORT" -> IPv4 address (network order) and port; false with a reason.
bool ParseHostPort(const std::string& text, uint32_t* addr, uint16_t* port, std::string* error);

}  // namespace varkel::sim
