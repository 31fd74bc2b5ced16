// The TCP and TLS transports and the KTC client, against scripted peers on loopback.
#include "ktc_client.h"

#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <future>

#include "hex_text.h"
#include "platform/net.h"
#include "tcp_client.h"
#include "tcp_ssl_client.h"
#include "test_support.h"

using namespace quarn::lidar;
using namespace std::chrono_literals;
using namespace ktc_test;

namespace {

uint16_t PeerPortOf(int fd) {
  sockaddr_in addr{};
  socklen_t len = sizeof(addr);
  getpeername(fd, reinterpret_cast<sockaddr*>(&addr), &len);
  return ntohs(addr.sin_port);
}

bool TryOpen(ClientBase& c, uint16_t port, uint32_t timeout_s = 5, uint16_t local_port = 0) {
  return c.TryOpen(local_port, "127.0.0.1", port, false, nullptr, nullptr, nullptr, timeout_s);
}

struct QueryResult {
  int ret;
  Bytes result;
};

// A client connected to a scripted peer.
struct Link {
  explicit Link(uint8_t v, uint32_t timeout_ms = 3000) : version(v) {
    client = std::make_unique<KtcClient>("127.0.0.1", peer.port(), false, KtcClient::kClientTcp, version, "", "", "",
                                         timeout_ms, timeout_ms, 10.0f);
    EXPECT_TRUE(peer.Accept());
    EXPECT_TRUE(WaitFor([&] { return logs.Has(kLogProgress, "ktc connect success"); }));
  }
  std::future<QueryResult> Query(Bytes payload, uint8_t cmd = 0x07, bool with_header = false) {
    return std::async(std::launch::async, [=] {
      Bytes result = {0xEE};
      const int ret = client->QueryCommand(payload, result, cmd, with_header);
      return QueryResult{ret, result};
    });
  }

  const uint8_t version;
  LogCapture logs;
  ScriptedPeer peer;
  std::unique_ptr<KtcClient> client;
};

// Answers every request frame with what `answer` makes of it until stopped, keeping the frames.
struct Responder {
  Responder(ScriptedPeer& peer, std::function<Bytes(const Bytes&)> answer)
      : thread([this, &peer, answer] {
          for (Bytes req; serving.load(); req = peer.ReadFrame(1, 200ms)) {
            if (req.size() < 8) continue;
            frames.push_back(req);
            peer.Write(answer(req));
          }
        }) {}
  ~Responder() { Stop(); }
  std::vector<Bytes> Stop() {
    serving.store(false);
    if (thread.joinable()) thread.join();
    return frames;
  }
  std::atomic<bool> serving{true};
  std::vector<Bytes> frames;
  std::thread thread;
};

}  // namespace

TEST(TcpClientOpen, ConnectTimesOutSilentlyOrIsRefusedWithItsLines) {
  // A listener whose accept queue is full drops further connection requests, so the
  // connect neither succeeds nor is refused: the select time-out is what ends it.
  ScriptedPeer peer(0);
  std::vector<int> fillers;
  for (int i = 0; i < 4; ++i) {
    fillers.push_back(::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0));
    const sockaddr_in addr = Loopback(peer.port());
    ::connect(fillers.back(), reinterpret_cast<const sockaddr*>(&addr), sizeof(addr));
  }
  std::this_thread::sleep_for(100ms);  // let the handshakes of the fillers settle
  LogCapture logs;
  const int balance = net::StartupBalance();
  TcpClient client;
  const auto start = Clock::now();
  EXPECT_FALSE(TryOpen(client, peer.port(), 1));
  EXPECT_GE(Clock::now() - start, 900ms);
  EXPECT_LT(Clock::now() - start, 10s);
  EXPECT_FALSE(client.IsOpened());
  EXPECT_EQ(logs.CountIf([](const LogRecord& r) { return r.file.find("tcp_client") != std::string::npos; }), 0);
  for (int fd : fillers) ::close(fd);

  // Refused: fails fast, and the blocking open reports it with the C-library error number.
  const uint16_t port = UnusedLoopbackPort();
  const auto refused_at = Clock::now();
  EXPECT_FALSE(TryOpen(client, port));
  EXPECT_LT(Clock::now() - refused_at, 4s);
  EXPECT_FALSE(client.Open("127.0.0.1", port, false, nullptr, nullptr, nullptr));
  EXPECT_FALSE(client.IsOpened());
  EXPECT_EQ(logs.Missing(kLogError, {"connect failed " + std::to_string(ECONNREFUSED),
                                     "connect lidar fail errno " + std::to_string(ECONNREFUSED)}),
            "");
  EXPECT_TRUE(logs.Has(kLogProgress, "Open() IP 127.0.0.1 port " + std::to_string(port)));
  EXPECT_EQ(net::StartupBalance(), balance);
}

