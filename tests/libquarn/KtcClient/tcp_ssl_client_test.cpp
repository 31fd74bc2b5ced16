#include "tcp_ssl_client.h"

#include <gtest/gtest.h>

#include <cstring>

#include "log_capture.h"
#include "platform/net.h"
#include "scripted_peer.h"
#include "tls_fixtures.h"

using namespace quarn::lidar;
using namespace std::chrono_literals;
using ktc_test::LogCapture;
using ktc_test::ScriptedPeer;
using ktc_test::TlsFiles;
using ktc_test::TlsServer;

TEST(InitSslClient, GoodFilesGiveAContextThatVerifiesThePeer) {
  TlsFiles files;
  LogCapture logs;
  SSL_CTX* ctx = InitSslClient(files.cert().c_str(), files.key().c_str(), files.cert().c_str());
  ASSERT_NE(ctx, nullptr);
  EXPECT_EQ(SSL_CTX_get_verify_mode(ctx), SSL_VERIFY_PEER | SSL_VERIFY_FAIL_IF_NO_PEER_CERT);
  EXPECT_NE(SSL_CTX_get0_certificate(ctx), nullptr);
  EXPECT_TRUE(logs.Has(kLogProgress, "ca path: " + files.cert()));
  EXPECT_TRUE(logs.Has(kLogProgress, "cert path: " + files.cert() + ",\nprivate_key path: " + files.key()));
  EXPECT_EQ(logs.CountAtLeast(kLogError), 0);
  SSL_CTX_free(ctx);

  // Without files: a bare client context, no verification mode set.
  ctx = InitSslClient(nullptr, nullptr, nullptr);
  ASSERT_NE(ctx, nullptr);
  EXPECT_EQ(SSL_CTX_get_verify_mode(ctx), SSL_VERIFY_NONE);
  SSL_CTX_free(ctx);
  // A certificate without its key is not loaded.
  ctx = InitSslClient(files.cert().c_str(), nullptr, "");
  ASSERT_NE(ctx, nullptr);
  EXPECT_EQ(SSL_CTX_get0_certificate(ctx), nullptr);
  SSL_CTX_free(ctx);
}

TEST(InitSslClient, EachBadFileEndsInItsOwnError) {
  TlsFiles files;
  struct Case {
    std::string cert, key, ca, message;
  };
  const Case cases[] = {
      {files.cert(), files.key(), files.missing(), "load ca failed,please check ca file path"},
      {files.cert(), files.key(), files.junk(), "load ca failed,please check ca file path"},
      {files.missing(), files.key(), files.cert(), "load cert file failed,please check cert file path"},
      {files.junk(), files.key(), files.cert(), "load cert file failed,please check cert file path"},
      {files.cert(), files.missing(), files.cert(), "load private key file failed,please check private key file path"},
      {files.cert(), files.junk(), files.cert(), "load private key file failed,please check private key file path"},
      // A key of the certificate's type that is not its own is refused while loading; a key
      // of another type loads into a slot without a certificate and fails the check.
      {files.cert(), files.other_key(), files.cert(),
       "load private key file failed,please check private key file path"},
      {files.cert(), files.rsa_key(), files.cert(), "check private key failed"},
  };
  for (const Case& c : cases) {
    LogCapture logs;
    EXPECT_EQ(InitSslClient(c.cert.c_str(), c.key.c_str(), c.ca.c_str()), nullptr) << c.message;
    EXPECT_EQ(logs.Count(kLogError, c.message), 1) << c.message;
    EXPECT_EQ(logs.CountAtLeast(kLogError), 1) << c.message;
  }
}

TEST(TcpSslClientOpen, ReachableServerEndsInTheInvertedSocketTest) {
  TlsFiles files;
  const int balance = net::StartupBalance();
  for (bool try_open : {true, false}) {
    TlsServer server(files);
    LogCapture logs;
    TcpSslClient client;
    const bool opened = try_open ? client.TryOpen(0, "127.0.0.1", server.port(), false, files.cert().c_str(),
                                                  files.key().c_str(), files.cert().c_str(), 5)
                                 : client.Open("127.0.0.1", server.port(), false, files.cert().c_str(),
                                               files.key().c_str(), files.cert().c_str());
    EXPECT_FALSE(opened);
    EXPECT_FALSE(client.IsOpened());
    EXPECT_TRUE(logs.Has(kLogError, "Connect to Server Failed!~!~"));
    EXPECT_FALSE(logs.Has(kLogError, "connect ssl failed"));
    server.Join();
    // The TCP connection was made and dropped before any handshake.
    EXPECT_TRUE(server.accepted());
    EXPECT_FALSE(server.handshake_completed());
    if (!try_open) EXPECT_TRUE(logs.Has(kLogProgress, "ip:127.0.0.1 port:" + std::to_string(server.port())));
  }
  EXPECT_EQ(net::StartupBalance(), balance);
}

