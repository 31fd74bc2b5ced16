// Frame bytes checked against fixed hex worked out from the frame layout (CRCs computed
// apart from our encoder), in both directions.
#include "serial_frame.h"

#include <gtest/gtest.h>

#include <algorithm>

#include "crc32_mpeg2.h"

#include "test_support.h"

namespace quarn::lidar {
namespace {

using test_support::Hex;

const auto kCommandReply = Hex("24 4c 44 43 4d 44 2c 03 0a 0b 00 00 04 03 02 01 19 7b 5e ed ee ff");
const auto kOtaReply = Hex("24 4c 44 4f 54 41 2c 01 81 00 0d 0c 0b 0a db 3b 9a 0c ee ff");

TEST(SerialFrame, CommandFramesMatchTheTable) {
  // Empty payload: 7 + 1 + 1 + 4 + 4 + 2 = 19 bytes; the CRC covers 6 bytes and 2 zeros.
  EXPECT_EQ(BuildCommandFrame(0x05, {}, 0x12345678), Hex("24 4c 44 43 4d 44 2c 01 05 78 56 34 12 0f 7e 6d db ee ff"));
  EXPECT_EQ(BuildCommandFrame(0x0A, {0x0B, 0x00}, 0xA1B2C3D4),
            Hex("24 4c 44 43 4d 44 2c 03 0a 0b 00 d4 c3 b2 a1 b7 f2 2b 1f ee ff"));
  // The length byte wraps: 255 payload bytes count as 0.
  const auto long_frame = BuildCommandFrame(0x01, std::vector<uint8_t>(255, 0xAA), 0);
  EXPECT_EQ(long_frame.size(), 19u + 255u);
  EXPECT_EQ(long_frame[7], 0x00);
}

TEST(SerialFrame, FreshNoncesMakeTwoFramesOfOneCommandDiffer) {
  const auto a = BuildCommandFrame(0x07, {1, 2}, FreshNonce());
  const auto b = BuildCommandFrame(0x07, {1, 2}, FreshNonce());
  ASSERT_EQ(a.size(), b.size());
  EXPECT_TRUE(std::equal(a.begin(), a.begin() + 11, b.begin()));
  EXPECT_FALSE(std::equal(a.begin() + 11, a.begin() + 15, b.begin() + 11)) << "nonce";
  EXPECT_FALSE(std::equal(a.begin() + 15, a.begin() + 19, b.begin() + 15)) << "CRC";
}

TEST(SerialFrame, OtaFrameIsBigEndianWithCrcMostSignificantFirst) {
  const uint8_t data[] = {0xDE, 0xAD, 0xBE, 0xEF, 0x01};
  EXPECT_EQ(BuildOtaFrame(0x02, 1, 0x400, data, sizeof(data)),
            Hex("24 4c 44 4f 54 41 2c 00 00 00 02 00 00 00 01 00 00 04 00 00 00 00 05 de ad be ef 01 "
                "5a 01 a8 18 ee ff"));
  EXPECT_EQ(BuildOtaFrame(0x09, 0, 0, nullptr, 0).size(), 29u);
}

TEST(SerialFrame, GoodRepliesPassAndGiveTheirBody) {
  std::vector<uint8_t> body;
  ASSERT_TRUE(CheckReply(kReplyCheckCommand, kCommandReply, body));
  EXPECT_EQ(body, Hex("03 0a 0b 00 00"));
  ASSERT_TRUE(CheckReply(kReplyCheckOta, kOtaReply, body));
  EXPECT_EQ(body, Hex("01 81 00"));
  // Each kind reads the CRC in its own byte order only.
  EXPECT_FALSE(CheckReply(kReplyCheckOta, kCommandReply, body));
  EXPECT_FALSE(CheckReply(kReplyCheckCommand, kOtaReply, body));
  EXPECT_TRUE(body.empty());
  EXPECT_FALSE(CheckReply(3, kCommandReply, body));
}

TEST(SerialFrame, MalformedRepliesFail) {
  std::vector<uint8_t> body;
  // 18 bytes: one short of the smallest frame, even with a trailer.
  std::vector<uint8_t> short_reply(kOtaReply.begin(), kOtaReply.begin() + 16);
  short_reply.push_back(0xEE);
  short_reply.push_back(0xFF);
  ASSERT_EQ(short_reply.size(), 18u);
  EXPECT_FALSE(CheckReply(kReplyCheckOta, short_reply, body));

  auto wrong_trailer = kCommandReply;
  wrong_trailer.back() = 0xFE;
  EXPECT_FALSE(CheckReply(kReplyCheckCommand, wrong_trailer, body));

  auto bad_crc = kCommandReply;
  bad_crc[10] ^= 0x01;
  EXPECT_FALSE(CheckReply(kReplyCheckCommand, bad_crc, body));
}

TEST(SerialFrame, ReplyLengthByteCountsOnlyBytesAfterTheCommand) {
  std::vector<uint8_t> body;
  // Same body as kCommandReply but with the request's rule (command counted too), CRC valid.
  const auto counted_cmd = Hex("24 4c 44 43 4d 44 2c 04 0a 0b 00 00 04 03 02 01 00 00 00 00 ee ff");
  auto fixed = counted_cmd;
  const uint32_t crc = Crc32Mpeg2ZeroPadded4(&fixed[7], fixed.size() - 13);
  for (int i = 0; i < 4; ++i) fixed[16 + i] = static_cast<uint8_t>(crc >> (8 * i));
  EXPECT_FALSE(CheckReply(kReplyCheckCommand, fixed, body));
  // A request frame is one such frame: it never passes as a reply.
  EXPECT_FALSE(CheckReply(kReplyCheckCommand, BuildCommandFrame(0x0A, {0x0B, 0x00}, 1), body));
}

}  // namespace
}  // namespace quarn::lidar