TEST(TcpClientOpen, ReopenIsANoOpAndALocalPortIsBoundOrLeftToTheSystem) {
  ScriptedPeer peer;
  LogCapture logs;
  const int balance = net::StartupBalance();
  const uint16_t free_port = UnusedLoopbackPort();
  {
    TcpClient client;
    ASSERT_TRUE(TryOpen(client, peer.port(), 5, free_port));
    EXPECT_TRUE(logs.Has(kLogProgress, "TryOpen succeed, IP 127.0.0.1 port " + std::to_string(peer.port())));
    ASSERT_TRUE(peer.Accept());
    EXPECT_EQ(PeerPortOf(peer.connection()), free_port);
    EXPECT_TRUE(TryOpen(client, peer.port()));
    EXPECT_TRUE(client.Open("127.0.0.1", peer.port(), false, nullptr, nullptr, nullptr));
    EXPECT_FALSE(peer.Accept(300ms)) << "a second connection was made";
    EXPECT_EQ(net::StartupBalance(), balance + 1);
  }
  EXPECT_EQ(net::StartupBalance(), balance);
  EXPECT_FALSE(logs.Has(kLogError, "Failed to bind local port, system will auto assign one"));
  // Taken (the peer's own listening port): the bind warning, then a port of the system's choice.
  TcpClient client;
  ASSERT_TRUE(TryOpen(client, peer.port(), 5, peer.port()));
  EXPECT_TRUE(logs.Has(kLogError, "Failed to bind local port, system will auto assign one"));
  ASSERT_TRUE(peer.Accept());
  EXPECT_NE(PeerPortOf(peer.connection()), peer.port());
}

TEST(TcpClientIo, SendReceiveFlagsAndPeerEnds) {
  ScriptedPeer peer;
  LogCapture logs;
  TcpClient client;
  ASSERT_TRUE(TryOpen(client, peer.port()));
  ASSERT_TRUE(peer.Accept());
  const Bytes out = {1, 2, 3, 4, 5};
  uint8_t buf[64];
  // Flags 255: one read that does not wait, and no error line when nothing is there. Only a
  // read that waited its (long) time-out takes 10 s.
  ASSERT_EQ(client.SetTimeout(30000, 30000), 0);
  auto start = Clock::now();
  EXPECT_EQ(client.Receive(buf, sizeof(buf), kReceiveNonBlocking), -1);
  EXPECT_LT(Clock::now() - start, 10s);
  ASSERT_EQ(client.SetTimeout(200, 200), 0);
  ASSERT_TRUE(peer.Write({9, 8, 7}));
  int got = -1;
  ASSERT_TRUE(WaitFor([&] { return (got = client.Receive(buf, sizeof(buf), kReceiveNonBlocking)) > 0; }));
  EXPECT_EQ(Bytes(buf, buf + got), (Bytes{9, 8, 7}));
  // The socket is blocking again afterwards: a normal read waits for its time-out.
  start = Clock::now();
  EXPECT_EQ(client.Receive(buf, sizeof(buf), 0), -1);
  EXPECT_GE(Clock::now() - start, 150ms);
  EXPECT_EQ(logs.Errors(), 0) << "time-outs and would-block are not errors";
  ASSERT_TRUE(peer.Write({1, 2, 3, 4}));
  EXPECT_EQ(client.Receive(buf, 2, 0), 2);  // at most what is asked for
  EXPECT_EQ(client.Receive(buf, 10, 0), 2);

  peer.Close();
  EXPECT_EQ(client.Receive(buf, sizeof(buf), 0), 0);
  EXPECT_TRUE(logs.Has(kLogError, "Connection closed by peer, recv returned 0"));
  // Sending into a closed connection fails with an error line (and no signal ends the process).
  EXPECT_TRUE(WaitFor([&] { return client.Send(out.data(), 5, 0) == -1; }));
  EXPECT_TRUE(logs.Has(kLogError, "Send errno " + std::to_string(EPIPE)) ||
              logs.Has(kLogError, "Send errno " + std::to_string(ECONNRESET)));
}

