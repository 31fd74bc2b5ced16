// Reply slices to display texts, by type: the edge cases and the configuration faults that
// must leave a value alone (the common case of each type is read end to end elsewhere).

#include "value_text.h"

#include <gtest/gtest.h>

namespace {

struct Row {
  std::string type;
  std::vector<uint8_t> slice;
  float coefficient;
  bool ok;
  std::string text;
};

const std::string kSizeFault = "HWVER size is not qual to 16, please check your config file";

}  // namespace

TEST(ManagerValueText, EveryTypeAndItsFaults) {
  const Row rows[] = {
      {"IP", {0x00, 0xFF}, 1, true, "0.255"},
      // 0x10 itself gets the leading zero too; 0x11 does not; bytes beyond six are ignored.
      {"MAC", {0x00, 0x10, 0x1A, 0xFF, 0x05, 0xA0}, 1, true, "00:010:1A:FF:05:A0"},
      {"MAC", {0x11, 0x0A, 0x0F, 0xAB, 0xCD, 0xEF, 0x99, 0x98}, 1, true, "11:0A:0F:AB:CD:EF"},
      {"MAC", {1, 2, 3, 4, 5}, 1, false, "MAC address size is less than 6, please check your config file"},
      // Integers are big-endian; a coefficient other than 1 switches to two decimals.
      {"uint16", {0x01, 0x02}, 1, true, "258"},
      {"uint16", {0x01, 0x02}, 0.5f, true, "129.00"},
      {"int8", {0xFF}, 1, true, "-1"},
      {"int16", {0xFF, 0x38}, 1, true, "-200"},
      {"int16", {0xFF, 0x38}, 0.1f, true, "-20.00"},
      {"uint32", {0xDE, 0xAD, 0xBE, 0xEF}, 1, true, "3735928559"},
      {"int32", {0x80, 0x00, 0x00, 0x00}, 1, true, "-2147483648"},
      {"uint64", {0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF}, 1, true, "18446744073709551615"},
      {"int64", {0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFE}, 1, true, "-2"},
      // A field wider than its type keeps the low bytes; a narrower one counts as zero-padded.
      {"uint8", {0x12, 0x34}, 1, true, "52"},
      {"uint32", {0x01, 0x00}, 1, true, "256"},
      {"float32", {0xC1, 0x20, 0x00, 0x00}, 2, true, "-20.00"},
      {"double", {0x40, 0x59, 0, 0, 0, 0, 0, 0}, 0.25f, true, "25.00"},
      // Large values keep every digit before the point.
      {"double",
       {0x54, 0xB2, 0x49, 0xAD, 0x25, 0x94, 0xC3, 0x7D},
       1,
       true,
       "10000000000000000159028911097599180468360808563945281389781327557747838772170381060813469985856815104.00"},
      {"float32",
       {0x7F, 0x7F, 0xFF, 0xFF},
       1e30f,
       true,
       "340282351758915976075337146222578586102565755702360932291494648217600.00"},
      {"DT", {0x01, 0x51, 0xC3}, 1, true, "24 h 1 min 7 s"},
      {"DT", {}, 1, true, "0 h 0 min 0 s"},
      {"HWVER", {0, 3, 0, 0, 0, 7, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}, 1, true, "3.0.7"},
      {"HWVER", {0, 1, 0, 2, 0, 3, 0x01, 'A', 0x7F, 'B', 0, 0, 0, 0, 0, 0}, 1, true, "1.2.3 (AB)"},
      {"HWVER", std::vector<uint8_t>(15, 0), 1, false, kSizeFault},
      {"SWVER_YMD", std::vector<uint8_t>(17, 0), 1, false, kSizeFault},
      {"string", {'A', 'B'}, 1, true, "AB"},
      // Type names are exact; raw rows have no text.
      {"Uint16", {1, 2}, 1, false, "var_type not support: Uint16"},
      {"ip", {1, 2, 3, 4}, 1, false, "var_type not support: ip"},
      {"raw", {1, 2}, 1, false, "var_type not support: raw"},
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(r.type + " -> " + r.text);
    const varkel::ValueText t = varkel::BytesToValueText(r.type, r.slice, r.coefficient);
    EXPECT_EQ(t.ok, r.ok);
    EXPECT_EQ(t.text, r.text);
  }
}
