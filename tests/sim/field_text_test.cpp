// The simulator's own value encoder and decoder against bytes written from the value
// formats. Every type's ordinary values reach the controller's pages in its reading
// tests; these are the edges.

#include <gtest/gtest.h>

#include <tuple>

#include "field_text.h"
#include "sim_test_support.h"

using simtest::FromHex;
using varkel::sim::DecodeValueText;
using varkel::sim::EncodeValueText;

TEST(SimFieldText, TextsAndBytesBothWays) {
  // {type, coefficient, bytes, text that encodes to them ("" = decoding only),
  //  text they decode to ("" = encoding only)}
  const std::tuple<const char*, float, const char*, const char*, const char*> rows[] = {
      {"HWVER", 1, "0002 0001 0000 5245562d43 0000000000", "2.1.0 (REV-C)", "2.1.0 (REV-C)"},
      // Unprintable revision bytes are dropped, an empty revision leaves no brackets.
      {"HWVER", 1, "0003 0000 0007 01000000000000000000", "", "3.0.7"},
      {"SWVER_YMD", 1, "0001 0004 0002 07ea 03 12 000000000000", "1.4.2 (2026-03-18)", "1.4.2 (2026-03-18)"},
      {"DT", 1, "00000e11", "1 h 0 min 1 s", "1 h 0 min 1 s"},
      {"string", 1, "41 42 00 43", "", "AB"},
      {"int64", 1, "FFFFFFFFFFFFFFFB", "-5", "-5"},
      {"uint64", 1, "FFFFFFFFFFFFFFFF", "18446744073709551615", "18446744073709551615"},
      // The sensor is not bound by the program's uint32 write limit.
      {"uint32", 1, "FFFFFFFF", "4294967295", "4294967295"},
      // Shown 12.3 with coefficient 0.1 is raw 123: rounded, not truncated to 122.
      {"uint16", 0.1f, "00 7B", "12.3", "12.30"},
      {"int16", 0.01f, "FB 1E", "-12.5", "-12.50"},
      {"double", 2, "3F F0 00 00 00 00 00 00", "2", "2.00"},
      // Bytes up to 0x10 get a leading zero, so 0x10 shows as "010" and reads back as 0x10.
      {"MAC", 1, "00 10 1A FF 05 A0", "00:010:1A:FF:05:A0", "00:010:1A:FF:05:A0"},
      {"raw", 1, "01 A0 00", "0x01 0xA0", ""},
  };
  for (const auto& [type, coef, hex, text, shown] : rows) {
    SCOPED_TRACE(std::string(type) + " " + hex);
    const auto bytes = FromHex(hex);
    if (*text) EXPECT_EQ(EncodeValueText(type, text, coef, bytes.size()), bytes);
    if (*shown) EXPECT_EQ(DecodeValueText(type, bytes, coef), std::string(shown));
  }
}

TEST(SimFieldText, RefusesWhatDoesNotFitRatherThanCutting) {
  auto refused = [](const char* type, size_t len, std::initializer_list<const char*> texts) {
    for (const char* t : texts) EXPECT_FALSE(EncodeValueText(type, t, 1, len)) << type << " " << t;
  };
  refused("string", 4, {"TOO LONG"});
  refused("SWVER_YMD", 16, {"1.4.2 (2026-13-01)"});
  refused("HWVER", 8, {"2.1.0 (REV-C)"});
  refused("DT", 2, {"70000"});
  refused("uint8", 1, {"256", "-1"});
  refused("int8", 1, {"128"});
  refused("uint16", 2, {"12abc", ""});
  refused("IP", 4, {"192.168.1", "192.168..1", "192.168.1.256"});
  refused("MAC", 6, {"00:10:1A:FF:05:G0"});
  EXPECT_FALSE(DecodeValueText("HWVER", std::vector<uint8_t>(15, 0), 1));
  EXPECT_FALSE(DecodeValueText("SWVER_YMD", std::vector<uint8_t>(17, 0), 1));
  EXPECT_FALSE(DecodeValueText("MAC", FromHex("00 10 1A FF 05"), 1));
  EXPECT_FALSE(DecodeValueText("raw", FromHex("01"), 1));
}
