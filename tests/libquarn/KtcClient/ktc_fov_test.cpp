// The field-of-view payloads: the read reply (0x23) and the channel write (0x22), and the
// replies and values that must not be taken. The exchanges themselves are QueryCommand's.

#include "ktc_fov.h"

#include <gtest/gtest.h>

#include <limits>

#include "scripted_peer.h"

using namespace quarn::lidar;
using ktc_test::Bytes;
using ktc_test::FromHex;

namespace {

// start 0, 45, 90.5, 180, 359.99; end 10, 50, 100, 360, 0.01; channel 3.
const char kReplyHex[] = "03 00 00 11 94 23 5a 46 50 8c 9f 03 e8 13 88 27 10 8c a0 00 01";

}  // namespace

TEST(KtcFov, ReadReplyGivesChannelAndTenAnglesOrNothing) {
  MultiFovConfig fov;
  ASSERT_TRUE(DecodeMultiFov(FromHex(kReplyHex), fov));
  EXPECT_EQ(fov.channel, 3);
  const float start[] = {0, 45, 90.5f, 180, 359.99f}, end[] = {10, 50, 100, 360, 0.01f};
  for (size_t i = 0; i < kFovRanges; ++i) {
    EXPECT_FLOAT_EQ(fov.start[i], start[i]) << i;
    EXPECT_FLOAT_EQ(fov.end[i], end[i]) << i;
  }

  const Bytes good = FromHex(kReplyHex);
  Bytes too_wide = good;  // start 2 = 36001
  too_wide[3] = 0x8c;
  too_wide[4] = 0xa1;
  for (const Bytes& reply : {Bytes{}, Bytes(good.begin(), good.end() - 1), Bytes(22, 0), too_wide}) {
    MultiFovConfig untouched;
    untouched.channel = 9;
    std::string error;
    EXPECT_FALSE(DecodeMultiFov(reply, untouched, &error)) << reply.size();
    EXPECT_FALSE(error.empty());
    EXPECT_EQ(untouched.channel, 9);  // nothing half-filled
  }
}

TEST(KtcFov, WritePayloadIsChannelAndFiveHundredthsOfADegree) {
  Bytes payload;
  ASSERT_TRUE(EncodeChannelFov(2, {0.0f, 90.5f, 180.0f, 359.99f, 360.0f}, payload));
  EXPECT_EQ(payload, FromHex("02 00 00 23 5a 46 50 8c 9f 8c a0"));

  for (float bad : {-0.01f, 360.01f, std::numeric_limits<float>::quiet_NaN(), std::numeric_limits<float>::infinity()}) {
    payload = {0xAA};
    EXPECT_FALSE(EncodeChannelFov(1, {10.0f, bad, 20.0f, 30.0f, 40.0f}, payload)) << bad;
    EXPECT_EQ(payload, Bytes{0xAA});
  }
}
