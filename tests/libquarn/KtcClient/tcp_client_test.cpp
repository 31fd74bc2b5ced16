#include "tcp_client.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <thread>

#include "log_capture.h"
#include "platform/net.h"
#include "scripted_peer.h"

using namespace quarn::lidar;
using namespace std::chrono_literals;
using ktc_test::Bytes;
using ktc_test::LogCapture;
using ktc_test::ScriptedPeer;

namespace {

uint16_t PeerPortOf(int fd) {
  sockaddr_in addr{};
  socklen_t len = sizeof(addr);
  getpeername(fd, reinterpret_cast<sockaddr*>(&addr), &len);
  return ntohs(addr.sin_port);
}

int LogsFrom(const LogCapture& logs, const std::string& file) {
  int n = 0;
  for (const auto& r : logs.Records()) n += r.file.find(file) != std::string::npos ? 1 : 0;
  return n;
}

}  // namespace

TEST(TcpClientOpen, ConnectTimesOutSilentlyWhenNobodyAccepts) {
  // A listener whose accept queue is full drops further connection requests, so the
  // connect neither succeeds nor is refused: the select time-out is what ends it.
  ScriptedPeer peer(0);
  std::vector<int> fillers;
  for (int i = 0; i < 4; ++i) {
    const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    addr.sin_port = htons(peer.port());
    ::connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr));
    fillers.push_back(fd);
  }
  std::this_thread::sleep_for(100ms);  // let the handshakes of the fillers settle

  LogCapture logs;
  const int balance = net::StartupBalance();
  TcpClient client;
  const auto start = std::chrono::steady_clock::now();
  EXPECT_FALSE(client.TryOpen(0, "127.0.0.1", peer.port(), false, nullptr, nullptr, nullptr, 1));
  const auto took = std::chrono::steady_clock::now() - start;
  EXPECT_GE(took, 900ms);
  EXPECT_LT(took, 10s);
  EXPECT_FALSE(client.IsOpened());
  EXPECT_EQ(LogsFrom(logs, "tcp_client"), 0);
  EXPECT_EQ(net::StartupBalance(), balance);
  for (int fd : fillers) ::close(fd);
}

TEST(TcpClientOpen, RefusedConnectFailsFastAndBalancesStartups) {
  LogCapture logs;
  const int balance = net::StartupBalance();
  const uint16_t port = ktc_test::UnusedLoopbackPort();
  TcpClient client;
  const auto start = std::chrono::steady_clock::now();
  EXPECT_FALSE(client.TryOpen(0, "127.0.0.1", port, false, nullptr, nullptr, nullptr, 5));
  EXPECT_LT(std::chrono::steady_clock::now() - start, 4s);
  EXPECT_FALSE(client.IsOpened());

  // The blocking open reports the refusal with the C-library error number.
  EXPECT_FALSE(client.Open("127.0.0.1", port, false, nullptr, nullptr, nullptr));
  EXPECT_TRUE(logs.Has(kLogProgress, "Open() IP 127.0.0.1 port " + std::to_string(port)));
  EXPECT_TRUE(logs.Has(kLogError, "connect failed " + std::to_string(ECONNREFUSED)));
  EXPECT_TRUE(logs.Has(kLogError, "connect lidar fail errno " + std::to_string(ECONNREFUSED)));

  EXPECT_FALSE(client.TryOpen(0, "not-an-ip", port, false, nullptr, nullptr, nullptr, 1));
  EXPECT_TRUE(logs.Has(kLogError, "TryOpen inet_pton error:not-an-ip"));
  EXPECT_FALSE(client.Open("300.1.1.1", port, false, nullptr, nullptr, nullptr));
  EXPECT_TRUE(logs.Has(kLogError, "Open inet_pton error:300.1.1.1"));
  EXPECT_EQ(net::StartupBalance(), balance);
}

