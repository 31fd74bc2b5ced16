// Frames, decodes and the file stream; command texts; field-of-view payloads.
#include "ktc_parser.h"

#include <gtest/gtest.h>

#include <limits>

#include "crc32_mpeg2.h"
#include "ktc_command_text.h"
#include "ktc_fov.h"
#include "test_support.h"

using namespace quarn::lidar;
using namespace ktc_test;

TEST(KtcParserFrames, GoldenRequestFramesOfBothVersions) {
  Bytes ramp(300);
  for (size_t i = 0; i < ramp.size(); ++i) ramp[i] = static_cast<uint8_t>(i);
  using Row = std::tuple<uint8_t, Bytes, uint8_t, const char*>;  // version, payload, command, header
  for (const auto& [version, payload, cmd, header] :
       {Row{1, {}, 0x01, "47 74 01 00 00 00 00 00"}, Row{2, {}, 0x01, "57 75 01 01 00 00 00 00 00 00 00 00"},
        Row{2, {0xAA, 0xBB}, 0xFE, "57 75 01 fe 00 00 00 00 00 00 00 02"},  // byte 2 stays the protocol byte
        Row{1, ramp, 0x22, "47 74 22 00 00 00 01 2c"}}) {
    SCOPED_TRACE(header);
    KtcParser parser(version);
    Bytes frame = {9};  // replaced, not appended to
    ASSERT_TRUE(parser.KtcStreamEncode(payload, frame, cmd));
    Bytes expected = FromHex(header);
    expected.insert(expected.end(), payload.begin(), payload.end());
    EXPECT_EQ(frame, expected);
    EXPECT_EQ(parser.parser()->GetHeaderSize(), version == 1 ? 8u : 12u);
  }
  Bytes self = {0x10, 0x20};
  ASSERT_TRUE(Ktc_1_0_parser().KtcStreamEncode(self, self, 0x05));
  EXPECT_EQ(self, FromHex("47 74 05 00 00 00 00 02 10 20"));
  EXPECT_EQ(KtcParser(3).parser(), nullptr);  // an unknown version holds no parser
}

TEST(KtcParserDecode, Version1TakesARangeAndRefusesOneOutsideTheInput) {
  const Bytes in = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10}, ee = {0xEE};
  // offset, length, result, output (starting from {0xEE}); sums that wrap are refused too.
  using Row = std::tuple<int32_t, int32_t, bool, Bytes>;
  for (const auto& [offset, length, ok, expected] :
       {Row{8, 2, true, {9, 10}}, Row{10, 0, true, {}}, Row{8, 4, false, ee}, Row{-2, 4, false, ee},
        Row{2, -1, false, ee}, Row{INT32_MAX, 2, false, ee}}) {
    Bytes out = ee;
    EXPECT_EQ(Ktc_1_0_parser().KtcStreamDecode(0, 0, in, offset, length, out), ok) << offset << " " << length;
    EXPECT_EQ(out, expected) << offset << " " << length;
  }
  Bytes same = {4, 5, 6};  // input and output may be one vector
  EXPECT_TRUE(Ktc_1_0_parser().KtcStreamDecode(0, 0, same, 1, 2, same));
  EXPECT_EQ(same, (Bytes{5, 6}));
}

TEST(KtcFileStream, PieceLayoutAndCrc) {
  Ktc_1_0_parser v1;
  std::vector<Bytes> frames;
  // The nine digits: one piece whose CRC field is the standard check value 0x0376E6E7.
  ASSERT_TRUE(v1.KtcFilestreamSend({'1', '2', '3', '4', '5', '6', '7', '8', '9'}, 0x0A, frames));
  ASSERT_EQ(frames.size(), 1u);
  EXPECT_EQ(frames[0], FromHex("47 74 0a 00 00 00 00 19 00 00 00 00 00 00 00 01 00 00 00 01 03 76 e6 e7"
                               "31 32 33 34 35 36 37 38 39"));

  // 2049 bytes: pieces 1, 2, 3 of 3, the last with one data byte.
  Bytes file(2049);
  for (size_t i = 0; i < file.size(); ++i) file[i] = static_cast<uint8_t>(i * 7 + 3);
  frames.clear();
  ASSERT_TRUE(v1.KtcFilestreamSend(file, 0x0A, frames));
  ASSERT_EQ(frames.size(), 3u);
  const char* headers[] = {"47 74 0a 00 00 00 04 10 00 00 00 00 00 00 00 01 00 00 00 03",
                           "47 74 0a 00 00 00 04 10 00 00 00 00 00 00 00 02 00 00 00 03",
                           "47 74 0a 00 00 00 00 11 00 00 00 00 00 00 00 03 00 00 00 03"};
  for (size_t k = 0; k < 3; ++k) {
    const Bytes data(file.begin() + static_cast<long>(k * 1024), file.begin() + std::min<long>((k + 1) * 1024, 2049));
    const uint32_t crc = Crc32Mpeg2(data);
    Bytes expected = FromHex(headers[k]);
    for (int shift : {24, 16, 8, 0}) expected.push_back(static_cast<uint8_t>(crc >> shift));
    expected.insert(expected.end(), data.begin(), data.end());
    EXPECT_EQ(frames[k], expected) << k;
  }

  // Exactly one full piece; an empty file gives none; version 2.0 produces nothing at all.
  frames.clear();
  ASSERT_TRUE(v1.KtcFilestreamSend(Bytes(1024, 0x55), 1, frames));
  ASSERT_TRUE(v1.KtcFilestreamSend({}, 1, frames) && Ktc_2_0_parser().KtcFilestreamSend(Bytes(5000, 1), 1, frames));
  ASSERT_EQ(frames.size(), 1u);
  EXPECT_EQ(frames[0].size(), 8u + 16 + 1024);
}

