#include "ktc_client.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>
#include <stdexcept>
#include <thread>

#include "log_capture.h"
#include "scripted_peer.h"
#include "tls_fixtures.h"

using namespace quarn::lidar;
using namespace std::chrono_literals;
using ktc_test::Bytes;
using ktc_test::FromHex;
using ktc_test::LogCapture;
using ktc_test::ReplyV1;
using ktc_test::ReplyV2;
using ktc_test::ReplyWithClaimedLength;
using ktc_test::ScriptedPeer;

namespace {

using Clock = std::chrono::steady_clock;

template <typename Pred>
bool WaitFor(Pred pred, std::chrono::milliseconds timeout = 10s) {
  const auto deadline = Clock::now() + timeout;
  while (!pred()) {
    if (Clock::now() > deadline) return false;
    std::this_thread::sleep_for(2ms);
  }
  return true;
}

struct QueryResult {
  int ret;
  Bytes result;
};

// A client connected to a scripted peer, its time-outs applied.
class Link {
 public:
  explicit Link(uint8_t version, uint32_t recv_ms = 3000, uint32_t send_ms = 3000) {
    client = std::make_unique<KtcClient>("127.0.0.1", peer.port(), false, KtcClient::kClientTcp, version, "", "", "",
                                         recv_ms, send_ms, 10.0f);
    client->SetLogCallback([this](const std::string& line) {
      std::lock_guard<std::mutex> lock(lines_mutex);
      lines.push_back(line);
    });
    EXPECT_TRUE(peer.Accept());
    EXPECT_TRUE(WaitFor([&] { return logs.Has(kLogProgress, "ktc connect success"); }));
  }

  std::future<QueryResult> Query(Bytes payload, uint8_t cmd, bool with_header = false, Bytes initial = {0xEE}) {
    return std::async(std::launch::async, [=] {
      Bytes result = initial;
      const int ret = client->QueryCommand(payload, result, cmd, with_header);
      return QueryResult{ret, result};
    });
  }

  std::vector<std::string> Lines() {
    std::lock_guard<std::mutex> lock(lines_mutex);
    return lines;
  }

  LogCapture logs;
  ScriptedPeer peer;
  std::unique_ptr<KtcClient> client;
  std::mutex lines_mutex;
  std::vector<std::string> lines;
};

}  // namespace

TEST(KtcClientQuery, Version1ExchangeWithAndWithoutHeader) {
  Link link(1);
  auto q = link.Query({0xAA, 0xBB}, 0x07);
  EXPECT_EQ(link.peer.ReadFrame(1), FromHex("47 74 07 00 00 00 00 02 aa bb"));
  ASSERT_TRUE(link.peer.Write(FromHex("47 74 07 00 00 00 00 03 01 02 03")));
  QueryResult r = q.get();
  EXPECT_EQ(r.ret, 0);
  EXPECT_EQ(r.result, FromHex("01 02 03"));

  q = link.Query({}, 0x07, true);
  EXPECT_EQ(link.peer.ReadFrame(1), FromHex("47 74 07 00 00 00 00 00"));
  ASSERT_TRUE(link.peer.Write(FromHex("47 74 07 00 00 00 00 02 09 08")));
  r = q.get();
  EXPECT_EQ(r.ret, 0);
  EXPECT_EQ(r.result, FromHex("47 74 07 00 00 00 00 02 09 08"));

  const auto lines = link.Lines();
  ASSERT_EQ(lines.size(), 4u);
  EXPECT_EQ(lines[0], "SEND: 47 74 07 00 00 00 00 02 aa bb ");
  EXPECT_EQ(lines[1], "RECV: 01 02 03 ");
  EXPECT_EQ(lines[3], "RECV: 47 74 07 00 00 00 00 02 09 08 ");
  int timings = 0;
  for (const auto& rec : link.logs.Records()) {
    timings += (rec.level == kLogTiming && rec.message.rfind("exec time: ", 0) == 0 && rec.message.size() > 13 &&
                rec.message.substr(rec.message.size() - 2) == "ms")
                   ? 1
                   : 0;
  }
  EXPECT_EQ(timings, 2);
  EXPECT_EQ(link.client->GetLastReturnCode(), 0);
}