TEST(TcpClientSettings, ClosedTransportsWarnAndTheBufferNeverShrinks) {
  {
    LogCapture logs;
    TcpSslClient closed;
    uint8_t buf[16] = {};
    EXPECT_EQ(closed.Receive(buf, sizeof(buf), kReceiveNonBlocking), -1);
    EXPECT_EQ(logs.CountIf([](const LogRecord&) { return true; }), 0) << "flags 255 returns before anything else";
    EXPECT_FALSE(closed.SetReceiveTimeout(100));
    EXPECT_EQ(closed.SetTimeout(100, 100), -1);
    closed.SetReceiveBufferSize(1024);
    EXPECT_EQ(logs.Count(kLogWarning, "TcpClient not open"), 3);
  }
  TcpClient tcp;

  ScriptedPeer peer;
  ASSERT_TRUE(TryOpen(tcp, peer.port()));
  tcp.SetReceiveBufferSize(65536);
  const uint32_t large = tcp.GetSocketReceiveBufferSize();
  EXPECT_GE(large, 65536u);
  tcp.SetReceiveBufferSize(1024);
  EXPECT_EQ(tcp.GetSocketReceiveBufferSize(), large);
  tcp.SetReceiveBufferSize(large * 2);
  EXPECT_GT(tcp.GetSocketReceiveBufferSize(), large);
}

TEST(InitSslClient, GoodFilesGiveAVerifyingContextAndEachBadFileItsOwnError) {
  TlsFiles files;
  LogCapture logs;
  SSL_CTX* ctx = InitSslClient(files.cert.c_str(), files.key.c_str(), files.cert.c_str());
  ASSERT_NE(ctx, nullptr);
  EXPECT_EQ(SSL_CTX_get_verify_mode(ctx), SSL_VERIFY_PEER | SSL_VERIFY_FAIL_IF_NO_PEER_CERT);
  EXPECT_NE(SSL_CTX_get0_certificate(ctx), nullptr);
  EXPECT_EQ(logs.Missing(kLogProgress,
                         {"ca path: " + files.cert, "cert path: " + files.cert + ",\nprivate_key path: " + files.key}),
            "");
  EXPECT_EQ(logs.Errors(), 0);
  SSL_CTX_free(ctx);
  // A certificate without its key is not loaded.
  ctx = InitSslClient(files.cert.c_str(), nullptr, "");
  EXPECT_EQ(SSL_CTX_get0_certificate(ctx), nullptr);
  SSL_CTX_free(ctx);

  // A key of the certificate's type that is not its own is refused while loading; a key of
  // another type loads into a slot without a certificate and fails the check.
  const std::string c = files.cert, k = files.key, m = files.missing, j = files.junk,
                    ca = "load ca failed,please check ca file path",
                    cert = "load cert file failed,please check cert file path",
                    key = "load private key file failed,please check private key file path";
  // clang-format off
  const std::string rows[][4] = {{c, k, m, ca}, {c, k, j, ca}, {m, k, c, cert}, {j, k, c, cert}, {c, m, c, key},
                                 {c, j, c, key}, {c, files.other_key, c, key},
                                 {c, files.rsa_key, c, "check private key failed"}};
  // clang-format on
  for (const auto& r : rows) {
    SCOPED_TRACE(r[0] + " " + r[1] + " " + r[2]);
    LogCapture bad;
    EXPECT_EQ(InitSslClient(r[0].c_str(), r[1].c_str(), r[2].c_str()), nullptr);
    EXPECT_EQ(bad.Count(kLogError, r[3]), 1);
    EXPECT_EQ(bad.Errors(), 1);
  }
}

TEST(TcpSslClientOpen, ReachableServerEndsInTheInvertedSocketTest) {
  TlsFiles files;
  const int balance = net::StartupBalance();
  const char *cert = files.cert.c_str(), *key = files.key.c_str();
  for (bool try_open : {true, false}) {
    ScriptedPeer server;
    std::future<int> served = ServeTls(server, files);
    const uint16_t port = server.port();
    LogCapture logs;
    TcpSslClient client;
    EXPECT_FALSE(try_open ? client.TryOpen(0, "127.0.0.1", port, false, cert, key, cert, 5)
                          : client.Open("127.0.0.1", port, false, cert, key, cert));
    EXPECT_FALSE(client.IsOpened());
    EXPECT_TRUE(logs.Has(kLogError, "Connect to Server Failed!~!~"));
    EXPECT_FALSE(logs.Has(kLogError, "connect ssl failed"));
    // The TCP connection was made and dropped before any handshake.
    EXPECT_EQ(served.get(), 1);
    if (!try_open) EXPECT_TRUE(logs.Has(kLogProgress, "ip:127.0.0.1 port:" + std::to_string(port)));
  }
  EXPECT_EQ(net::StartupBalance(), balance);
}

