// The data-stream monitor on loopback: its figures, the port error, the pcap recording and
// its bounds; the diagnosis in words from given figures and sensor variables.

#include <gtest/gtest.h>
#include <net/if.h>
#include <pcap/pcap.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cstdio>
#include <string>
#include <vector>

#include "../KtcClient/test_support.h"
#include "listening.h"
#include "stream_diagnosis.h"
#include "stream_monitor.h"

namespace {

using quarn::lidar::StreamFigures;
using quarn::lidar::StreamMonitor;
using namespace ktc_test;

// A UDP socket on loopback at a system-chosen port, sending to `to_port`.
struct Sender {
  int fd = -1;
  uint16_t port = 0;
  explicit Sender(uint32_t to = INADDR_LOOPBACK) : to_address(to) {
    fd = vktest::HoldPort(SOCK_DGRAM, &port, INADDR_LOOPBACK);
  }
  ~Sender() { ::close(fd); }
  void Send(uint16_t to_port, size_t size, uint8_t fill = 0x5A) {
    const std::vector<uint8_t> data(size, fill);
    sockaddr_in to = Loopback(to_port);
    to.sin_addr.s_addr = htonl(to_address);
    ::sendto(fd, data.data(), data.size(), 0, reinterpret_cast<sockaddr*>(&to), sizeof(to));
  }
  uint32_t to_address;
};

StreamMonitor::Options Quick() {
  StreamMonitor::Options o;
  o.quiet_period = Ms(200);
  return o;
}

std::string TempFile(const char* name) {
  return (std::filesystem::temp_directory_path() / (std::string(name) + std::to_string(::getpid()))).string();
}

TEST(StreamMonitor, CountsSendersSizesAndGapsThenFallsSilent) {
  StreamMonitor m;
  std::string error;
  ASSERT_TRUE(m.Start(Quick(), &error)) << error;
  Sender a, b;
  for (size_t size : {300, 100, 200}) a.Send(m.port(), size);
  b.Send(m.port(), 1000);
  ASSERT_TRUE(WaitFor([&] { return m.Figures().datagrams == 4; }));
  const StreamFigures f = m.Figures();
  EXPECT_EQ(f.bytes, 1600u);
  EXPECT_EQ(std::make_tuple(f.size_min, f.size_median, f.size_max), std::make_tuple(100u, 200u, 1000u));
  ASSERT_EQ(f.senders.size(), 2u);
  EXPECT_EQ(std::make_tuple(quarn::lidar::Ipv4Text(f.senders[0].address), f.senders[0].port, f.senders[0].datagrams),
            std::make_tuple(std::string("127.0.0.1"), a.port, uint64_t{3}));
  EXPECT_DOUBLE_EQ(f.senders[0].share, 0.75);
  EXPECT_EQ(f.senders[1].port, b.port);
  ASSERT_TRUE(f.kernel_drops.has_value());
  EXPECT_EQ(*f.kernel_drops, 0u);

  // A pause the sender makes shows as the longest gap, and nothing for the quiet period
  // makes the stream silent.
  ASSERT_TRUE(WaitFor([&] { return m.Figures().silent; }));
  a.Send(m.port(), 100);
  ASSERT_TRUE(WaitFor([&] { return m.Figures().datagrams == 5; }));
  EXPECT_FALSE(m.Figures().silent);
  EXPECT_GE(m.Figures().longest_gap_ms, 150.0);
  m.Reset();
  EXPECT_EQ(m.Figures().datagrams, 0u);
  EXPECT_TRUE(m.Figures().senders.empty());
}

TEST(StreamMonitor, APortHeldByAnotherProgramIsAnErrorThatSaysSo) {
  uint16_t port = 0;
  const int holder = vktest::HoldPort(SOCK_DGRAM, &port);
  ASSERT_GE(holder, 0);
  StreamMonitor m;
  auto o = Quick();
  o.port = port;
  std::string error;
  EXPECT_FALSE(m.Start(o, &error));
  EXPECT_EQ(error,
            "port " + std::to_string(port) + " is in use by another program; close it or listen on another port");
  EXPECT_FALSE(m.running());
  ::close(holder);
}

// Joining a group needs multicast on loopback; the ctest entry that runs this in a network
// namespace of its own turns it on there.
TEST(StreamMonitor, JoinsAMulticastGroupOnTheGivenInterface) {
  ifreq ifr{};
  std::snprintf(ifr.ifr_name, sizeof(ifr.ifr_name), "lo");
  const int probe = ::socket(AF_INET, SOCK_DGRAM, 0);
  const bool multicast = ::ioctl(probe, SIOCGIFFLAGS, &ifr) == 0 && (ifr.ifr_flags & IFF_MULTICAST);
  ::close(probe);
  if (!multicast) GTEST_SKIP() << "the loopback interface has no MULTICAST flag here (the netns run covers it)";
  auto o = Quick();
  o.group = "239.255.42.98";
  o.interface_address = "127.0.0.1";
  StreamMonitor m;
  std::string error;
  ASSERT_TRUE(m.Start(o, &error)) << error;
  Sender s(0xEFFF2A62);  // the group
  in_addr lo{};
  lo.s_addr = htonl(INADDR_LOOPBACK);
  ::setsockopt(s.fd, IPPROTO_IP, IP_MULTICAST_IF, &lo, sizeof(lo));
  s.Send(m.port(), 500);
  ASSERT_TRUE(WaitFor([&] { return m.Figures().datagrams == 1; }));
  EXPECT_EQ(m.Figures().group, "239.255.42.98");
}

// Reads a recording back: per packet the IPv4 source, UDP ports, payload size and first byte.
std::vector<std::tuple<std::string, uint16_t, uint16_t, size_t, uint8_t>> ReadBack(const std::string& file) {
  std::vector<std::tuple<std::string, uint16_t, uint16_t, size_t, uint8_t>> out;
  char err[PCAP_ERRBUF_SIZE];
  pcap_t* p = pcap_open_offline(file.c_str(), err);
  if (!p) return out;
  EXPECT_EQ(pcap_datalink(p), DLT_RAW);
  pcap_pkthdr* h = nullptr;
  const u_char* d = nullptr;
  while (pcap_next_ex(p, &h, &d) == 1) {
    // The header checksum over the whole header comes to 0xFFFF when it is right.
    uint32_t sum = 0;
    for (int i = 0; i < 20; i += 2) sum += static_cast<uint32_t>(d[i] << 8 | d[i + 1]);
    while (sum >> 16) sum = (sum & 0xFFFF) + (sum >> 16);
    EXPECT_EQ(sum, 0xFFFFu);
    char from[16];
    std::snprintf(from, sizeof(from), "%u.%u.%u.%u", d[12], d[13], d[14], d[15]);
    out.emplace_back(from, static_cast<uint16_t>(d[20] << 8 | d[21]), static_cast<uint16_t>(d[22] << 8 | d[23]),
                     h->caplen - 28, d[28]);
  }
  pcap_close(p);
  return out;
}

TEST(StreamMonitor, RecordsWhatArrivesUntilItsBoundAndAWriteErrorStopsOnlyTheRecording) {
  StreamMonitor m;
  std::string error;
  ASSERT_TRUE(m.Start(Quick(), &error)) << error;
  const std::string file = TempFile("varkel-stream-");
  quarn::lidar::PcapRecorder::Limits limits;
  // The file header and two records of 100-byte datagrams.
  limits.max_bytes = 24 + 2 * (16 + 28 + 100);
  ASSERT_TRUE(m.StartRecording(file, limits, &error)) << error;
  Sender s;
  for (uint8_t i = 1; i <= 3; ++i) s.Send(m.port(), 100, i);
  ASSERT_TRUE(WaitFor([&] { return m.Figures().datagrams == 3; }));
  EXPECT_EQ(m.Figures().recorded, 2u);
  EXPECT_EQ(m.Figures().recording_stopped, "the size limit was reached");
  m.StopRecording();
  const auto packets = ReadBack(file);
  ASSERT_EQ(packets.size(), 2u);
  EXPECT_EQ(packets[1], std::make_tuple(std::string("127.0.0.1"), s.port, m.port(), size_t{100}, uint8_t{2}));
  std::remove(file.c_str());

  EXPECT_FALSE(m.StartRecording("/nonexistent-dir/x.pcap", {}, &error));
  EXPECT_NE(error.find("/nonexistent-dir/x.pcap"), std::string::npos) << error;
  ASSERT_TRUE(m.StartRecording("/dev/full", {}, &error)) << error;
  for (int i = 0; i < 8; ++i) s.Send(m.port(), 1400);
  ASSERT_TRUE(WaitFor([&] { return m.Figures().datagrams == 11 && !m.Figures().recording_stopped.empty(); }));
  EXPECT_EQ(m.Figures().recording_stopped.rfind("cannot write /dev/full", 0), 0u) << m.Figures().recording_stopped;
  s.Send(m.port(), 100);
  EXPECT_TRUE(WaitFor([&] { return m.Figures().datagrams == 12; }));
}

using quarn::lidar::Diagnose;
using quarn::lidar::StreamContext;

StreamContext Connected() {
  StreamContext c;
  c.sensor_connected = true;
  c.sensor_address = "10.1.2.3";
  c.local_address = "10.1.2.50";
  c.local_addresses = {"127.0.0.1", "10.1.2.50"};
  c.broadcast_addresses = {"10.1.2.255"};
  c.destination_ip = "10.1.2.50";
  c.data_port = 2368;
  return c;
}

StreamFigures Silent(uint16_t port = 2368) {
  StreamFigures f;
  f.port = port;
  f.silent = true;
  f.quiet_s = 3.2;
  return f;
}

std::string Joined(const std::vector<std::string>& lines) {
  std::string all;
  for (const auto& l : lines) all += l + "\n";
  return all;
}

TEST(StreamDiagnosis, NamesTheCauseAndTheVariablesThatFixIt) {
  // Another machine's address; loopback too when the sensor is not on this machine.
  for (const std::string dest : {"10.1.2.99", "127.0.0.1"}) {
    auto c = Connected();
    c.destination_ip = dest;
    const auto d = Diagnose(Silent(), c);
    EXPECT_NE(Joined(d.lines).find("sends its data to " + dest + ", which is not an address of this machine"),
              std::string::npos)
        << Joined(d.lines);
    ASSERT_EQ(d.fix.size(), 1u);
    EXPECT_EQ(d.fix[0], std::make_pair(std::string("Destination IP"), std::string("10.1.2.50")));
  }
  // The network's broadcast address does reach this machine; the port is what differs.
  auto c = Connected();
  c.destination_ip = "10.1.2.255";
  auto d = Diagnose(Silent(2400), c);
  EXPECT_EQ(Joined(d.lines),
            "Nothing arrived on UDP port 2400 for 3 s.\n"
            "The sensor sends to port 2368, but this machine listens on port 2400.\n");
  ASSERT_EQ(d.fix.size(), 1u);
  EXPECT_EQ(d.fix[0], std::make_pair(std::string("Data Port"), std::string("2400")));

  c = Connected();
  c.destination_ip = "239.1.2.3";
  d = Diagnose(Silent(), c);
  EXPECT_NE(Joined(d.lines).find("multicast group 239.1.2.3, which is not joined here"), std::string::npos);
  EXPECT_TRUE(d.fix.empty());

  // Everything matches: only a firewall is left.
  d = Diagnose(Silent(), Connected());
  EXPECT_NE(Joined(d.lines).find("a firewall may drop the data; allow UDP port 2368 in."), std::string::npos);
  EXPECT_TRUE(d.fix.empty());
}

TEST(StreamDiagnosis, DataFromTheSensorNeedsNoWordsAnotherSenderAndNoSensorDo) {
  StreamFigures f;
  f.port = 2368;
  f.datagrams = 4;
  f.senders = {{htonl(0x0A010203), 2368, 3, 0.75}};
  EXPECT_TRUE(Diagnose(f, Connected()).lines.empty());
  f.senders.push_back({htonl(0x0A010209), 5000, 1, 0.25});
  EXPECT_EQ(Joined(Diagnose(f, Connected()).lines),
            "Datagrams arrive from 10.1.2.9:5000 (25 %), not from the connected sensor 10.1.2.3.\n");
  const auto alone = Diagnose(Silent(), StreamContext{});
  ASSERT_EQ(alone.lines.size(), 2u);
  EXPECT_NE(alone.lines[1].find("No sensor is connected"), std::string::npos);
  EXPECT_TRUE(alone.fix.empty());
}

}  // namespace