TEST(KtcClientQuery, HeaderHuntOverNoiseAndSplitReads) {
  Link link(1);
  // Noise ahead of the header inside one read.
  auto q = link.Query({}, 0x07);
  link.peer.ReadFrame(1);
  ASSERT_TRUE(link.peer.Write(FromHex("de ad be ef 47 74 07 00 00 00 00 01 55")));
  EXPECT_EQ(q.get().result, Bytes{0x55});

  // A header that arrives in pieces.
  q = link.Query({}, 0x07);
  link.peer.ReadFrame(1);
  for (const char* part : {"13 47 74", "07 00", "00 00 00", "02 aa", "bb"}) {
    ASSERT_TRUE(link.peer.Write(FromHex(part)));
    std::this_thread::sleep_for(20ms);  // shapes the stream into several reads
  }
  QueryResult r = q.get();
  EXPECT_EQ(r.ret, 0);
  EXPECT_EQ(r.result, FromHex("aa bb"));

  // A block ending in a lone 0x47 loses it: the 0x74 that follows does not complete a header.
  // Had the two joined, the reply would have had payload length 0 and left the result as it was.
  q = link.Query({}, 0x07);
  link.peer.ReadFrame(1);
  ASSERT_TRUE(link.peer.Write(FromHex("00 00 00 00 00 00 00 47 74 07 00 00 00 00 00 00 47 74 07 00 00 00 00 01 99")));
  r = q.get();
  EXPECT_EQ(r.ret, 0);
  EXPECT_EQ(r.result, Bytes{0x99});
}

TEST(KtcClientQuery, RejectedRepliesKeepTheirCodeAndTheResultRules) {
  Link link(2);
  // Version 2: return code 5.
  auto q = link.Query({}, 0x07, true);
  EXPECT_EQ(link.peer.ReadFrame(2), FromHex("57 75 01 07 00 00 00 00 00 00 00 00"));
  ASSERT_TRUE(link.peer.Write(ReplyV2(0x07, 5, {})));
  QueryResult r = q.get();
  EXPECT_EQ(r.ret, -1);
  EXPECT_EQ(link.client->GetLastReturnCode(), 5);
  EXPECT_EQ(r.result, FromHex("57 75 01 07 05 00 00 00 00 00 00 00"));
  EXPECT_TRUE(link.logs.Has(kLogWarning, "KtcClient::QueryCommand,RspCode invalid:5, return_cmd:7, cmd:7"));
  EXPECT_EQ(link.Lines().back(), "RECV: ret_code is 5");

  // Return code 0 but another command: last return code 0, result untouched without header.
  q = link.Query({}, 0x07, false);
  link.peer.ReadFrame(2);
  ASSERT_TRUE(link.peer.Write(ReplyV2(0x08, 0, {1, 2})));
  r = q.get();
  EXPECT_EQ(r.ret, -1);
  EXPECT_EQ(link.client->GetLastReturnCode(), 0);
  EXPECT_EQ(r.result, Bytes{0xEE});
  EXPECT_TRUE(link.logs.Has(kLogWarning, "KtcClient::QueryCommand,RspCode invalid:0, return_cmd:8, cmd:7"));

  // The rejected reply's payload never reaches the next exchange.
  q = link.Query({}, 0x07, false);
  link.peer.ReadFrame(2);
  ASSERT_TRUE(link.peer.Write(ReplyV2(0x07, 0, {3})));
  r = q.get();
  EXPECT_EQ(r.ret, 0);
  EXPECT_EQ(r.result, Bytes{3});
}