TEST(TcpSslClientOpen, FailedConnectGoesOnToAHandshakeThatFailsAndABadContextStopsTheOpen) {
  TlsFiles files;
  LogCapture logs;
  const int balance = net::StartupBalance();
  TcpSslClient client;
  EXPECT_FALSE(client.Open("127.0.0.1", UnusedLoopbackPort(), false, nullptr, nullptr, nullptr));
  EXPECT_TRUE(logs.Has(kLogError, "connect errno:" + std::to_string(ECONNREFUSED) + ", " + strerror(ECONNREFUSED)));
  EXPECT_TRUE(logs.Has(kLogError, "connect ssl failed"));
  ScriptedPeer peer;
  EXPECT_FALSE(client.TryOpen(0, "127.0.0.1", peer.port(), false, files.cert.c_str(), files.key.c_str(),
                              files.missing.c_str(), 1));
  EXPECT_TRUE(logs.Has(kLogError, "load ca failed,please check ca file path"));
  EXPECT_FALSE(peer.Accept(200ms));
  EXPECT_EQ(net::StartupBalance(), balance);
}

// One exchange per row on a fresh link: the peer checks the request, answers with `reply`
// and closes when asked. Covers the header hunt, the checks per version, the result rules
// and a hostile peer's noise, truncation, wrong identifiers, lying lengths and silence.
TEST(KtcClientQuery, RepliesGiveTheirCodesResultsAndLines) {
  Bytes big(20000);
  for (size_t i = 0; i < big.size(); ++i) big[i] = static_cast<uint8_t>(i * 31);
  const Bytes ee = {0xEE}, none;
  struct Row {
    const char* what;
    uint8_t version;
    bool with_header;
    int how;  // 0: one write, 1: then close, 2: three bytes per write
    Bytes reply;
    int ret, last_code;
    Bytes result;
    std::string warning = "";
  };
  const Row rows[] = {
      {"noise before the header", 1, false, 0, FromHex("de ad be ef 47 74 07 00 00 00 00 01 55"), 0, 0, Bytes(1, 0x55)},
      // A block ending in a lone 0x47 loses it: joined with the 0x74 after it, the reply
      // would have had payload length 0 and left the result as it was.
      {"lone trailing identifier byte", 1, false, 0,
       FromHex("00 00 00 00 00 00 00 47 74 07 00 00 00 00 00 00 47 74 07 00 00 00 00 01 99"), 0, 0, Bytes(1, 0x99)},
      {"header split over several reads", 1, false, 2, FromHex("13 47 74 07 00 00 00 00 02 aa bb"), 0, 0,
       FromHex("aa bb")},
      {"payload 0 with header", 1, true, 0, Reply(1, 7, 0, none), 0, 0, FromHex("47 74 07 00 00 00 00 00")},
      {"payload 0 without header keeps the result", 1, false, 0, Reply(1, 7, 0, none), 0, 0, ee},
      {"payload 20000", 1, false, 0, Reply(1, 7, 0, big), 0, 0, big,
       "KtcClient::QueryCommand, warning, nPayLoadLen too large:20000"},
      {"v2 return code 5", 2, true, 0, Reply(2, 7, 5, none), -1, 5, FromHex("57 75 01 07 05 00 00 00 00 00 00 00"),
       "KtcClient::QueryCommand,RspCode invalid:5, return_cmd:7, cmd:7"},
      {"v2 echoed command mismatch", 2, false, 0, Reply(2, 8, 0, FromHex("01 02")), -1, 0, ee,
       "KtcClient::QueryCommand,RspCode invalid:0, return_cmd:8, cmd:7"},
      {"v1 echoed command mismatch", 1, true, 0, Reply(1, 9, 0, none), -1, 0, FromHex("47 74 09 00 00 00 00 00"),
       "KtcClient::QueryCommand, RspCode invalid:0, return_cmd:9, cmd:7"},
      {"v2 identifiers to a v1 client", 1, false, 0, Reply(2, 7, 0, ee), -1, kKtcHeaderReadFailed, ee},
      {"silence", 2, false, 0, none, -1, kKtcHeaderReadFailed, ee},
      {"closed inside the header", 2, true, 1, FromHex("99 57 75 01 07"), -1, kKtcHeaderReadFailed,
       FromHex("57 75 01 07")},
      {"closed mid-payload", 1, true, 1, Reply(1, 7, 0, Bytes(10, 1), 100), -1, kKtcPayloadReadFailed, ee},
      // No 4 GiB buffer: what arrived, then the receive time-out.
      {"claims 4 GiB, sends 10 bytes", 1, false, 0, Reply(1, 7, 0, Bytes(10, 7), 0xFFFFFFFF), -1, kKtcPayloadReadFailed,
       ee, "KtcClient::QueryCommand, warning, nPayLoadLen too large:-1"}};
  for (const Row& r : rows) {
    SCOPED_TRACE(r.what);
    Link link(r.version, 300);
    std::vector<std::string> lines;  // filled in the query's thread, read after its result
    link.client->SetLogCallback([&](const std::string& line) { lines.push_back(line); });
    const auto start = Clock::now();
    auto q = link.Query({0xAA, 0xBB}, 0x07, r.with_header);
    const Bytes request = link.peer.ReadFrame(r.version);
    EXPECT_EQ(request, Reply(r.version, 0x07, 0, {0xAA, 0xBB}));
    for (size_t i = 0; r.how == 2 && i < r.reply.size(); i += 3) {
      ASSERT_TRUE(link.peer.Write(Bytes(r.reply.begin() + i, r.reply.begin() + std::min(i + 3, r.reply.size()))));
      std::this_thread::sleep_for(20ms);  // shapes the stream into several reads
    }
    if (r.how != 2) ASSERT_TRUE(link.peer.Write(r.reply));
    if (r.how == 1) link.peer.Close();
    const QueryResult got = q.get();
    EXPECT_LT(Clock::now() - start, 5s);
    EXPECT_EQ(got.ret, r.ret);
    EXPECT_EQ(link.client->GetLastReturnCode(), r.last_code);
    EXPECT_EQ(got.result, r.result);
    if (!r.warning.empty()) EXPECT_TRUE(link.logs.Has(kLogWarning, r.warning));
    const std::string recv = r.ret == 0 ? ToHexSpaced(r.result) : "ret_code is " + std::to_string(r.last_code);
    EXPECT_EQ(lines, (std::vector<std::string>{"SEND: " + ToHexSpaced(request), "RECV: " + recv}));
    EXPECT_EQ(link.logs.CountIf([](const LogRecord& l) {
      return l.level == kLogTiming && l.message.rfind("exec time: ", 0) == 0 && l.message.back() == 's';
    }),
              1);
  }
}

