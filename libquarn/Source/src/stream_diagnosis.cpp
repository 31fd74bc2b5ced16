#include "stream_diagnosis.h"

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>

namespace quarn::lidar {
namespace {

bool IsLoopback(const std::string& address) {
  in_addr a{};
  return inet_pton(AF_INET, address.c_str(), &a) == 1 && (ntohl(a.s_addr) >> 24) == 127;
}

bool Contains(const std::vector<std::string>& list, const std::string& item) {
  return std::find(list.begin(), list.end(), item) != list.end();
}

std::string Percent(double share) {
  char text[16];
  std::snprintf(text, sizeof(text), "%.0f %%", share * 100.0);
  return text;
}

std::string Seconds(double s) {
  char text[32];
  std::snprintf(text, sizeof(text), "%.0f s", std::floor(s));
  return text;
}

}  // namespace

StreamDiagnosis Diagnose(const StreamFigures& f, const StreamContext& c) {
  StreamDiagnosis d;
  const std::string port = std::to_string(f.port);
  const std::string quiet = "Nothing arrived on UDP port " + port + " for " + Seconds(f.quiet_s) + ".";
  if (!c.sensor_connected) {
    if (f.silent) d.lines.push_back(quiet);
    d.lines.push_back("No sensor is connected: connected to it, Varkel could say why data does or does not arrive.");
    return d;
  }
  for (const auto& s : f.senders) {
    const std::string from = Ipv4Text(s.address);
    if (from != c.sensor_address)
      d.lines.push_back("Datagrams arrive from " + from + ":" + std::to_string(s.port) + " (" + Percent(s.share) +
                        "), not from the connected sensor " + c.sensor_address + ".");
  }
  if (!f.silent) return d;
  d.lines.push_back(quiet);
  const std::string allow = "allow UDP port " + port + " in.";
  if (!c.destination_ip) {
    d.lines.push_back(
        std::string("The sensor's table has no \"") + kDestinationIpName +
        "\", so its destination cannot be checked; if it sends here, a firewall may drop the data: " + allow);
    return d;
  }
  const std::string& dest = *c.destination_ip;
  const bool multicast =
      IsMulticastText(dest) || (c.destination_mode && c.destination_mode->find("ulticast") != std::string::npos);
  bool named = false;
  if (multicast) {
    if (f.group != dest) {
      d.lines.push_back("The sensor sends to the multicast group " + dest + ", which is not joined here; listen with " +
                        dest + " joined" + (c.local_address.empty() ? "" : " on " + c.local_address) + ".");
      named = true;
    }
  } else {
    // A loopback destination reaches this machine only when the sensor runs on it too.
    const bool local = IsLoopback(dest) ? IsLoopback(c.sensor_address)
                                        : Contains(c.local_addresses, dest) || Contains(c.broadcast_addresses, dest) ||
                                              dest == "255.255.255.255";
    if (!local) {
      std::string line = "The sensor sends its data to " + dest + ", which is not an address of this machine.";
      if (!c.local_address.empty()) {
        line += " Send it to " + c.local_address + ", the address this machine reaches the sensor from.";
        d.fix.emplace_back(kDestinationIpName, c.local_address);
      }
      d.lines.push_back(line);
      named = true;
    }
  }
  if (c.data_port && *c.data_port != f.port) {
    d.lines.push_back("The sensor sends to port " + std::to_string(*c.data_port) +
                      ", but this machine listens on port " + port + ".");
    if (!multicast) d.fix.emplace_back(kDataPortName, port);
    named = true;
  }
  if (!named)
    d.lines.push_back("The sensor sends to " + dest + " port " + port +
                      ", which is here, but nothing arrives: a firewall may drop the data; " + allow);
  return d;
}

void LocalAddresses(std::vector<std::string>* addresses, std::vector<std::string>* broadcasts) {
  ifaddrs* list = nullptr;
  if (getifaddrs(&list) != 0) return;
  for (const ifaddrs* i = list; i; i = i->ifa_next) {
    if (!i->ifa_addr || i->ifa_addr->sa_family != AF_INET) continue;
    if (addresses) addresses->push_back(Ipv4Text(reinterpret_cast<const sockaddr_in*>(i->ifa_addr)->sin_addr.s_addr));
    if (broadcasts && (i->ifa_flags & IFF_BROADCAST) && i->ifa_broadaddr)
      broadcasts->push_back(Ipv4Text(reinterpret_cast<const sockaddr_in*>(i->ifa_broadaddr)->sin_addr.s_addr));
  }
  freeifaddrs(list);
}

std::string LocalAddressTowards(const std::string& peer) {
  sockaddr_in to{};
  to.sin_family = AF_INET;
  to.sin_port = htons(9);
  if (inet_pton(AF_INET, peer.c_str(), &to.sin_addr) != 1) return "";
  const int fd = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return "";
  // Connecting a UDP socket only picks the route; nothing is sent.
  std::string local;
  sockaddr_in me{};
  socklen_t len = sizeof(me);
  if (::connect(fd, reinterpret_cast<sockaddr*>(&to), sizeof(to)) == 0 &&
      ::getsockname(fd, reinterpret_cast<sockaddr*>(&me), &len) == 0)
    local = Ipv4Text(me.sin_addr.s_addr);
  ::close(fd);
  return local;
}

}  // namespace quarn::lidar
