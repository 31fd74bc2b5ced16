// Reply slices to display texts, by type: the cases the pages depend on and the
// configuration faults that must leave a value alone.

#include "value_text.h"

#include <gtest/gtest.h>

using varkel::BytesToValueText;
using Bytes = std::vector<uint8_t>;

namespace {

std::string TextOf(const std::string& type, const Bytes& slice, float coefficient = 1.0f) {
  varkel::ValueText t = BytesToValueText(type, slice, coefficient);
  EXPECT_TRUE(t.ok) << type << ": " << t.text;
  return t.text;
}

std::string FaultOf(const std::string& type, const Bytes& slice) {
  varkel::ValueText t = BytesToValueText(type, slice, 1.0f);
  EXPECT_FALSE(t.ok) << type << " gave " << t.text;
  return t.text;
}

}  // namespace

TEST(ManagerValueText, AddressesAndTheMacLeadingZeroRule) {
  EXPECT_EQ(TextOf("IP", {0xC0, 0xA8, 0x01, 0xC9}), "192.168.1.201");
  EXPECT_EQ(TextOf("IP", {0x00, 0xFF}), "0.255");
  // 0x10 itself gets the leading zero too; 0x11 does not.
  EXPECT_EQ(TextOf("MAC", {0x00, 0x10, 0x1A, 0xFF, 0x05, 0xA0}), "00:010:1A:FF:05:A0");
  EXPECT_EQ(TextOf("MAC", {0x11, 0x0A, 0x0F, 0xAB, 0xCD, 0xEF, 0x99, 0x98}), "11:0A:0F:AB:CD:EF");
  EXPECT_EQ(FaultOf("MAC", {1, 2, 3, 4, 5}), "MAC address size is less than 6, please check your config file");
}

TEST(ManagerValueText, IntegersAreBigEndianWithOptionalCoefficient) {
  EXPECT_EQ(TextOf("uint16", {0x01, 0x02}), "258");
  EXPECT_EQ(TextOf("uint16", {0x01, 0x02}, 0.5f), "129.00");
  EXPECT_EQ(TextOf("uint8", {0xFF}), "255");
  EXPECT_EQ(TextOf("int8", {0xFF}), "-1");
  EXPECT_EQ(TextOf("int16", {0xFF, 0x38}), "-200");
  EXPECT_EQ(TextOf("int16", {0xFF, 0x38}, 0.1f), "-20.00");
  EXPECT_EQ(TextOf("uint32", {0xDE, 0xAD, 0xBE, 0xEF}), "3735928559");
  EXPECT_EQ(TextOf("int32", {0x80, 0x00, 0x00, 0x00}), "-2147483648");
  EXPECT_EQ(TextOf("uint64", {0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF}), "18446744073709551615");
  EXPECT_EQ(TextOf("int64", {0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFE}), "-2");
  // A field wider than its type keeps the low bytes; a narrower one counts as zero-padded.
  EXPECT_EQ(TextOf("uint8", {0x12, 0x34}), "52");
  EXPECT_EQ(TextOf("uint32", {0x01, 0x00}), "256");
}

TEST(ManagerValueText, FloatingPointIsBigEndianIeeeTimesCoefficient) {
  EXPECT_EQ(TextOf("float32", {0x3F, 0xC0, 0x00, 0x00}), "1.50");          // 1.5
  EXPECT_EQ(TextOf("float32", {0xC1, 0x20, 0x00, 0x00}, 2.0f), "-20.00");  // -10 x 2
  EXPECT_EQ(TextOf("double", {0x40, 0x09, 0x21, 0xFB, 0x54, 0x44, 0x2D, 0x18}), "3.14");
  EXPECT_EQ(TextOf("double", {0x40, 0x59, 0, 0, 0, 0, 0, 0}, 0.25f), "25.00");  // 100 x 0.25
}

TEST(ManagerValueText, DurationsVersionsAndStrings) {
  EXPECT_EQ(TextOf("DT", {0x00, 0x00, 0x0E, 0x11}), "1 h 0 min 1 s");
  EXPECT_EQ(TextOf("DT", {0x01, 0x51, 0xC3}), "24 h 1 min 7 s");  // 86467 s
  EXPECT_EQ(TextOf("DT", {}), "0 h 0 min 0 s");

  Bytes hw{0, 2, 0, 1, 0, 0, 'R', 'E', 'V', '-', 'C', 0, 0, 0, 0, 0};
  EXPECT_EQ(TextOf("HWVER", hw), "2.1.0 (REV-C)");
  Bytes hw_plain{0, 3, 0, 0, 0, 7, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0};
  EXPECT_EQ(TextOf("HWVER", hw_plain), "3.0.7");
  Bytes hw_noise{0, 1, 0, 2, 0, 3, 0x01, 'A', 0x7F, 'B', 0, 0, 0, 0, 0, 0};
  EXPECT_EQ(TextOf("HWVER", hw_noise), "1.2.3 (AB)");
  Bytes sw{0, 1, 0, 4, 0, 2, 0x07, 0xEA, 3, 18, 0, 0, 0, 0, 0, 0};
  EXPECT_EQ(TextOf("SWVER_YMD", sw), "1.4.2 (2026-03-18)");
  const std::string size_fault = "HWVER size is not qual to 16, please check your config file";
  EXPECT_EQ(FaultOf("HWVER", Bytes(15, 0)), size_fault);
  EXPECT_EQ(FaultOf("SWVER_YMD", Bytes(17, 0)), size_fault);

  EXPECT_EQ(TextOf("string", {'V', 'K', '1', 0, 0, 0}), "VK1");
  EXPECT_EQ(TextOf("string", {'A', 'B'}), "AB");
}

TEST(ManagerValueText, TypeNamesAreExact) {
  EXPECT_EQ(FaultOf("Uint16", {1, 2}), "var_type not support: Uint16");
  EXPECT_EQ(FaultOf("raw", {1, 2}), "var_type not support: raw");
  EXPECT_EQ(FaultOf("ip", {1, 2, 3, 4}), "var_type not support: ip");
}