TEST(KtcClientHostile, EndlessNoiseResetAndOversizedRequest) {
  Link link(1, 300);
  // Endless noise without the identifier pair cannot hold the exchange.
  std::atomic<bool> noisy{true};
  auto q = link.Query({});
  link.peer.ReadFrame(1);
  std::thread noise([&] {
    while (noisy.load() && link.peer.Write(Bytes(64, 0x11))) std::this_thread::sleep_for(1ms);
  });
  EXPECT_EQ(q.get().ret, -1);
  noisy.store(false);
  noise.join();
  EXPECT_EQ(link.client->GetLastReturnCode(), kKtcHeaderReadFailed);
  EXPECT_TRUE(link.logs.Has(kLogWarning, "KtcClient::QueryCommand, no reply header within 300 ms"));

  // A request longer than one send carries is refused whole; the largest one still goes out.
  q = link.Query(Bytes(70000, 1));
  EXPECT_EQ(q.get().ret, -1);
  EXPECT_EQ(link.client->GetLastReturnCode(), kKtcSendFailed);
  EXPECT_TRUE(link.logs.Has(kLogWarning, "send failure, 0."));
  q = link.Query(Bytes(0xFFFF - 8, 2));
  EXPECT_EQ(link.peer.ReadFrame(1).size(), 0xFFFFu);

  // Reset by the peer: the exchange fails; a following send fails whole (-4).
  q = link.Query({});
  link.peer.ReadFrame(1);
  link.peer.Reset();
  EXPECT_EQ(q.get().ret, -1);
  EXPECT_EQ(link.client->GetLastReturnCode(), kKtcHeaderReadFailed);
  EXPECT_TRUE(
      WaitFor([&] { return link.Query({}).get().ret == -1 && link.client->GetLastReturnCode() == kKtcSendFailed; }));
  EXPECT_TRUE(link.logs.Has(kLogWarning, "send failure, -1."));
}

