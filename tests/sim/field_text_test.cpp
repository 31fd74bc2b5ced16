// The simulator's own value encoder and decoder: display text <-> field bytes.

#include <gtest/gtest.h>

#include "field_text.h"
#include "sim_test_support.h"

using simtest::Hex;
using varkel::sim::DecodeValueText;
using varkel::sim::EncodeValueText;

namespace {

std::vector<uint8_t> Enc(const std::string& type, const std::string& text, float coef, size_t len) {
  auto b = EncodeValueText(type, text, coef, len);
  return b ? *b : std::vector<uint8_t>{0xDE, 0xAD};
}

}  // namespace

TEST(SimFieldText, ReadOnlyTypesHaveTheDocumentedBytes) {
  EXPECT_EQ(Enc("HWVER", "2.1.0 (REV-C)", 1, 16), Hex("0002 0001 0000 5245562d43 0000000000"));
  EXPECT_EQ(Enc("HWVER", "3.0.7", 1, 16), Hex("0003 0000 0007 00000000000000000000"));
  EXPECT_EQ(Enc("SWVER_YMD", "1.4.2 (2026-03-18)", 1, 16), Hex("0001 0004 0002 07ea 03 12 000000000000"));
  EXPECT_EQ(Enc("DT", "1 h 0 min 1 s", 1, 4), Hex("00000e11"));
  EXPECT_EQ(Enc("DT", "3601", 1, 4), Hex("00000e11"));
  EXPECT_EQ(Enc("string", "VK1", 1, 6), Hex("564b31000000"));

  EXPECT_EQ(*DecodeValueText("HWVER", Hex("0002 0001 0000 5245562d43 0000000000"), 1), "2.1.0 (REV-C)");
  // Unprintable revision bytes are dropped, an empty revision leaves no brackets.
  EXPECT_EQ(*DecodeValueText("HWVER", Hex("0003 0000 0007 01000000000000000000"), 1), "3.0.7");
  EXPECT_EQ(*DecodeValueText("SWVER_YMD", Hex("0001 0004 0002 07ea 03 12 000000000000"), 1), "1.4.2 (2026-03-18)");
  EXPECT_EQ(*DecodeValueText("DT", Hex("00 00 0E 11"), 1), "1 h 0 min 1 s");
  EXPECT_EQ(*DecodeValueText("string", Hex("41 42 00 43"), 1), "AB");
  EXPECT_FALSE(DecodeValueText("HWVER", std::vector<uint8_t>(15, 0), 1));
  EXPECT_FALSE(DecodeValueText("SWVER_YMD", std::vector<uint8_t>(17, 0), 1));

  // Texts that do not fit their field are refused rather than cut.
  EXPECT_FALSE(EncodeValueText("string", "TOO LONG", 1, 4));
  EXPECT_FALSE(EncodeValueText("SWVER_YMD", "1.4.2 (2026-13-01)", 1, 16));
  EXPECT_FALSE(EncodeValueText("HWVER", "2.1.0 (REV-C)", 1, 8));
  EXPECT_FALSE(EncodeValueText("DT", "70000", 1, 2));
}

TEST(SimFieldText, NumbersAreBigEndianAndScaledByTheCoefficient) {
  EXPECT_EQ(*DecodeValueText("uint16", Hex("01 02"), 1.0f), "258");
  EXPECT_EQ(*DecodeValueText("uint16", Hex("01 02"), 0.5f), "129.00");
  EXPECT_EQ(*DecodeValueText("int16", Hex("FF FE"), 1.0f), "-2");
  EXPECT_EQ(*DecodeValueText("int64", Hex("FFFFFFFFFFFFFFFB"), 1.0f), "-5");
  EXPECT_EQ(*DecodeValueText("uint64", Hex("FFFFFFFFFFFFFFFF"), 1.0f), "18446744073709551615");
  EXPECT_EQ(*DecodeValueText("float32", Hex("3F 80 00 00"), 1.0f), "1.00");
  EXPECT_EQ(*DecodeValueText("double", Hex("3F F0 00 00 00 00 00 00"), 2.0f), "2.00");

  EXPECT_EQ(Enc("int16", "-2", 1, 2), Hex("FF FE"));
  EXPECT_EQ(Enc("uint64", "18446744073709551615", 1, 8), Hex("FFFFFFFFFFFFFFFF"));
  // The sensor is not bound by the program's uint32 write limit.
  EXPECT_EQ(Enc("uint32", "4294967295", 1, 4), Hex("FFFFFFFF"));
  // Shown 12.3 with coefficient 0.1 is raw 123: rounded, not truncated to 122.
  EXPECT_EQ(Enc("uint16", "12.3", 0.1f, 2), Hex("00 7B"));
  EXPECT_EQ(Enc("int16", "-12.5", 0.01f, 2), Hex("FB 1E"));
  EXPECT_EQ(Enc("float32", "1", 1, 4), Hex("3F 80 00 00"));
  EXPECT_EQ(Enc("double", "1", 1, 8), Hex("3F F0 00 00 00 00 00 00"));

  EXPECT_FALSE(EncodeValueText("uint8", "256", 1, 1));
  EXPECT_FALSE(EncodeValueText("uint8", "-1", 1, 1));
  EXPECT_FALSE(EncodeValueText("int8", "128", 1, 1));
  EXPECT_FALSE(EncodeValueText("uint16", "12abc", 1, 2));
  EXPECT_FALSE(EncodeValueText("uint16", "", 1, 2));
}

TEST(SimFieldText, AddressesFollowTheProgramsShownForms) {
  EXPECT_EQ(*DecodeValueText("IP", Hex("C0 A8 01 C9"), 1), "192.168.1.201");
  // Bytes up to 0x10 get a leading zero, so 0x10 shows as "010" and reads back as 0x10.
  EXPECT_EQ(*DecodeValueText("MAC", Hex("00 10 1A FF 05 A0"), 1), "00:010:1A:FF:05:A0");
  EXPECT_EQ(Enc("MAC", "00:010:1A:FF:05:A0", 1, 6), Hex("00 10 1A FF 05 A0"));
  EXPECT_FALSE(DecodeValueText("MAC", Hex("00 10 1A FF 05"), 1));
  EXPECT_EQ(Enc("IP", "192.168.1.201", 1, 4), Hex("C0 A8 01 C9"));
  EXPECT_FALSE(EncodeValueText("IP", "192.168.1", 1, 4));
  EXPECT_FALSE(EncodeValueText("IP", "192.168..1", 1, 4));
  EXPECT_FALSE(EncodeValueText("IP", "192.168.1.256", 1, 4));
  EXPECT_FALSE(EncodeValueText("MAC", "00:10:1A:FF:05:G0", 1, 6));
  EXPECT_EQ(Enc("raw", "0x01 0xA0", 1, 3), Hex("01 A0 00"));
  EXPECT_FALSE(DecodeValueText("raw", Hex("01"), 1));
}
