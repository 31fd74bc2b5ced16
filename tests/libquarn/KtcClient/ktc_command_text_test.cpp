#include "ktc_command_text.h"

#include <gtest/gtest.h>

using namespace quarn::lidar;

TEST(KtcCommandText, PlainAndExtendedTexts) {
  struct Case {
    const char* text;
    uint8_t cmd;
    bool extended;
    uint32_t code;
  };
  const Case cases[] = {
      {"0x21", 0x21, false, 0x21},       {"21", 0x21, false, 0x21},   {"A", 0x0A, false, 0x0A},
      {"0X0a", 0x0A, false, 0x0A},       {"1A5", 0xA5, false, 0x1A5}, {"0x1A05", 0xFF, true, 0x1A05},
      {"  0x1a05 ", 0xFF, true, 0x1A05}, {"00021", 0xFF, true, 0x21}, {"0xFFFFFFFF", 0xFF, true, 0xFFFFFFFF},
      {"0x000000001", 0xFF, true, 1},
  };
  for (const Case& c : cases) {
    KtcCommandText out;
    std::string error;
    ASSERT_TRUE(ParseKtcCommandText(c.text, out, &error)) << c.text << ": " << error;
    EXPECT_EQ(out.cmd, c.cmd) << c.text;
    EXPECT_EQ(out.extended, c.extended) << c.text;
    EXPECT_EQ(out.code, c.code) << c.text;
  }
}

TEST(KtcCommandText, RejectsWhatIsNoCommand) {
  for (const char* text : {"", "   ", "0x", "0xG1", "12 34", "-1", "0x100000000", "zz"}) {
    KtcCommandText out{0x33, false, 0x33};
    std::string error;
    EXPECT_FALSE(ParseKtcCommandText(text, out, &error)) << text;
    EXPECT_FALSE(error.empty()) << text;
    EXPECT_EQ(out.cmd, 0x33) << text;
  }
  KtcCommandText out;
  EXPECT_FALSE(ParseKtcCommandText("q", out));  // no error text wanted
}

TEST(KtcCommandText, PayloadCarriesTheCodeOnlyWhenExtended) {
  KtcCommandText plain{0x21, false, 0x21};
  KtcCommandText ext{0xFF, true, 0x00011A05};
  EXPECT_EQ(BuildCommandPayload(plain, {1, 2}), (std::vector<uint8_t>{1, 2}));
  EXPECT_EQ(BuildCommandPayload(ext, {1, 2}), (std::vector<uint8_t>{0x00, 0x01, 0x1A, 0x05, 1, 2}));
  EXPECT_EQ(BuildCommandPayload(ext, {}), (std::vector<uint8_t>{0x00, 0x01, 0x1A, 0x05}));
  EXPECT_EQ(ReplyFieldOffset(plain), 0u);
  EXPECT_EQ(ReplyFieldOffset(ext), 4u);
}