TEST(KtcClientQuery, Version1CheckTextAndWrongSecondIdentifier) {
  Link link(1, 300, 300);
  auto q = link.Query({}, 0x07);
  link.peer.ReadFrame(1);
  ASSERT_TRUE(link.peer.Write(ReplyV1(0x09, 0, {})));
  EXPECT_EQ(q.get().ret, -1);
  EXPECT_TRUE(link.logs.Has(kLogWarning, "KtcClient::QueryCommand, RspCode invalid:0, return_cmd:9, cmd:7"));

  // A version-2 reply to a version-1 client has no "Gt" pair: no header within the time-out.
  q = link.Query({}, 0x07);
  link.peer.ReadFrame(1);
  ASSERT_TRUE(link.peer.Write(ReplyV2(0x07, 0, {1})));
  EXPECT_EQ(q.get().ret, -1);
  EXPECT_EQ(link.client->GetLastReturnCode(), kKtcHeaderReadFailed);
}

TEST(KtcClientQuery, PayloadLengthZeroAndLarge) {
  Link link(1);
  auto q = link.Query({}, 0x07, true);
  link.peer.ReadFrame(1);
  ASSERT_TRUE(link.peer.Write(ReplyV1(0x07, 0, {})));
  QueryResult r = q.get();
  EXPECT_EQ(r.ret, 0);
  EXPECT_EQ(r.result, FromHex("47 74 07 00 00 00 00 00"));

  q = link.Query({}, 0x07, false);
  link.peer.ReadFrame(1);
  ASSERT_TRUE(link.peer.Write(ReplyV1(0x07, 0, {})));
  r = q.get();
  EXPECT_EQ(r.ret, 0);
  EXPECT_EQ(r.result, Bytes{0xEE}) << "left as it was, on purpose";
  EXPECT_EQ(link.Lines().back(), "RECV: ee ");

  Bytes big(20000);
  for (size_t i = 0; i < big.size(); ++i) big[i] = static_cast<uint8_t>(i * 31);
  q = link.Query({}, 0x07, false);
  link.peer.ReadFrame(1);
  ASSERT_TRUE(link.peer.Write(ReplyV1(0x07, 0, big)));
  r = q.get();
  EXPECT_EQ(r.ret, 0);
  EXPECT_EQ(r.result, big);
  EXPECT_TRUE(link.logs.Has(kLogWarning, "KtcClient::QueryCommand, warning, nPayLoadLen too large:20000"));
}

TEST(KtcClientHostile, TruncatedRepliesEndInTheirCodes) {
  Link link(1, 400, 400);
  // Closed mid-payload: -3, the result as it was even with the header requested.
  auto q = link.Query({}, 0x07, true);
  link.peer.ReadFrame(1);
  ASSERT_TRUE(link.peer.Write(ReplyWithClaimedLength(1, 0x07, 100, Bytes(10, 1))));
  link.peer.Close();
  QueryResult r = q.get();
  EXPECT_EQ(r.ret, -1);
  EXPECT_EQ(link.client->GetLastReturnCode(), kKtcPayloadReadFailed);
  EXPECT_EQ(r.result, Bytes{0xEE});
  EXPECT_EQ(link.Lines().back(), "RECV: ret_code is -3");
}

TEST(KtcClientHostile, TruncatedHeaderGivesWhatWasRead) {
  Link link(2, 400, 400);
  auto q = link.Query({}, 0x07, true);
  link.peer.ReadFrame(2);
  ASSERT_TRUE(link.peer.Write(FromHex("99 57 75 01 07")));
  link.peer.Close();
  QueryResult r = q.get();
  EXPECT_EQ(r.ret, -1);
  EXPECT_EQ(link.client->GetLastReturnCode(), kKtcHeaderReadFailed);
  EXPECT_EQ(r.result, FromHex("57 75 01 07"));
}

