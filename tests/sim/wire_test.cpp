// The sensor's frame code against fixed frames written from the protocol tables (the
// CRCs were worked out apart from the project's CRC code), and the reassembly of files.

#include <gtest/gtest.h>

#include "failure_mode.h"
#include "file_receiver.h"
#include "ktc_wire.h"
#include "serial_wire.h"
#include "sim_test_support.h"

using simtest::Hex;
using namespace varkel::sim;

TEST(SimKtcWire, RequestsAreCutOutOfTheStreamWhateverPrecedesOrSplitsThem) {
  KtcRequestReader v1(1);
  // Noise (including a lone 'G'), then two requests, the second split across feeds.
  const auto stream = Hex("00 47 13 47 74 03 00 00 00 00 00 47 74 05 00 00 00 00 02 07 09");
  v1.Feed(stream.data(), 15);
  auto a = v1.Next();
  ASSERT_TRUE(a);
  EXPECT_EQ(a->cmd, 0x03);
  EXPECT_TRUE(a->payload.empty());
  EXPECT_EQ(a->frame, Hex("47 74 03 00 00 00 00 00"));
  EXPECT_FALSE(v1.Next());
  v1.Feed(stream.data() + 15, stream.size() - 15);
  auto b = v1.Next();
  ASSERT_TRUE(b);
  EXPECT_EQ(b->cmd, 0x05);
  EXPECT_EQ(b->payload, Hex("07 09"));
  EXPECT_EQ(v1.discarded(), 3u);

  KtcRequestReader v2(2);
  const auto req = Hex("57 75 01 FF 00 00 00 00 00 00 00 04 00 00 1A 05");
  // A version-1 header is noise to a version-2 sensor.
  const auto v1frame = Hex("47 74 03 00 00 00 00 00");
  v2.Feed(v1frame.data(), v1frame.size());
  v2.Feed(req.data(), req.size());
  auto c = v2.Next();
  ASSERT_TRUE(c);
  EXPECT_EQ(c->cmd, 0xFF);
  EXPECT_EQ(c->payload, Hex("00 00 1A 05"));

  KtcRequestReader huge(1);
  const auto liar = Hex("47 74 03 00 7F FF FF FF");
  huge.Feed(liar.data(), liar.size());
  EXPECT_FALSE(huge.Next());
  EXPECT_TRUE(huge.broken());
}

TEST(SimKtcWire, RepliesAndShapedRepliesHaveTheTablesBytes) {
  EXPECT_EQ(BuildKtcReply(1, 0x05, 0, Hex("07 09")), Hex("47 74 05 00 00 00 00 02 07 09"));
  EXPECT_EQ(BuildKtcReply(2, 0x05, 0x21, {}), Hex("57 75 01 05 21 00 00 00 00 00 00 00"));

  const auto frame = BuildKtcReply(1, 0x03, 0, Hex("0A 0B 0C 0D"));
  auto one = [&](FailureMode m, int p) {
    auto steps = ShapeReply(1, frame, m, p);
    EXPECT_EQ(steps.size(), 1u);
    return steps.empty() ? std::vector<uint8_t>() : steps[0].bytes;
  };
  EXPECT_EQ(one(FailureMode::kReturnCode, 5), Hex("47 74 03 05 00 00 00 04 0A 0B 0C 0D"));
  EXPECT_EQ(one(FailureMode::kWrongEchoCmd, 0), Hex("47 74 04 00 00 00 00 04 0A 0B 0C 0D"));
  EXPECT_EQ(one(FailureMode::kWrongIdentifiers, 0), Hex("57 75 03 00 00 00 00 04 0A 0B 0C 0D"));
  EXPECT_EQ(one(FailureMode::kLyingLength, 16), Hex("47 74 03 00 00 00 00 14 0A 0B 0C 0D"));
  EXPECT_EQ(one(FailureMode::kNoiseBeforeHeader, 3), Hex("10 11 12 47 74 03 00 00 00 00 04 0A 0B 0C 0D"));
  EXPECT_TRUE(ShapeReply(1, frame, FailureMode::kNoReply, 0).empty());

  auto trunc = ShapeReply(1, frame, FailureMode::kTruncatedPayload, 0);
  ASSERT_EQ(trunc.size(), 1u);
  EXPECT_EQ(trunc[0].bytes, Hex("47 74 03 00 00 00 00 04 0A 0B"));
  EXPECT_EQ(trunc[0].after, WriteStep::After::kClose);

  auto reset = ShapeReply(2, BuildKtcReply(2, 3, 0, {}), FailureMode::kResetMidReply, 0);
  ASSERT_EQ(reset.size(), 1u);
  EXPECT_EQ(reset[0].bytes, Hex("57 75 01 03 00 00"));
  EXPECT_EQ(reset[0].after, WriteStep::After::kReset);

  auto split = ShapeReply(1, frame, FailureMode::kSplitHeader, 3);
  ASSERT_EQ(split.size(), 2u);
  EXPECT_EQ(split[0].bytes, Hex("47 74 03"));
  EXPECT_EQ(split[1].bytes, Hex("00 00 00 00 04 0A 0B 0C 0D"));

  // The identifiers travel together (a single byte would be dropped by the reader), the
  // rest one byte at a time.
  auto drip = ShapeReply(1, frame, FailureMode::kSlowDrip, 7);
  ASSERT_EQ(drip.size(), frame.size() - 1);
  EXPECT_EQ(drip[0].bytes, Hex("47 74"));
  EXPECT_EQ(drip[1].delay_ms, 7);
  EXPECT_EQ(drip.back().bytes, Hex("0D"));
}

