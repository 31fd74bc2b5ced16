// The UDP source on loopback.
#include "socket_source.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <memory>

#include "test_support.h"

namespace quarn::lidar {
namespace {

using test_support::LogCapture;

// A plain socket on 127.0.0.1 standing in for the lidar.
class Peer {
 public:
  Peer() {
    fd_ = ::socket(AF_INET, SOCK_DGRAM, 0);
    sockaddr_in a = Loopback(0);
    ::bind(fd_, reinterpret_cast<sockaddr*>(&a), sizeof(a));
    timeval tv{10, 0};
    setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof(tv));
  }
  ~Peer() { ::close(fd_); }
  static sockaddr_in Loopback(uint16_t port) {
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(port);
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return a;
  }
  bool SendTo(const std::string& text, const sockaddr_in& to) {
    return ::sendto(fd_, text.data(), text.size(), 0, reinterpret_cast<const sockaddr*>(&to), sizeof(to)) ==
           static_cast<ssize_t>(text.size());
  }
  uint16_t Port() const {
    sockaddr_in a{};
    socklen_t n = sizeof(a);
    getsockname(fd_, reinterpret_cast<sockaddr*>(&a), &n);
    return ntohs(a.sin_port);
  }
  std::string Receive() {
    char buf[2048];
    const ssize_t n = ::recv(fd_, buf, sizeof(buf), 0);
    return n > 0 ? std::string(buf, static_cast<size_t>(n)) : std::string();
  }
  int fd() const { return fd_; }

 private:
  int fd_ = -1;
};

// Direct mode may cost one -1 before a select; a datagram already sent arrives within two
// calls of a generous time-out.
int ReceiveOne(SocketSource& source, UdpPacket& packet) {
  for (int i = 0; i < 3; ++i) {
    const int n = source.Receive(packet, 1500, 0, 999999);
    if (n > 0) return n;
  }
  return -1;
}

TEST(SocketSource, LoopbackBothWaysWithTheOpenLogLines) {
  LogCapture log;
  const int balance = net::StartupBalance();
  auto source = std::make_unique<SocketSource>(0, "127.0.0.1", "");
  ASSERT_TRUE(source->Open());
  EXPECT_TRUE(log.Has(kLogProgress, "OS current udp socket recv buff size is: ", true));
  EXPECT_TRUE(log.Has(kLogProgress, "SocketSource::Open succeed, sock:" + std::to_string(source->Socket())));
  EXPECT_EQ(net::StartupBalance(), balance + 1);

  Peer lidar;
  ASSERT_TRUE(lidar.SendTo("points", Peer::Loopback(source->BoundPort())));
  auto packet = std::make_unique<UdpPacket>();
  ASSERT_EQ(ReceiveOne(*source, *packet), 6);
  EXPECT_EQ(std::string(reinterpret_cast<char*>(packet->data), 6), "points");
  EXPECT_EQ(packet->sender_ip, htonl(INADDR_LOOPBACK));
  EXPECT_EQ(packet->sender_port, lidar.Port());

  const uint8_t hello[] = {'h', 'i'};
  EXPECT_EQ(source->Send(hello, 2, 0), -1);
  EXPECT_TRUE(log.Has(kLogError, "SocketSource::Send, client ip is empty"));
  EXPECT_FALSE(source->SetClientAddress("not-an-ip", 1));
  ASSERT_TRUE(source->SetClientAddress("127.0.0.1", lidar.Port()));
  EXPECT_EQ(source->Send(hello, 2, 0), 2);
  EXPECT_EQ(lidar.Receive(), "hi");

  source.reset();  // the destructor closes and cleans up
  EXPECT_TRUE(log.Has(kLogProgress, "SocketSource::Close()"));
  EXPECT_EQ(net::StartupBalance(), balance);
}

TEST(SocketSource, IdleSocketCostsOneMinusOneThenTimesOut) {
  SocketSource source(0, "127.0.0.1", "");
  ASSERT_TRUE(source.Open());
  auto packet = std::make_unique<UdpPacket>();
  EXPECT_EQ(source.Receive(*packet, 1500, 0, 30000), -1);
  EXPECT_FALSE(packet->timeout);
  EXPECT_TRUE(source.InSelectMode());
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(source.Receive(*packet, 1500, 0, 30000), 0);
  EXPECT_TRUE(packet->timeout);
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(25));