TEST(KtcClientDrain, StaleBytesAreThrownAwayWaitingOnlyAfterAFailure) {
  Link link(1, 300);
  auto q = link.Query({}, 0x01);
  link.peer.ReadFrame(1);
  EXPECT_EQ(q.get().ret, -1);  // nothing came in time
  // The late answer arrives after the client gave up; the next exchange asks the same command.
  ASSERT_TRUE(link.peer.Write(Reply(1, 0x01, 0, {0x11})));
  const auto start = Clock::now();
  q = link.Query({}, 0x01);
  link.peer.ReadFrame(1);
  EXPECT_GE(Clock::now() - start, 45ms);  // the timed drain before the request
  ASSERT_TRUE(link.peer.Write(Reply(1, 0x01, 0, {0x22})));
  EXPECT_EQ(q.get().result, Bytes{0x22});
  // After a clean exchange, bytes already waiting are dropped without a wait.
  ASSERT_TRUE(link.peer.Write(Reply(1, 0x01, 0, {0x33})));
  q = link.Query({}, 0x01);
  link.peer.ReadFrame(1);
  ASSERT_TRUE(link.peer.Write(Reply(1, 0x01, 0, {0x44})));
  EXPECT_EQ(q.get().result, Bytes{0x44});

  Responder responder(link.peer, [](const Bytes& req) { return Reply(1, req[2], 0, {1}); });
  const auto timed = [&](int n) {
    const auto begin = Clock::now();
    Bytes result;
    for (int i = 0; i < n; ++i) EXPECT_EQ(link.client->QueryCommand({}, result, 0x05), 0);
    return Clock::now() - begin;
  };
  // Two hundred adaptive exchanges take less than two hundred timed drains alone would;
  // literal drain always waits.
  EXPECT_LT(timed(200), 200 * 50ms);
  link.client->SetLiteralDrain(true);
  EXPECT_GE(timed(4), 4 * 45ms);
}

TEST(KtcClientDownload, PausesLongerThanAReplyMayTakeAreWaitedOutAndTheTimeOutComesBack) {
  Link link(1, 300);
  Bytes log(3 * 1024 * 1024);
  for (size_t i = 0; i < log.size(); ++i) log[i] = static_cast<uint8_t>(i * 7 + i / 4096);
  const Bytes reply = Reply(1, 0x60, 0, log);
  // Three pieces with pauses of 700 ms: more than the 300 ms of a command reply.
  const auto serve = [&] {
    const size_t cut = reply.size() / 3;
    for (size_t at = 0; at < reply.size(); at += cut) {
      link.peer.Write(Bytes(reply.begin() + at, reply.begin() + std::min(reply.size(), at + cut)));
      std::this_thread::sleep_for(700ms);
    }
  };
  auto download = std::async(std::launch::async, [&] {
    Bytes result;
    const int ret = link.client->DownloadQuery({0x00, 0x01}, result, 0x60);
    return QueryResult{ret, result};
  });
  EXPECT_EQ(link.peer.ReadFrame(1), Reply(1, 0x60, 0, {0x00, 0x01}));
  serve();
  const QueryResult got = download.get();
  EXPECT_EQ(got.ret, 0);
  EXPECT_TRUE(got.result == log) << got.result.size();
  EXPECT_FALSE(link.logs.CountIf([](const LogRecord& l) { return l.message.find("too large") != std::string::npos; }));

  // The same pauses fail an ordinary query: its time-out is back to 300 ms.
  auto query = link.Query({}, 0x60);
  EXPECT_EQ(link.peer.ReadFrame(1), Reply(1, 0x60, 0, {}));
  const auto start = Clock::now();
  serve();
  EXPECT_EQ(query.get().ret, -1);
  EXPECT_EQ(link.client->GetLastReturnCode(), kKtcPayloadReadFailed);
  EXPECT_LT(Clock::now() - start, 5s);
}

