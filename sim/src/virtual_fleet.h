#pragma once
// Many virtual lidars in one process, on consecutive loopback addresses and one port, each
// with a serial number of its own: for demos, tests and benchmarks of many sensors.

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "virtual_lidar.h"

namespace varkel::sim {

class VirtualFleet {
 public:
  // The first member listens on base.host, the next on the address after it, and so on.
  VirtualFleet(SimOptions base, size_t count);
  ~VirtualFleet();
  VirtualFleet(const VirtualFleet&) = delete;
  VirtualFleet& operator=(const VirtualFleet&) = delete;

  // false with a reason: a first or last address outside 127.0.0.0/8, a member that did
  // not start. Nothing is left running then.
  bool Start(std::string* error);
  void Stop();

  size_t size() const { return members_.size(); }
  uint16_t port() const { return port_; }
  VirtualLidar& member(size_t i) { return *members_[i]; }
  std::string address(size_t i) const { return addresses_[i]; }
  // The member listening on `address`; nullptr when none does.
  VirtualLidar* Find(const std::string& address);

  static constexpr size_t kMostMembers = 1024;

 private:
  SimOptions base_;
  size_t count_;
  uint16_t port_ = 0;
  std::vector<std::string> addresses_;
  std::vector<std::unique_ptr<VirtualLidar>> members_;
};

}  // namespace varkel::sim
