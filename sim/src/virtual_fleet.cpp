#include "virtual_fleet.h"

#include <arpa/inet.h>

#include <cstdio>

namespace varkel::sim {
namespace {

constexpr int kPortTries = 5;

bool Loopback(uint32_t address) {
  return address >> 24 == 127;
}

std::string Text(uint32_t address) {
  in_addr a{htonl(address)};
  char text[INET_ADDRSTRLEN];
  return inet_ntop(AF_INET, &a, text, sizeof text) ? text : "";
}

}  // namespace

VirtualFleet::VirtualFleet(SimOptions base, size_t count) : base_(std::move(base)), count_(count) {}

VirtualFleet::~VirtualFleet() {
  Stop();
}

bool VirtualFleet::Start(std::string* error) {
  in_addr first{};
  if (inet_pton(AF_INET, base_.host.c_str(), &first) != 1) {
    *error = "bad host address: " + base_.host;
    return false;
  }
  if (count_ == 0 || count_ > kMostMembers) {
    *error = "a fleet has 1 to " + std::to_string(kMostMembers) + " members";
    return false;
  }
  const uint32_t start = ntohl(first.s_addr);
  // A demo and test tool: a fleet never takes addresses another machine could have.
  if (!Loopback(start) || start + count_ - 1 < start || !Loopback(static_cast<uint32_t>(start + count_ - 1))) {
    *error = "a fleet lives on loopback only: " + base_.host + " and the " + std::to_string(count_ - 1) +
             " addresses after it must lie in 127.0.0.0/8";
    return false;
  }
  // With port 0 the first member picks a port; another program may hold it on a later
  // address, and then the whole fleet tries another.
  for (int attempt = 0; attempt < (base_.port == 0 ? kPortTries : 1); ++attempt) {
    Stop();
    std::string why;
    uint16_t port = base_.port;
    for (size_t i = 0; i < count_; ++i) {
      SimOptions options = base_;
      options.host = Text(static_cast<uint32_t>(start + i));
      options.port = port;
      // One datagram stream is enough for a demo; many would only flood the receiver.
      if (i > 0) options.udp_target.clear();
      auto lidar = std::make_unique<VirtualLidar>(options);
      if (!lidar->Start(&why)) break;
      port = lidar->port();
      // Each member a serial number of its own: the table's, its end replaced by a number.
      const std::string sn = lidar->Value("SN");
      if (!sn.empty()) {
        char number[8];
        std::snprintf(number, sizeof number, "%04zu", (i + 1) % 10000);
        lidar->SetValue("SN", sn.substr(0, sn.size() > 4 ? sn.size() - 4 : 0) + number);
      }
      addresses_.push_back(options.host);
      members_.push_back(std::move(lidar));
    }
    if (members_.size() == count_) {
      port_ = port;
      return true;
    }
    *error = "member " + std::to_string(members_.size() + 1) + ": " + why;
  }
  Stop();
  return false;
}

void VirtualFleet::Stop() {
  for (auto& member : members_) member->Stop();
  members_.clear();
  addresses_.clear();
  port_ = 0;
}

VirtualLidar* VirtualFleet::Find(const std::string& address) {
  for (size_t i = 0; i < addresses_.size(); ++i)
    if (addresses_[i] == address) return members_[i].get();
  return nullptr;
}

}  // namespace varkel::sim