TEST(KtcClientHostile, LyingLengthSilenceResetAndEndlessNoise) {
  Link link(1, 300, 300);
  // Claims 4 GiB and sends 10 bytes: -3 after the receive time-out, no 4 GiB buffer.
  auto q = link.Query({}, 0x07);
  link.peer.ReadFrame(1);
  ASSERT_TRUE(link.peer.Write(ReplyWithClaimedLength(1, 0x07, 0xFFFFFFFFu, Bytes(10, 7))));
  QueryResult r = q.get();
  EXPECT_EQ(r.ret, -1);
  EXPECT_EQ(link.client->GetLastReturnCode(), kKtcPayloadReadFailed);
  EXPECT_EQ(r.result, Bytes{0xEE});
  EXPECT_TRUE(link.logs.Has(kLogWarning, "KtcClient::QueryCommand, warning, nPayLoadLen too large:-1"));

  // Silence: -2.
  const auto start = Clock::now();
  q = link.Query({}, 0x07);
  link.peer.ReadFrame(1);
  EXPECT_EQ(q.get().ret, -1);
  EXPECT_EQ(link.client->GetLastReturnCode(), kKtcHeaderReadFailed);
  EXPECT_GE(Clock::now() - start, 250ms);

  // Endless noise without the identifier pair cannot hold the exchange.
  std::atomic<bool> noisy{true};
  q = link.Query({}, 0x07);
  link.peer.ReadFrame(1);
  std::thread noise([&] {
    const Bytes junk(64, 0x11);
    while (noisy.load() && link.peer.Write(junk)) std::this_thread::sleep_for(1ms);
  });
  r = q.get();
  noisy.store(false);
  noise.join();
  EXPECT_EQ(r.ret, -1);
  EXPECT_EQ(link.client->GetLastReturnCode(), kKtcHeaderReadFailed);
  EXPECT_TRUE(link.logs.Has(kLogWarning, "KtcClient::QueryCommand, no reply header within 300 ms"));

  // Reset by the peer: the exchange fails; the following send fails whole (-4).
  link.peer.ReadAvailable(50ms);
  q = link.Query({}, 0x07);
  link.peer.ReadFrame(1);
  link.peer.Reset();
  EXPECT_EQ(q.get().ret, -1);
  EXPECT_EQ(link.client->GetLastReturnCode(), kKtcHeaderReadFailed);
  int ret = 0;
  for (int i = 0; i < 5 && link.client->GetLastReturnCode() != kKtcSendFailed; ++i) {
    ret = link.Query({}, 0x07).get().ret;
  }
  EXPECT_EQ(ret, -1);
  EXPECT_EQ(link.client->GetLastReturnCode(), kKtcSendFailed);
  EXPECT_TRUE(link.logs.Has(kLogWarning, "send failure, -1."));
}

TEST(KtcClientHostile, OversizedRequestIsRefusedWhole) {
  Link link(1);
  auto q = link.Query(Bytes(70000, 1), 0x07);
  EXPECT_EQ(q.get().ret, -1);
  EXPECT_EQ(link.client->GetLastReturnCode(), kKtcSendFailed);
  EXPECT_TRUE(link.logs.Has(kLogWarning, "send failure, 0."));
  EXPECT_TRUE(link.peer.ReadAvailable(100ms).empty());
  // The largest frame one send carries still goes.
  q = link.Query(Bytes(0xFFFF - 8, 2), 0x07);
  EXPECT_EQ(link.peer.ReadFrame(1).size(), 0xFFFFu);
  ASSERT_TRUE(link.peer.Write(ReplyV1(0x07, 0, {})));
  EXPECT_EQ(q.get().ret, 0);
}

TEST(KtcClientDrain, LateReplyOfAnAbandonedExchangeIsThrownAway) {
  Link link(1, 300, 300);
  auto q = link.Query({}, 0x01);
  link.peer.ReadFrame(1);
  EXPECT_EQ(q.get().ret, -1);  // nothing came in time
  // The late answer arrives after the client gave up; the next exchange asks the same command.
  ASSERT_TRUE(link.peer.Write(ReplyV1(0x01, 0, {0x11})));
  const auto start = Clock::now();
  q = link.Query({}, 0x01);
  link.peer.ReadFrame(1);
  // After a failure the drain waits its 50 ms before the request goes out.
  EXPECT_GE(Clock::now() - start, 45ms);
  ASSERT_TRUE(link.peer.Write(ReplyV1(0x01, 0, {0x22})));
  QueryResult r = q.get();
  EXPECT_EQ(r.ret, 0);
  EXPECT_EQ(r.result, Bytes{0x22});

  // After a clean exchange, bytes already waiting are dropped without a wait.
  ASSERT_TRUE(link.peer.Write(ReplyV1(0x01, 0, {0x33})));
  q = link.Query({}, 0x01);
  link.peer.ReadFrame(1);
  ASSERT_TRUE(link.peer.Write(ReplyV1(0x01, 0, {0x44})));
  EXPECT_EQ(q.get().result, Bytes{0x44});
}