TEST(KtcClientConcurrency, TwoThreadsNeverInterleaveOnTheWire) {
  Link link(1);
  std::atomic<int> malformed{0};
  // A whole frame from one thread: header, then 1000 bytes of that thread's tag.
  Responder responder(link.peer, [&](const Bytes& req) {
    bool ok = req.size() == 8 + 1000 && req[0] == 0x47 && req[1] == 0x74;
    for (size_t i = 8; ok && i < req.size(); ++i) ok = req[i] == req[2];
    malformed += ok ? 0 : 1;
    return ok ? Reply(1, req[2], 0, Bytes(500, req[2])) : Bytes{};
  });
  const auto worker = [&](uint8_t tag) {
    int good = 0;
    for (int i = 0; i < 40; ++i) {
      Bytes result;
      good += link.client->QueryCommand(Bytes(1000, tag), result, tag) == 0 && result == Bytes(500, tag) ? 1 : 0;
    }
    return good;
  };
  auto a = std::async(std::launch::async, worker, uint8_t{0x31});
  auto b = std::async(std::launch::async, worker, uint8_t{0x32});
  EXPECT_EQ(a.get(), 40);
  EXPECT_EQ(b.get(), 40);
  EXPECT_EQ(malformed.load(), 0);
}

TEST(KtcClientTransfer, ByCommandTextPlainAndExtended) {
  Bytes file(2049);
  for (size_t i = 0; i < file.size(); ++i) file[i] = static_cast<uint8_t>(i);
  // Plain: command 0x0A carrying the inner piece frame. Extended: command 0xFF, the 4-byte
  // code before every frame, most significant byte first, and the inner frame also with 0xFF.
  for (auto [text, first, last] :
       {std::tuple<const char*, const char*, const char*>{"0x0A", "47 74 0a 00 00 00 04 18 47 74 0a 00 00 00 04 10",
                                                          "47 74 0a 00 00 00 00 19 47 74 0a 00 00 00 00 11"},
        {"1A2B3C4D", "47 74 ff 00 00 00 04 1c 1a 2b 3c 4d 47 74 ff 00 00 00 04 10",
         "47 74 ff 00 00 00 00 1d 1a 2b 3c 4d 47 74 ff 00 00 00 00 11"}}) {
    SCOPED_TRACE(text);
    Link link(1);
    std::atomic<uint32_t> progress{0};
    Responder responder(link.peer, [](const Bytes& req) { return Reply(1, req[2], 0, {}); });
    std::string cmd_text = text;
    EXPECT_EQ(link.client->TransferFileByCmdText(file, cmd_text, progress), 0);
    EXPECT_TRUE(cmd_text.empty());
    EXPECT_EQ(progress.load(), 3u);
    const std::vector<Bytes> frames = responder.Stop();
    ASSERT_EQ(frames.size(), 3u);
    const size_t n = FromHex(first).size();
    EXPECT_EQ(Bytes(frames[0].begin(), frames[0].begin() + n), FromHex(first));
    EXPECT_EQ(Bytes(frames[0].begin() + n, frames[0].begin() + n + 12), FromHex("00 00 00 00 00 00 00 01 00 00 00 03"));
    EXPECT_EQ(Bytes(frames[2].begin(), frames[2].begin() + n), FromHex(last));
    EXPECT_EQ(frames[2].back(), file.back());
  }
}

TEST(KtcClientTransfer, BadTextThrowsAndAFailedPieceStopsTheTransfer) {
  Link link(1, 400);
  std::atomic<uint32_t> progress{0};
  const auto thrown = [&](std::string text) -> std::string {
    try {
      link.client->TransferFileByCmdText({1}, text, progress);
    } catch (const std::invalid_argument& e) {
      return std::string("invalid_argument: ") + e.what();
    } catch (const std::out_of_range& e) {
      return std::string("out_of_range: ") + e.what();
    }
    return "nothing";
  };
  EXPECT_EQ(thrown("xyz"), "invalid_argument: invalid stoi argument");
  EXPECT_EQ(thrown("FFFFFFFFFF"), "out_of_range: stoi argument out of range");
  {
    Responder responder(link.peer,
                        [n = 0](const Bytes& req) mutable { return Reply(1, req[2], ++n == 2 ? 3 : 0, {}); });
    EXPECT_EQ(link.client->TransferFile(Bytes(3000, 9), 0x0B, false, progress), -1);
    EXPECT_EQ(progress.load(), 2u);
    EXPECT_EQ(link.client->GetLastReturnCode(), 3);
  }
  // The configured time-outs are back: a silent peer ends the next exchange in 400 ms, not 60 s.
  auto q = link.Query({});
  ASSERT_EQ(q.wait_for(20s), std::future_status::ready);
  EXPECT_EQ(q.get().ret, -1);
}

