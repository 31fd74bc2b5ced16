#include "crc32_mpeg2.h"
#include "hex_text.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

using namespace quarn::lidar;

TEST(Crc32Mpeg2, StandardCheckValueAndIncrementalUse) {
  const std::string digits = "123456789";
  const auto* p = reinterpret_cast<const uint8_t*>(digits.data());
  EXPECT_EQ(Crc32Mpeg2(p, digits.size()), 0x0376E6E7u);
  // Feeding the data in two parts gives the same result as one pass.
  EXPECT_EQ(Crc32Mpeg2Update(Crc32Mpeg2(p, 4), p + 4, 5), 0x0376E6E7u);
  // No final inversion: the empty input leaves the initial value.
  EXPECT_EQ(Crc32Mpeg2(p, 0), 0xFFFFFFFFu);
}

TEST(Crc32Mpeg2, LongInputsMatchValuesWorkedOutByHand) {
  // Values worked out by hand for a whole file piece (bytes 0, 1, ... 255 four times),
  // 36 digits and 17 zero bytes.
  std::vector<uint8_t> piece(1024);
  for (size_t i = 0; i < piece.size(); ++i) piece[i] = static_cast<uint8_t>(i);
  EXPECT_EQ(Crc32Mpeg2(piece), 0x1A5C3E13u);
  const std::string digits = "123456789123456789123456789123456789";
  EXPECT_EQ(Crc32Mpeg2(reinterpret_cast<const uint8_t*>(digits.data()), digits.size()), 0x11AC2D4Du);
  EXPECT_EQ(Crc32Mpeg2(std::vector<uint8_t>(17, 0)), 0x4270086Cu);
}

TEST(Crc32Mpeg2, ZeroPaddingToFourBytes) {
  const uint8_t six[6] = {1, 2, 3, 4, 5, 6};
  const uint8_t eight[8] = {1, 2, 3, 4, 5, 6, 0, 0};
  EXPECT_EQ(Crc32Mpeg2ZeroPadded4(six, 6), Crc32Mpeg2(eight, 8));
  // Already aligned: nothing is added.
  EXPECT_EQ(Crc32Mpeg2ZeroPadded4(eight, 8), Crc32Mpeg2(eight, 8));
  EXPECT_NE(Crc32Mpeg2ZeroPadded4(six, 6), Crc32Mpeg2(six, 6));
}

TEST(HexText, LowerCaseWithTrailingBlank) {
  EXPECT_EQ(ToHexSpaced({0x47, 0x74, 0x0A, 0xFF}), "47 74 0a ff ");
  EXPECT_EQ(ToHexSpaced({}), "");
}