TEST(KtcClientDrain, AdaptiveDrainDoesNotWaitAndLiteralDrainAlwaysDoes) {
  Link link(1);
  std::atomic<bool> serving{true};
  std::thread server([&] {
    while (serving.load()) {
      const Bytes req = link.peer.ReadFrame(1, 200ms);
      if (req.size() < 8) continue;
      link.peer.Write(ReplyV1(req[2], 0, {1}));
    }
  });
  const auto timed = [&](int n) {
    const auto start = Clock::now();
    Bytes result;
    for (int i = 0; i < n; ++i) EXPECT_EQ(link.client->QueryCommand({}, result, 0x05), 0);
    return Clock::now() - start;
  };
  timed(1);  // warm-up
  // Adaptive: ten exchanges together take less than ten literal drains would.
  EXPECT_LT(timed(10), 500ms);
  link.client->SetLiteralDrain(true);
  EXPECT_GE(timed(4), 4 * 45ms);
  link.client->SetLiteralDrain(false);
  serving.store(false);
  server.join();
}

TEST(KtcClientConcurrency, TwoThreadsNeverInterleaveOnTheWire) {
  Link link(1);
  std::atomic<bool> serving{true};
  std::atomic<int> malformed{0};
  std::thread server([&] {
    while (serving.load()) {
      const Bytes req = link.peer.ReadFrame(1, 200ms);
      if (req.empty()) continue;
      // A whole frame from one thread: header, then 1000 bytes of that thread's tag.
      bool ok = req.size() == 8 + 1000 && req[0] == 0x47 && req[1] == 0x74;
      for (size_t i = 8; ok && i < req.size(); ++i) ok = req[i] == req[2];
      if (!ok) {
        malformed.fetch_add(1);
        continue;
      }
      link.peer.Write(ReplyV1(req[2], 0, Bytes(500, req[2])));
    }
  });
  const auto worker = [&](uint8_t tag) {
    int good = 0;
    for (int i = 0; i < 40; ++i) {
      Bytes result;
      if (link.client->QueryCommand(Bytes(1000, tag), result, tag) == 0 && result == Bytes(500, tag)) ++good;
    }
    return good;
  };
  auto a = std::async(std::launch::async, worker, uint8_t{0x31});
  auto b = std::async(std::launch::async, worker, uint8_t{0x32});
  EXPECT_EQ(a.get(), 40);
  EXPECT_EQ(b.get(), 40);
  serving.store(false);
  server.join();
  EXPECT_EQ(malformed.load(), 0);
}

namespace {

// Answers every request frame with an empty reply (return code 3 at frame `fail_at`, if
// not 0) and keeps what it received.
class TransferPeer {
 public:
  TransferPeer(Link& link, size_t fail_at = 0) : link_(link), fail_at_(fail_at) {
    thread_ = std::thread([this] {
      while (serving_.load()) {
        const Bytes req = link_.peer.ReadFrame(1, 200ms);
        if (req.size() < 8) continue;
        frames_.push_back(req);
        const uint8_t rc = fail_at_ != 0 && frames_.size() == fail_at_ ? 3 : 0;
        link_.peer.Write(ReplyV1(req[2], rc, {}));
      }
    });
  }
  ~TransferPeer() { Finish(); }
  // Stops serving and hands over the frames received.
  std::vector<Bytes> Finish() {
    serving_.store(false);
    if (thread_.joinable()) thread_.join();
    return frames_;
  }

 private:
  Link& link_;
  const size_t fail_at_;
  std::atomic<bool> serving_{true};
  std::vector<Bytes> frames_;
  std::thread thread_;
};

}  // namespace