TEST(KtcCommandText, TableTextsUseAutomaticBaseTypedTextsHexadecimal) {
  struct Row {
    const char* text;
    std::string table;  // automatic base
    std::string typed;  // hexadecimal
  };
  const std::string refused = "refused 33 plain 33";  // an error text, and the output as it was
  // clang-format off
  std::vector<Row> rows = {
      {"0x21", "21 plain 21", "21 plain 21"},
      {"21", "15 plain 15", "21 plain 21"},
      {"010", "8 plain 8", "10 plain 10"},
      {"0", "0 plain 0", "0 plain 0"},
      {"0X0a", "a plain a", "a plain a"},
      {"255", "ff plain ff", "55 plain 255"},
      {"300", "2c plain 12c", "0 plain 300"},  // the low byte is the command
      {"A", refused, "a plain a"},
      {"1A5", refused, "a5 plain 1a5"},
      {"08", refused, "8 plain 8"},
      {"0x1A05", "ff extended 1a05", "ff extended 1a05"},
      {"  0x1a05 ", "ff extended 1a05", "ff extended 1a05"},
      {"00021", "ff extended 21", "ff extended 21"},  // five characters: extended, hexadecimal
      {"0xFFFFFFFF", "ff extended ffffffff", "ff extended ffffffff"},
      {"0x000000001", "ff extended 1", "ff extended 1"}};
  // clang-format on
  for (const char* bad : {"", "   ", "0x", "0xG1", "12 34", "-1", "0x100000000", "zz"})
    rows.push_back({bad, refused, refused});
  for (const Row& row : rows) {
    for (auto base : {CommandTextBase::kAuto, CommandTextBase::kHex}) {
      KtcCommandText out{0x33, false, 0x33};
      std::string error;
      const bool ok = ParseKtcCommandText(row.text, out, &error, base);
      char got[64];
      std::snprintf(got, sizeof(got), "%s%x %s %x", ok ? "" : "refused ", out.cmd, out.extended ? "extended" : "plain",
                    out.code);
      EXPECT_EQ(got, base == CommandTextBase::kAuto ? row.table : row.typed) << "'" << row.text << "'";
      EXPECT_EQ(error.empty(), ok) << row.text;
    }
  }
  EXPECT_EQ(BuildCommandPayload({0xFF, true, 0x00011A05}, {1, 2}), (Bytes{0x00, 0x01, 0x1A, 0x05, 1, 2}));
  EXPECT_EQ(BuildCommandPayload({0x21, false, 0x21}, {1, 2}), (Bytes{1, 2}));
}

TEST(KtcFov, ReadReplyAndWritePayload) {
  // Channel 3; start 0, 45, 90.5, 180, 359.99; end 10, 50, 100, 360, 0.01 (hundredths of a degree).
  const Bytes good = FromHex("03 00 00 11 94 23 5a 46 50 8c 9f 03 e8 13 88 27 10 8c a0 00 01");
  MultiFovConfig fov;
  ASSERT_TRUE(DecodeMultiFov(good, fov));
  EXPECT_EQ(fov.channel, 3);
  const float start[] = {0, 45, 90.5f, 180, 359.99f}, end[] = {10, 50, 100, 360, 0.01f};
  for (size_t i = 0; i < kFovRanges; ++i) {
    EXPECT_FLOAT_EQ(fov.start[i], start[i]) << i;
    EXPECT_FLOAT_EQ(fov.end[i], end[i]) << i;
  }
  const Bytes too_wide = FromHex("03 00 00 8c a1 23 5a 46 50 8c 9f 03 e8 13 88 27 10 8c a0 00 01");  // start 2 = 36001
  for (const Bytes& reply : {Bytes{}, Bytes(good.begin(), good.end() - 1), Bytes(22, 0), too_wide}) {
    MultiFovConfig untouched;
    untouched.channel = 9;
    std::string error;
    EXPECT_FALSE(DecodeMultiFov(reply, untouched, &error)) << reply.size();
    EXPECT_FALSE(error.empty());
    EXPECT_EQ(untouched.channel, 9);  // nothing half-filled
  }

  Bytes payload;
  ASSERT_TRUE(EncodeChannelFov(2, {0.0f, 90.5f, 180.0f, 359.99f, 360.0f}, payload));
  EXPECT_EQ(payload, FromHex("02 00 00 23 5a 46 50 8c 9f 8c a0"));
  for (float bad : {-0.01f, 360.01f, std::numeric_limits<float>::quiet_NaN(), std::numeric_limits<float>::infinity()}) {
    payload = {0xAA};
    EXPECT_FALSE(EncodeChannelFov(1, {10.0f, bad, 20.0f, 30.0f, 40.0f}, payload)) << bad;
    EXPECT_EQ(payload, Bytes{0xAA});
  }
}