  // A datagram ends select mode; the next read is direct again.
  Peer lidar;
  ASSERT_TRUE(lidar.SendTo("x", Peer::Loopback(source.BoundPort())));
  EXPECT_EQ(source.Receive(*packet, 1500, 0, 5000000), 1);
  EXPECT_FALSE(source.InSelectMode());
}

TEST(SocketSource, PortHeldWithoutReuseFailsWithTheBindLine) {
  Peer holder;  // bound without address reuse
  LogCapture log;
  const int balance = net::StartupBalance();
  SocketSource source(holder.Port(), "127.0.0.1", "");
  EXPECT_FALSE(source.Open());
  EXPECT_TRUE(log.Has(kLogError, "SocketSource::Open(), bind failed, errno: " + std::to_string(EADDRINUSE)));
  EXPECT_EQ(source.Socket(), net::kInvalidSocket);
  EXPECT_EQ(net::StartupBalance(), balance);
  uint8_t b = 0;
  EXPECT_EQ(source.Send(&b, 1, 0), -1);
  EXPECT_TRUE(
      log.Has(kLogError, "SocketSource::Send, port " + std::to_string(holder.Port()) + ", sock -1 is not open"));
  EXPECT_FALSE(source.IsOpened());
  EXPECT_TRUE(log.Has(kLogWarning,
                      "SocketSource::IsOpened(), port " + std::to_string(holder.Port()) + ", sock -1 is not open"));
}

TEST(SocketSource, MalformedGroupStillOpens) {
  LogCapture log;
  SocketSource source(0, "127.0.0.1", "239.300.1.1");
  EXPECT_TRUE(source.Open());
  EXPECT_TRUE(log.Has(kLogError, "Multicast IP error, set correct multicast ip address or keep it empty"));
}

TEST(SocketSource, MulticastOnLoopback) {
  // The group is joined on the loopback interface; the peer sends to it through loopback.
  const char* kGroup = "239.255.71.17";
  LogCapture log;
  SocketSource source(0, "", kGroup);
  ASSERT_TRUE(source.Open());
  Peer lidar;
  in_addr loop{};
  loop.s_addr = htonl(INADDR_LOOPBACK);
  const unsigned char on = 1;
  if (!log.Has(kLogProgress, std::string("Recive data from multicast ip address ") + kGroup)) {
    GTEST_SKIP() << "this machine refuses to join a multicast group";
  }
  // Joined on any interface; the peer must reach it through loopback.
  ip_mreq m{};
  inet_pton(AF_INET, kGroup, &m.imr_multiaddr);
  m.imr_interface = loop;
  setsockopt(source.Socket(), IPPROTO_IP, IP_ADD_MEMBERSHIP, &m, sizeof(m));
  if (setsockopt(lidar.fd(), IPPROTO_IP, IP_MULTICAST_IF, &loop, sizeof(loop)) != 0 ||
      setsockopt(lidar.fd(), IPPROTO_IP, IP_MULTICAST_LOOP, &on, sizeof(on)) != 0) {
    GTEST_SKIP() << "loopback cannot carry multicast here";
  }
  sockaddr_in to{};
  to.sin_family = AF_INET;
  to.sin_port = htons(source.BoundPort());
  inet_pton(AF_INET, kGroup, &to.sin_addr);
  if (::sendto(lidar.fd(), "m", 1, 0, reinterpret_cast<sockaddr*>(&to), sizeof(to)) != 1) {
    GTEST_SKIP() << "no route for multicast on loopback: " << std::strerror(errno);
  }
  auto packet = std::make_unique<UdpPacket>();
  ASSERT_EQ(ReceiveOne(source, *packet), 1);
  EXPECT_EQ(packet->data[0], 'm');
}

}  // namespace
}  // namespace quarn::lidar
