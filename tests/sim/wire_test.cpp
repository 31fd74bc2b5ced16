// The sensor's frame code against fixed frames written from the protocol tables (the
// CRCs were worked out apart from the project's CRC code), and the reassembly of files.

#include <gtest/gtest.h>

#include <tuple>

#include "command_key.h"
#include "failure_mode.h"
#include "file_receiver.h"
#include "ktc_wire.h"
#include "serial_wire.h"
#include "sim_test_support.h"

using simtest::FromHex;
using namespace varkel::sim;

using Cuts = std::vector<std::pair<int, std::vector<uint8_t>>>;

// Feeds a stream one byte at a time, so that every split point is met; returns the
// {command, payload} of each request cut out.
Cuts Cut(KtcRequestReader& reader, const std::string& hex) {
  Cuts out;
  for (uint8_t b : FromHex(hex)) {
    reader.Feed(&b, 1);
    while (auto q = reader.Next()) out.push_back({q->cmd, q->payload});
  }
  return out;
}

TEST(SimKtcWire, RequestsAreCutOutOfTheStreamWhateverPrecedesOrSplitsThem) {
  // Noise (including a lone 'G'), then two requests.
  KtcRequestReader v1(1);
  EXPECT_EQ(Cut(v1, "00 47 13  47 74 03 00 00 00 00 00  47 74 05 00 00 00 00 02 07 09"),
            (Cuts{{0x03, {}}, {0x05, FromHex("07 09")}}));
  EXPECT_EQ(v1.discarded(), 3u);
  // A version-1 header is noise to a version-2 sensor.
  KtcRequestReader v2(2);
  EXPECT_EQ(Cut(v2, "47 74 03 00 00 00 00 00  57 75 01 FF 00000000 00000004 00001A05"),
            (Cuts{{0xFF, FromHex("00 00 1A 05")}}));
  // A length no sensor would send breaks the stream rather than being waited for.
  KtcRequestReader huge(1);
  EXPECT_TRUE(Cut(huge, "47 74 03 00 7F FF FF FF").empty());
  EXPECT_TRUE(huge.broken());
}

// A shaped reply as hex: " | " between writes, then "+close" or "+reset" if it ends so.
std::string Writes(const std::vector<WriteStep>& steps) {
  std::string out;
  char b[4];
  for (const auto& step : steps) {
    if (!out.empty()) out += " | ";
    for (size_t i = 0; i < step.bytes.size(); ++i) {
      std::snprintf(b, sizeof(b), i ? " %02X" : "%02X", step.bytes[i]);
      out += b;
    }
  }
  if (!steps.empty() && steps.back().after != WriteStep::After::kNothing)
    out += steps.back().after == WriteStep::After::kClose ? " +close" : " +reset";
  return out;
}

TEST(SimKtcWire, RepliesAndShapedRepliesHaveTheTablesBytes) {
  EXPECT_EQ(BuildKtcReply(1, 0x05, 0, FromHex("07 09")), FromHex("47 74 05 00 00 00 00 02 07 09"));
  EXPECT_EQ(BuildKtcReply(2, 0x05, 0x21, {}), FromHex("57 75 01 05 21 00 00 00 00 00 00 00"));

  const auto frame = BuildKtcReply(1, 0x03, 0, FromHex("0A 0B 0C 0D"));
  auto shaped = [&](FailureMode mode, int param) { return Writes(ShapeReply(1, frame, mode, param)); };
  EXPECT_EQ(shaped(FailureMode::kReturnCode, 5), "47 74 03 05 00 00 00 04 0A 0B 0C 0D");
  EXPECT_EQ(shaped(FailureMode::kWrongEchoCmd, 0), "47 74 04 00 00 00 00 04 0A 0B 0C 0D");
  EXPECT_EQ(shaped(FailureMode::kWrongIdentifiers, 0), "57 75 03 00 00 00 00 04 0A 0B 0C 0D");
  EXPECT_EQ(shaped(FailureMode::kLyingLength, 16), "47 74 03 00 00 00 00 14 0A 0B 0C 0D");
  EXPECT_EQ(shaped(FailureMode::kNoiseBeforeHeader, 3), "10 11 12 47 74 03 00 00 00 00 04 0A 0B 0C 0D");
  EXPECT_EQ(shaped(FailureMode::kNoReply, 0), "");
  EXPECT_EQ(shaped(FailureMode::kTruncatedPayload, 0), "47 74 03 00 00 00 00 04 0A 0B +close");
  EXPECT_EQ(Writes(ShapeReply(2, BuildKtcReply(2, 3, 0, {}), FailureMode::kResetMidReply, 0)),
            "57 75 01 03 00 00 +reset");
  EXPECT_EQ(shaped(FailureMode::kSplitHeader, 3), "47 74 03 | 00 00 00 00 04 0A 0B 0C 0D");
  // The identifiers travel together (a single byte would be dropped by the reader), the
  // rest one byte at a time.
  EXPECT_EQ(shaped(FailureMode::kSlowDrip, 7), "47 74 | 03 | 00 | 00 | 00 | 00 | 04 | 0A | 0B | 0C | 0D");
  EXPECT_EQ(ShapeReply(1, frame, FailureMode::kSlowDrip, 7)[1].delay_ms, 7);
}