TEST(KtcClientTransfer, ByCommandTextPlainAndExtended) {
  Bytes file(2049);
  for (size_t i = 0; i < file.size(); ++i) file[i] = static_cast<uint8_t>(i);
  {
    Link link(1);
    std::atomic<uint32_t> progress{0};
    TransferPeer peer(link);
    std::string text = "0x0A";
    EXPECT_EQ(link.client->TransferFileByCmdText(file, text, progress), 0);
    EXPECT_TRUE(text.empty());
    const std::vector<Bytes> frames = peer.Finish();
    EXPECT_EQ(progress.load(), 3u);
    ASSERT_EQ(frames.size(), 3u);
    // Outer frame: command 0x0A, payload = the inner piece frame (8 + 16 + 1024 bytes).
    EXPECT_EQ(Bytes(frames[0].begin(), frames[0].begin() + 16),
              FromHex("47 74 0a 00 00 00 04 18 47 74 0a 00 00 00 04 10"));
    EXPECT_EQ(Bytes(frames[0].begin() + 16, frames[0].begin() + 28), FromHex("00 00 00 00 00 00 00 01 00 00 00 03"));
    EXPECT_EQ(Bytes(frames[2].begin(), frames[2].begin() + 16),
              FromHex("47 74 0a 00 00 00 00 19 47 74 0a 00 00 00 00 11"));
    EXPECT_EQ(frames[2].back(), file.back());
  }
  {
    Link link(1);
    std::atomic<uint32_t> progress{0};
    TransferPeer peer(link);
    std::string text = "A";
    EXPECT_EQ(link.client->TransferFileByCmdText(file, text, progress), 0);
    EXPECT_TRUE(text.empty());
    const std::vector<Bytes> frames = peer.Finish();
    ASSERT_EQ(frames.size(), 3u);
    // Command 0xFF, then the 4-byte code, then the inner frame (also with 0xFF).
    for (const Bytes& f : frames) EXPECT_EQ(Bytes(f.begin() + 8, f.begin() + 12), FromHex("00 00 00 0a"));
    EXPECT_EQ(Bytes(frames[0].begin(), frames[0].begin() + 20),
              FromHex("47 74 ff 00 00 00 04 1c 00 00 00 0a 47 74 ff 00 00 00 04 10"));
  }
}

TEST(KtcClientTransfer, BadTextThrowsAndAFailedPieceStopsTheTransfer) {
  Link link(1, 400, 400);
  std::atomic<uint32_t> progress{0};
  std::string bad = "xyz";
  try {
    link.client->TransferFileByCmdText({1}, bad, progress);
    ADD_FAILURE() << "no exception";
  } catch (const std::invalid_argument& e) {
    EXPECT_STREQ(e.what(), "invalid stoi argument");
  }
  EXPECT_EQ(bad, "xyz");
  std::string huge = "FFFFFFFFFF";
  try {
    link.client->TransferFileByCmdText({1}, huge, progress);
    ADD_FAILURE() << "no exception";
  } catch (const std::out_of_range& e) {
    EXPECT_STREQ(e.what(), "stoi argument out of range");
  }

  {
    TransferPeer peer(link, 2);
    EXPECT_EQ(link.client->TransferFile(Bytes(3000, 9), 0x0B, false, progress), -1);
    EXPECT_EQ(progress.load(), 2u);
    EXPECT_EQ(link.client->GetLastReturnCode(), 3);
  }
  // The configured time-outs are back: a silent peer ends the next exchange in 400 ms, not 60 s.
  const auto start = Clock::now();
  auto q = link.Query({}, 0x07);
  EXPECT_EQ(q.wait_for(20s), std::future_status::ready);
  EXPECT_EQ(q.get().ret, -1);
  EXPECT_LT(Clock::now() - start, 20s);
}

TEST(KtcClientTransfer, Version2ParserSendsNothing) {
  Link link(2);
  std::atomic<uint32_t> progress{0};
  EXPECT_EQ(link.client->TransferFile(Bytes(5000, 1), 0x0A, false, progress), 0);
  EXPECT_EQ(progress.load(), 0u);
  EXPECT_TRUE(link.peer.ReadAvailable(100ms).empty());
}