TEST(TcpClientOpen, ReopenOnSameAddressIsANoOpAndAnotherAddressReplaces) {
  ScriptedPeer peer;
  ScriptedPeer other;
  LogCapture logs;
  const int balance = net::StartupBalance();
  {
    TcpClient client;
    ASSERT_TRUE(client.TryOpen(0, "127.0.0.1", peer.port(), false, nullptr, nullptr, nullptr, 5));
    EXPECT_TRUE(logs.Has(kLogProgress, "TryOpen succeed, IP 127.0.0.1 port " + std::to_string(peer.port())));
    ASSERT_TRUE(peer.Accept());
    EXPECT_TRUE(client.TryOpen(0, "127.0.0.1", peer.port(), false, nullptr, nullptr, nullptr, 5));
    EXPECT_TRUE(client.Open("127.0.0.1", peer.port(), false, nullptr, nullptr, nullptr));
    EXPECT_FALSE(peer.Accept(300ms)) << "a second connection was made";
    EXPECT_EQ(net::StartupBalance(), balance + 1);

    // Another port closes the first connection before connecting anew.
    ASSERT_TRUE(client.Open("127.0.0.1", other.port(), false, nullptr, nullptr, nullptr));
    EXPECT_TRUE(logs.Has(kLogProgress, " succeed, IP 127.0.0.1 port " + std::to_string(other.port())));
    ASSERT_TRUE(other.Accept());
    EXPECT_TRUE(peer.Read(1, 5s).empty());  // end of stream: the old socket is gone
    EXPECT_EQ(net::StartupBalance(), balance + 1);
  }
  EXPECT_EQ(net::StartupBalance(), balance);
}

TEST(TcpClientOpen, LocalPortIsBoundOrLeftToTheSystemWhenTaken) {
  ScriptedPeer peer;
  LogCapture logs;
  // Free local port: the connection comes from it.
  const uint16_t free_port = ktc_test::UnusedLoopbackPort();
  {
    TcpClient client;
    ASSERT_TRUE(client.TryOpen(free_port, "127.0.0.1", peer.port(), false, nullptr, nullptr, nullptr, 5));
    ASSERT_TRUE(peer.Accept());
    EXPECT_EQ(PeerPortOf(peer.connection()), free_port);
  }
  EXPECT_FALSE(logs.Has(kLogError, "Failed to bind local port, system will auto assign one"));

  // Taken local port (the peer's own listening port): bind warning, then a system port.
  TcpClient client;
  ASSERT_TRUE(client.TryOpen(peer.port(), "127.0.0.1", peer.port(), false, nullptr, nullptr, nullptr, 5));
  EXPECT_TRUE(logs.Has(kLogError, "Failed to bind local port, system will auto assign one"));
  EXPECT_TRUE(client.IsOpened());
  ASSERT_TRUE(peer.Accept());
  EXPECT_NE(PeerPortOf(peer.connection()), peer.port());
}