TEST(SimSerialWire, RequestsParseAndRepliesMatchFixedFrames) {
  SerialRequestReader r;
  const auto get_version =
      Hex("24 4c 44 43 4d 44 2c 1c 02 0f 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 "
          "44 33 22 11 32 69 5a db ee ff");
  const auto set_spin = Hex("24 4c 44 43 4d 44 2c 03 03 0a 2c d4 c3 b2 a1 12 69 15 5a ee ff");
  const auto ota =
      Hex("24 4c 44 4f 54 41 2c 00 00 00 81 00 00 00 01 00 00 00 02 00 00 00 05 de ad be ef 01 "
          "a7 5c 2e 8c ee ff");
  auto corrupt = set_spin;
  corrupt[10] ^= 1;
  std::vector<uint8_t> stream = Hex("55 24 4c");
  for (const auto& f : std::vector<std::vector<uint8_t>>{get_version, corrupt, set_spin, ota})
    stream.insert(stream.end(), f.begin(), f.end());
  r.Feed(stream.data(), stream.size());

  auto a = r.Next();
  ASSERT_TRUE(a);
  EXPECT_FALSE(a->ota);
  EXPECT_EQ(a->cmd, 2);
  ASSERT_EQ(a->payload.size(), 27u);
  EXPECT_EQ(a->payload[0], 15);
  auto b = r.Next();  // the corrupted frame is skipped
  ASSERT_TRUE(b);
  EXPECT_EQ(b->cmd, 3);
  EXPECT_EQ(b->payload, Hex("0a 2c"));
  auto c = r.Next();
  ASSERT_TRUE(c);
  EXPECT_TRUE(c->ota);
  EXPECT_EQ(c->cmd, 0x81);
  EXPECT_EQ(c->value1, 1u);
  EXPECT_EQ(c->value2, 2u);
  EXPECT_EQ(c->payload, Hex("de ad be ef 01"));
  EXPECT_FALSE(r.Next());
  EXPECT_EQ(r.rejected(), 1u);

  EXPECT_EQ(BuildSerialCommandReply(3, Hex("0a 2c 00"), 0x5EED0002),
            Hex("24 4c 44 43 4d 44 2c 03 03 0a 2c 00 02 00 ed 5e ba 01 dc c7 ee ff"));
  EXPECT_EQ(BuildSerialOtaReply(0x81, Hex("00"), 0x5EED0002),
            Hex("24 4c 44 4f 54 41 2c 01 81 00 02 00 ed 5e 55 a6 ad 55 ee ff"));
}

namespace {

std::vector<uint8_t> Piece(uint32_t k, uint32_t total, const std::vector<uint8_t>& data, uint32_t crc) {
  std::vector<uint8_t> p(16, 0);
  WriteU32BE(p.data() + 4, k);
  WriteU32BE(p.data() + 8, total);
  WriteU32BE(p.data() + 12, crc);
  p.insert(p.end(), data.begin(), data.end());
  return p;
}

}  // namespace

TEST(SimFileReceiver, ReassemblesInOrderAndRefusesBadPieces) {
  const uint32_t kCrcAbc = 0x9B73448C;  // CRC-32/MPEG-2 of "abc"
  const std::vector<uint8_t> abc{'a', 'b', 'c'};
  FileReceiver fr;
  auto p = Piece(1, 1, abc, kCrcAbc);
  EXPECT_EQ(fr.OnPiece(p.data(), p.size()), FileReceiver::Result::kCompleted);
  ASSERT_TRUE(fr.last());
  EXPECT_TRUE(fr.last()->ok);
  EXPECT_EQ(fr.last()->length, 3u);
  EXPECT_EQ(fr.last()->sha256_hex, "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");

  p = Piece(1, 1, abc, kCrcAbc ^ 1);
  EXPECT_EQ(fr.OnPiece(p.data(), p.size()), FileReceiver::Result::kBadCrc);

  // Two-piece file: a short first piece, a skipped number and a changed total are refused.
  p = Piece(1, 2, abc, kCrcAbc);
  EXPECT_EQ(fr.OnPiece(p.data(), p.size()), FileReceiver::Result::kMalformed);
  EXPECT_FALSE(fr.last()->ok);
  p = Piece(2, 2, abc, kCrcAbc);
  EXPECT_EQ(fr.OnPiece(p.data(), p.size()), FileReceiver::Result::kBadNumber);
  p = Piece(0, 1, abc, kCrcAbc);
  p[3] = 1;  // reserved field not zero
  EXPECT_EQ(fr.OnPiece(p.data(), p.size()), FileReceiver::Result::kMalformed);
}