TEST(KtcClientConnect, UnopenedClientAndTheConnectThreadsEnds) {
  LogCapture logs;
  {
    // Nothing listens: the connect gives up after its time-out.
    KtcClient client("127.0.0.1", ktc_test::UnusedLoopbackPort(), false, KtcClient::kClientTcp, 1, "", "", "", 500, 500,
                     0.3f);
    ASSERT_TRUE(WaitFor([&] { return logs.Has(kLogWarning, "ktc connect exit 2"); }));
    Bytes result = {1};
    EXPECT_EQ(client.QueryCommand({}, result, 1), -1);
    EXPECT_TRUE(logs.Has(kLogError, "Client is not open, cannot send command."));
    EXPECT_EQ(client.GetLastReturnCode(), 0);
    EXPECT_EQ(result, Bytes{1});
  }
  logs.Clear();
  {
    KtcClient client("", 1, false, KtcClient::kClientTcp, 1, "", "", "", 500, 500, 0.3f);
    ASSERT_TRUE(WaitFor([&] { return logs.Has(kLogWarning, "ktc connect : get lidar ip timeout"); }));
    EXPECT_TRUE(
        logs.Has(kLogWarning, "KtcClient::KtcClient() lidar_ip_ is empty, wait recv could point to get lidar ip"));
  }
  logs.Clear();
  {
    KtcClient client("", 1, false, KtcClient::kClientTcp, 1, "", "", "", 500, 500, -1.0f);
    client.Stop();
    EXPECT_TRUE(logs.Has(kLogWarning, "ktc connect exit 1"));
  }
  logs.Clear();
  {
    // No stream transport for this client type.
    KtcClient client("127.0.0.1", 1, false, 7, 1, "", "", "", 500, 500, 1.0f);
    ASSERT_TRUE(WaitFor([&] { return logs.Has(kLogWarning, "ktc connect exit 2"); }));
    EXPECT_FALSE(client.IsOpen());
  }
}

TEST(KtcClientConnect, AddressFilledInLaterAndTimeoutsApplied) {
  LogCapture logs;
  ScriptedPeer peer;
  KtcClient client("", peer.port(), false, KtcClient::kClientTcp, 1, "", "", "", 1234, 2345, -1.0f);
  EXPECT_FALSE(client.IsOpen());
  client.SetLidarIp("127.0.0.1");
  ASSERT_TRUE(peer.Accept());
  ASSERT_TRUE(WaitFor([&] { return logs.Has(kLogProgress, "ktc connect success"); }));
  EXPECT_TRUE(client.IsOpen());
  EXPECT_EQ(client.GetLidarIp(), "127.0.0.1");
  EXPECT_TRUE(logs.Has(kLogProgress, "KtcClient::KtcClient() 127.0.0.1 " + std::to_string(peer.port())));
  EXPECT_TRUE(logs.Has(kLogProgress, "u32RecvTimeoutMs 1234"));
  EXPECT_TRUE(logs.Has(kLogProgress, "u32SendTimeoutMs 2345"));
  EXPECT_EQ(client.GetSerialFastBaudRate(), 3125000u);
  client.SetSerialFastBaudRate(921600);
  EXPECT_EQ(client.GetSerialFastBaudRate(), 921600u);
}

TEST(KtcClientConnect, TlsClientNeverOpensAgainstAReachableServer) {
  ktc_test::TlsFiles files;
  ktc_test::TlsServer server(files);
  LogCapture logs;
  KtcClient client("127.0.0.1", server.port(), false, KtcClient::kClientTls, 1, files.cert(), files.key(), files.cert(),
                   500, 500, 0.5f);
  ASSERT_TRUE(WaitFor([&] { return logs.Has(kLogWarning, "ktc connect exit 2"); }));
  EXPECT_FALSE(client.IsOpen());
  EXPECT_TRUE(logs.Has(kLogError, "Connect to Server Failed!~!~"));
  server.Join();
  EXPECT_TRUE(server.accepted());
  EXPECT_FALSE(server.handshake_completed());
}
