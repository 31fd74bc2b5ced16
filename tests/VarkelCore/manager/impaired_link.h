#pragma once
// A network of two hosts on one machine for the network-fault tests: the test process on
// one side, a namespace of its own on the other, joined by two TUN devices and a wire in
// user space that delays, drops or cuts the packets crossing it. The kernels on both sides
// run real TCP over it: a lost packet is retransmitted, a delayed one is waited for.
// Needs root and iproute2's `ip`; Create says why when it cannot be made.

#include <atomic>
#include <cstdint>
#include <functional>
#include <mutex>
#include <random>
#include <string>
#include <thread>

namespace vktest {

class ImpairedLink {
 public:
  ImpairedLink() = default;
  ~ImpairedLink();
  ImpairedLink(const ImpairedLink&) = delete;
  ImpairedLink& operator=(const ImpairedLink&) = delete;

  // Makes the namespace, the devices and the wire; "" when done, else the reason.
  std::string Create();

  // The far side's address (inside the namespace) and ours.
  const std::string& inside_ip() const { return inside_ip_; }
  const std::string& outside_ip() const { return outside_ip_; }

  // Runs `f` on a thread that has entered the namespace and waits for it; threads that
  // `f` starts stay inside. False when the namespace cannot be entered.
  bool RunInside(const std::function<void()>& f);

  // Every packet waits this long on the wire, in each direction.
  void SetDelayMs(int ms) { delay_ms_.store(ms); }
  // Each packet is lost with this probability (0..1), in each direction.
  void SetLoss(double p);
  // A cut wire: nothing crosses, and no side is told.
  void SetDown(bool down) { down_.store(down); }

  // Packets carried and dropped so far.
  uint64_t carried() const { return carried_.load(); }
  uint64_t dropped() const { return dropped_.load(); }

 private:
  void Pump();
  void Destroy();

  std::string ns_;
  std::string inside_ip_, outside_ip_;
  int fd_out_ = -1;  // our side's device
  int fd_in_ = -1;   // the namespace's device
  int wake_[2] = {-1, -1};
  std::thread pump_;
  std::atomic<int> delay_ms_{0};
  std::atomic<bool> down_{false};
  std::atomic<uint64_t> carried_{0}, dropped_{0};
  std::mutex loss_mutex_;
  double loss_ = 0.0;
  std::mt19937 random_{20261123};
};

}  // namespace vktest