TEST(SimSerialWire, RequestsParseAndRepliesMatchFixedFrames) {
  SerialRequestReader r;
  // Noise, get version (item 15), a set spin rate with one byte changed, the same set
  // intact, and an OTA frame.
  const auto stream = FromHex(
      "55 24 4c"
      "24 4c 44 43 4d 44 2c 1c 02 0f 00000000 00000000 00000000 00000000 00000000 00000000 0000"
      "44 33 22 11 32 69 5a db ee ff"
      "24 4c 44 43 4d 44 2c 03 03 0a 2d d4 c3 b2 a1 12 69 15 5a ee ff"
      "24 4c 44 43 4d 44 2c 03 03 0a 2c d4 c3 b2 a1 12 69 15 5a ee ff"
      "24 4c 44 4f 54 41 2c 00 00 00 81 00 00 00 01 00 00 00 02 00 00 00 05 de ad be ef 01 a7 5c 2e 8c ee ff");
  r.Feed(stream.data(), stream.size());

  // {ota, command, value1, value2, payload} of each request; the changed frame is skipped.
  using Fields = std::tuple<bool, int, uint32_t, uint32_t, std::vector<uint8_t>>;
  std::vector<Fields> got;
  while (auto q = r.Next()) got.emplace_back(q->ota, q->cmd, q->value1, q->value2, q->payload);
  std::vector<uint8_t> version(27, 0);
  version[0] = 15;
  EXPECT_EQ(got, (std::vector<Fields>{{false, 2, 0, 0, version},
                                      {false, 3, 0, 0, FromHex("0a 2c")},
                                      {true, 0x81, 1, 2, FromHex("de ad be ef 01")}}));
  EXPECT_EQ(r.rejected(), 1u);

  EXPECT_EQ(BuildSerialCommandReply(3, FromHex("0a 2c 00"), 0x5EED0002),
            FromHex("24 4c 44 43 4d 44 2c 03 03 0a 2c 00 02 00 ed 5e ba 01 dc c7 ee ff"));
  EXPECT_EQ(BuildSerialOtaReply(0x81, FromHex("00"), 0x5EED0002),
            FromHex("24 4c 44 4f 54 41 2c 01 81 00 02 00 ed 5e 55 a6 ad 55 ee ff"));
}

// Pieces are 4 reserved bytes, number, total, CRC-32/MPEG-2 of the data, then the data.
// A whole file and a bad CRC are covered end to end in the KTC contract test.
TEST(SimFileReceiver, RefusesShortPiecesSkippedNumbersAndReservedBits) {
  FileReceiver fr;
  auto p = FromHex("00000000 00000001 00000002 9b73448c 616263");  // a first piece too short for two
  EXPECT_EQ(fr.OnPiece(p.data(), p.size()), FileReceiver::Result::kMalformed);
  ASSERT_TRUE(fr.last());
  EXPECT_FALSE(fr.last()->ok);
  p = FromHex("00000000 00000002 00000002 9b73448c 616263");
  EXPECT_EQ(fr.OnPiece(p.data(), p.size()), FileReceiver::Result::kBadNumber);
  p = FromHex("00000001 00000001 00000001 9b73448c 616263");
  EXPECT_EQ(fr.OnPiece(p.data(), p.size()), FileReceiver::Result::kMalformed);
  p[3] = 0;  // the same piece is taken once the reserved field is zero
  EXPECT_EQ(fr.OnPiece(p.data(), p.size()), FileReceiver::Result::kCompleted);
  EXPECT_EQ(fr.last()->length, 3u);
}

TEST(SimCommandText, TableTextsInAutomaticBaseExtendedInHexadecimal) {
  struct Row {
    const char* text;
    bool ok, extended;
    uint32_t code;
  };
  const Row rows[] = {{"0x21", true, false, 0x21},     {"21", true, false, 21},     {"010", true, false, 8},
                      {"0", true, false, 0},           {"300", true, false, 0x2C},  {"0X1a", true, false, 0x1A},
                      {"0x1A05", true, true, 0x1A05},  {"00021", true, true, 0x21}, {"A", false, false, 0},
                      {"09", false, false, 0},         {"0x", false, false, 0},     {"", false, false, 0},
                      {"0x1FFFFFFFF", false, false, 0}};
  for (const Row& row : rows) {
    const auto key = ParseCommandText(row.text);
    ASSERT_EQ(key.has_value(), row.ok) << row.text;
    if (!key) continue;
    EXPECT_EQ(key->extended, row.extended) << row.text;
    EXPECT_EQ(key->code, row.code) << row.text;
  }
}