TEST(KtcClientConnect, FailedConnectsEndTheThreadAndALaterAddressConnects) {
  TlsFiles files;
  ScriptedPeer server;
  std::future<int> served = ServeTls(server, files);
  LogCapture logs;
  // TLS against a reachable server (the inverted socket test drops every connection), then TCP
  // with nothing listening: each ends the connect thread and leaves a client refusing queries.
  for (uint32_t type : {KtcClient::kClientTls, KtcClient::kClientTcp}) {
    const bool tls = type == KtcClient::kClientTls;
    KtcClient client("127.0.0.1", tls ? server.port() : UnusedLoopbackPort(), false, type, 1, files.cert, files.key,
                     files.cert, 500, 500, 0.5f);
    ASSERT_TRUE(WaitFor([&] { return logs.Count(kLogWarning, "ktc connect exit 2") == (tls ? 1 : 2); }));
    EXPECT_FALSE(client.IsOpen());
    Bytes result = {1};
    EXPECT_EQ(client.QueryCommand({}, result, 1), -1);
    EXPECT_EQ(result, Bytes{1});
  }
  EXPECT_TRUE(logs.Has(kLogError, "Connect to Server Failed!~!~"));
  EXPECT_EQ(logs.Count(kLogError, "Client is not open, cannot send command."), 2);
  EXPECT_EQ(served.get(), 1);  // connected, then dropped before any handshake

  // Without an address the thread waits: Stop ends it, SetLidarIp lets it connect.
  KtcClient waiting("", 1, false, KtcClient::kClientTcp, 1, "", "", "", 500, 500, -1.0f);
  waiting.Stop();
  EXPECT_TRUE(logs.Has(kLogWarning, "ktc connect exit 1"));
  ScriptedPeer peer;
  KtcClient client("", peer.port(), false, KtcClient::kClientTcp, 1, "", "", "", 1234, 2345, -1.0f);
  client.SetLidarIp("127.0.0.1");
  ASSERT_TRUE(peer.Accept());
  ASSERT_TRUE(WaitFor([&] { return logs.Has(kLogProgress, "ktc connect success"); }));
  EXPECT_TRUE(client.IsOpen());
  EXPECT_EQ(logs.Missing(kLogProgress, {"KtcClient::KtcClient() 127.0.0.1 " + std::to_string(peer.port()),
                                        "u32RecvTimeoutMs 1234", "u32SendTimeoutMs 2345"}),
            "");
}

// A transport opened by someone else: no connect thread, the configured time-outs apply from
// the first exchange (the transport's own are 500 ms), and the client closes it when it goes.
TEST(KtcClientGivenTransport, ExchangesAtOnceWithItsOwnTimeOutsAndClosesTheTransport) {
  ScriptedPeer peer;
  auto transport = std::make_shared<TcpClient>();
  ASSERT_TRUE(TryOpen(*transport, peer.port()));
  ASSERT_TRUE(peer.Accept());
  {
    KtcClient client(transport, 2, 100, 100);
    EXPECT_TRUE(client.IsOpen());
    Bytes result;
    auto reply = std::async(std::launch::async, [&] {
      const Bytes request = peer.ReadFrame(2);
      peer.Write(Reply(2, 0x21, 0, {0xC0, 0xA8}));
      return request;
    });
    EXPECT_EQ(client.QueryCommand({0x01}, result, 0x21), 0);
    EXPECT_EQ(reply.get(), Reply(2, 0x21, 0, {0x01}));
    EXPECT_EQ(result, (Bytes{0xC0, 0xA8}));

    const auto start = Clock::now();
    EXPECT_EQ(client.QueryCommand({}, result, 0x21), -1);  // silence
    EXPECT_LT(Clock::now() - start, 10s);                  // only a read ignoring its 100 ms time-out
    EXPECT_EQ(client.GetLastReturnCode(), kKtcHeaderReadFailed);
  }
  EXPECT_FALSE(transport->IsOpened());
}