TEST(TcpSslClientOpen, FailedConnectGoesOnToAHandshakeThatFails) {
  TlsFiles files;
  LogCapture logs;
  const int balance = net::StartupBalance();
  TcpSslClient client;
  EXPECT_FALSE(client.TryOpen(0, "not-an-ip", 443, false, nullptr, nullptr, nullptr, 1));
  EXPECT_TRUE(logs.Has(kLogError, "tcp_try_open inet_pton error:not-an-ip"));
  EXPECT_TRUE(logs.Has(kLogError, "connect ssl failed"));
  EXPECT_FALSE(logs.Has(kLogError, "Connect to Server Failed!~!~"));

  logs.Clear();
  EXPECT_FALSE(client.Open("bad", 443, false, nullptr, nullptr, nullptr));
  EXPECT_TRUE(logs.Has(kLogError, "tcp_open inet_pton error:bad"));
  EXPECT_TRUE(logs.Has(kLogError, "connect ssl failed"));

  // A context that cannot be built stops the open before any connection.
  ScriptedPeer peer;
  logs.Clear();
  EXPECT_FALSE(client.TryOpen(0, "127.0.0.1", peer.port(), false, files.cert().c_str(), files.key().c_str(),
                              files.missing().c_str(), 1));
  EXPECT_TRUE(logs.Has(kLogError, "load ca failed,please check ca file path"));
  EXPECT_FALSE(peer.Accept(200ms));
  EXPECT_FALSE(client.Open("127.0.0.1", peer.port(), false, files.missing().c_str(), files.key().c_str(), nullptr));
  EXPECT_TRUE(logs.Has(kLogError, "create SSL_CTX failed"));
  EXPECT_FALSE(peer.Accept(200ms));
  EXPECT_EQ(net::StartupBalance(), balance);
}

TEST(TcpSslClientIo, NonBlockingReadRefusedAndClosedTransportFails) {
  LogCapture logs;
  TcpSslClient client;
  uint8_t buf[16] = {};
  EXPECT_EQ(client.Receive(buf, sizeof(buf), kReceiveNonBlocking), -1);
  EXPECT_EQ(logs.Records().size(), 0u) << "flags 255 returns before anything else";
  EXPECT_EQ(client.Receive(buf, sizeof(buf), 0), -1);
  EXPECT_EQ(client.Send(buf, sizeof(buf), 0), -1);
  EXPECT_FALSE(client.SetReceiveTimeout(10));
  EXPECT_EQ(client.SetTimeout(10, 10), -1);
  client.SetReceiveBufferSize(1024);
  EXPECT_EQ(logs.Count(kLogWarning, "TcpClient not open"), 3);
}

TEST(TcpSocketHelpers, OpenAndTryOpenReturnSocketsOrFailures) {
  ScriptedPeer peer;
  LogCapture logs;
  const int balance = net::StartupBalance();
  const int s = tcp_open("127.0.0.1", peer.port());
  ASSERT_GT(s, 0);
  ASSERT_TRUE(peer.Accept());
  net::CloseSocket(s);
  net::Cleanup();
  const int t = tcp_try_open(0, "127.0.0.1", peer.port(), 5);
  ASSERT_GT(t, 0);
  ASSERT_TRUE(peer.Accept());
  // Blocking again: the socket has no O_NONBLOCK left.
  EXPECT_TRUE(net::SetNonBlocking(t, false));
  net::CloseSocket(t);
  net::Cleanup();
  EXPECT_EQ(net::StartupBalance(), balance);

  // Refused: tcp_open reports the error text; tcp_try_open ends in -1 or 0, never a socket.
  const uint16_t closed_port = ktc_test::UnusedLoopbackPort();
  EXPECT_EQ(tcp_open("127.0.0.1", closed_port), -1);
  EXPECT_TRUE(logs.Has(
      kLogError, std::string("connect errno:") + std::to_string(ECONNREFUSED) + ", " + std::strerror(ECONNREFUSED)));
  const int refused = tcp_try_open(0, "127.0.0.1", closed_port, 2);
  EXPECT_TRUE(refused == 0 || refused == -1) << refused;
  EXPECT_EQ(net::StartupBalance(), balance);
}