TEST(TcpClientIo, SendReceiveFlagsAndPeerEnds) {
  ScriptedPeer peer;
  LogCapture logs;
  TcpClient client;
  ASSERT_TRUE(client.TryOpen(0, "127.0.0.1", peer.port(), false, nullptr, nullptr, nullptr, 5));
  ASSERT_TRUE(peer.Accept());
  ASSERT_EQ(client.SetTimeout(200, 200), 0);

  const Bytes out = {1, 2, 3, 4, 5};
  EXPECT_EQ(client.Send(out.data(), static_cast<uint16_t>(out.size()), 0), 5);
  EXPECT_EQ(peer.Read(5), out);

  uint8_t buf[64];
  // Flags 255: one read that does not wait, and no error line when nothing is there.
  auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(client.Receive(buf, sizeof(buf), kReceiveNonBlocking), -1);
  EXPECT_LT(std::chrono::steady_clock::now() - start, 150ms);
  ASSERT_TRUE(peer.Write({9, 8, 7}));
  int got = -1;
  for (int i = 0; i < 200 && got <= 0; ++i) {  // the bytes need a moment to cross loopback
    got = client.Receive(buf, sizeof(buf), kReceiveNonBlocking);
    if (got <= 0) std::this_thread::sleep_for(5ms);
  }
  ASSERT_EQ(got, 3);
  EXPECT_EQ(Bytes(buf, buf + 3), (Bytes{9, 8, 7}));
  // The socket is blocking again afterwards: a normal read waits for its time-out.
  start = std::chrono::steady_clock::now();
  EXPECT_EQ(client.Receive(buf, sizeof(buf), 0), -1);
  EXPECT_GE(std::chrono::steady_clock::now() - start, 150ms);
  EXPECT_EQ(logs.CountAtLeast(kLogError), 0) << "time-outs and would-block are not errors";

  // Reads return at most what is asked for.
  ASSERT_TRUE(peer.Write({1, 2, 3, 4}));
  EXPECT_EQ(client.Receive(buf, 2, 0), 2);
  EXPECT_EQ(client.Receive(buf, 10, 0), 2);

  // Orderly close of the peer: 0 and its line.
  peer.Close();
  EXPECT_EQ(client.Receive(buf, sizeof(buf), 0), 0);
  EXPECT_TRUE(logs.Has(kLogError, "Connection closed by peer, recv returned 0"));
  // Sending into a closed connection fails with an error (and no signal ends the process).
  int sent = 0;
  for (int i = 0; i < 50 && sent >= 0; ++i) {
    sent = client.Send(out.data(), static_cast<uint16_t>(out.size()), 0);
    if (sent >= 0) std::this_thread::sleep_for(10ms);
  }
  EXPECT_EQ(sent, -1);
  EXPECT_TRUE(logs.Has(kLogError, "Send errno " + std::to_string(EPIPE)) ||
              logs.Has(kLogError, "Send errno " + std::to_string(ECONNRESET)));
}

TEST(TcpClientSettings, BufferNeverShrinksAndClosedSocketWarns) {
  LogCapture logs;
  TcpClient closed;
  EXPECT_FALSE(closed.SetReceiveTimeout(100));
  EXPECT_EQ(closed.SetTimeout(100, 100), -1);
  closed.SetReceiveBufferSize(1024);
  EXPECT_EQ(logs.Count(kLogWarning, "TcpClient not open"), 3);

  ScriptedPeer peer;
  TcpClient client;
  ASSERT_TRUE(client.TryOpen(0, "127.0.0.1", peer.port(), false, nullptr, nullptr, nullptr, 5));
  EXPECT_TRUE(client.SetReceiveTimeout(100));
  client.SetReceiveBufferSize(65536);
  const uint32_t large = client.GetSocketReceiveBufferSize();
  EXPECT_GE(large, 65536u);
  client.SetReceiveBufferSize(1024);
  EXPECT_EQ(client.GetSocketReceiveBufferSize(), large);
  client.SetReceiveBufferSize(large * 2);
  EXPECT_GT(client.GetSocketReceiveBufferSize(), large);
}

TEST(TcpClientIo, ClosedTransportTriesThePlainOpenOnce) {
  ScriptedPeer peer;
  TcpClient client;
  // Never opened and no address: the plain open fails, the calls return -1.
  uint8_t buf[4] = {1, 2, 3, 4};
  EXPECT_EQ(client.Send(buf, 4, 0), -1);
  EXPECT_EQ(client.Receive(buf, 4, 0), -1);
  // Opened once and closed: Send reconnects to the stored address.
  ASSERT_TRUE(client.TryOpen(0, "127.0.0.1", peer.port(), false, nullptr, nullptr, nullptr, 5));
  ASSERT_TRUE(peer.Accept());
  client.Close();
  EXPECT_FALSE(client.IsOpened());
  EXPECT_EQ(client.Send(buf, 4, 0), 4);
  ASSERT_TRUE(peer.Accept());
  EXPECT_EQ(peer.Read(4), (Bytes{1, 2, 3, 4}));
}
