#include "str_parser.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <vector>

#include "number_text.h"

namespace {

using Bytes = std::vector<uint8_t>;

Bytes Encode(const std::string& type, const std::string& text, float coefficient = 1.0f) {
  auto codec = MakeStrParser(type);
  if (!codec) throw std::logic_error("no codec for " + type);
  return codec->ParseToBytes(text, coefficient);
}

// The message of the refusal, or "" when the text was accepted.
std::string Refusal(const std::string& type, const std::string& text, float coefficient = 1.0f) {
  try {
    Encode(type, text, coefficient);
  } catch (const std::invalid_argument& e) {
    return e.what();
  }
  return "";
}

}  // namespace

TEST(ConfigCodec, FactoryTypeTableAndUnknownTypes) {
  const struct {
    const char* type;
    uint64_t length;
  } table[] = {{"IP", 1},    {"MAC", 1},   {"uint8", 1}, {"uint16", 2},  {"uint32", 4}, {"uint64", 8}, {"int8", 1},
               {"int16", 2}, {"int32", 4}, {"int64", 8}, {"float32", 1}, {"double", 1}, {"raw", 1}};
  for (const auto& row : table) {
    auto codec = MakeStrParser(row.type);
    ASSERT_NE(codec, nullptr) << row.type;
    EXPECT_EQ(codec->parser_length, row.length) << row.type;
  }

  testing::internal::CaptureStdout();
  EXPECT_EQ(MakeStrParser("bool"), nullptr);
  EXPECT_EQ(MakeStrParser("Uint8"), nullptr);   // case matters
  EXPECT_EQ(MakeStrParser("string"), nullptr);  // read-only types have no codec
  EXPECT_TRUE(Encode("raw", "anything").empty());
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            "DEBUG(): not support the format is bool\n"
            "DEBUG(): not support the format is Uint8\n"
            "DEBUG(): not support the format is string\n"
            "not developed\n");
}

TEST(ConfigCodec, UnsignedWidthsCoefficientAndTheLimitWrap) {
  EXPECT_EQ(Encode("uint8", "255"), Bytes({0xFF}));
  EXPECT_EQ(Encode("uint8", "12.9"), Bytes({0x0C}));  // truncated toward zero
  EXPECT_EQ(Encode("uint16", "1000", 0.1f), Bytes({0x27, 0x10}));
  EXPECT_EQ(Encode("uint16", "2.5", 0.5f), Bytes({0x00, 0x05}));
  EXPECT_EQ(Encode("uint16", "65535"), Bytes({0xFF, 0xFF}));
  EXPECT_EQ(Encode("uint8", " 7"), Bytes({0x07}));
  EXPECT_EQ(Refusal("uint8", "256"), "UintParser: contains an illegal number, error:256");
  EXPECT_EQ(Refusal("uint8", "-1"), "UintParser: contains an illegal number, error:-1");
  EXPECT_EQ(Refusal("uint16", "65536"), "UintParser: contains an illegal number, error:65536");
  // The 32-bit shift wraps for uint32 and uint64: only scaled values below 1 pass.
  EXPECT_EQ(Encode("uint32", "0"), Bytes({0, 0, 0, 0}));
  EXPECT_EQ(Encode("uint64", "0.75"), Bytes(8, 0));
  EXPECT_EQ(Encode("uint32", "100", 1000.0f), Bytes({0, 0, 0, 0}));
  EXPECT_EQ(Refusal("uint32", "1"), "UintParser: contains an illegal number, error:1");
  EXPECT_EQ(Refusal("uint64", "1"), "UintParser: contains an illegal number, error:1");
  // A width of three bytes keeps its own limit, 2^24.
  EXPECT_EQ(UintParser(3).ParseToBytes("65536", 1.0f), Bytes({0x01, 0x00, 0x00}));
}

TEST(ConfigCodec, SignedWidthsBoundsAndUnsupportedWidths) {
  EXPECT_EQ(Encode("int16", "-2"), Bytes({0xFF, 0xFE}));
  EXPECT_EQ(Encode("int8", "-128"), Bytes({0x80}));
  EXPECT_EQ(Encode("int8", "127"), Bytes({0x7F}));
  EXPECT_EQ(Encode("int8", "-1.9"), Bytes({0xFF}));  // toward zero: -1
  EXPECT_EQ(Encode("int32", "-3", 0.5f), Bytes({0xFF, 0xFF, 0xFF, 0xFA}));
  EXPECT_EQ(Encode("int64", "-1"), Bytes(8, 0xFF));
  EXPECT_EQ(Encode("int64", "256"), Bytes({0, 0, 0, 0, 0, 0, 1, 0}));
  EXPECT_EQ(Refusal("int8", "128"), "IntParser: contains an illegal number, error:128");
  EXPECT_EQ(Refusal("int8", "-129"), "IntParser: contains an illegal number, error:-129");
  EXPECT_EQ(Refusal("int16", "32768"), "IntParser: contains an illegal number, error:32768");
  // The bounds compare as floats: 2^31 passes for int32 and comes out as 2^31 in 32 bits.
  EXPECT_EQ(Encode("int32", "2147483648"), Bytes({0x80, 0, 0, 0}));
  EXPECT_EQ(Refusal("int32", "2147483904"), "IntParser: contains an illegal number, error:2147483904");
  // The same at 2^63 for int64, without undefined behaviour.
  EXPECT_EQ(Encode("int64", "9223372036854775808"), Bytes({0x80, 0, 0, 0, 0, 0, 0, 0}));
  EXPECT_EQ(Refusal("int64", "1e19"), "IntParser: contains an illegal number, error:1e19");
  // Other widths: a range test first where one is defined, then the width refusal.
  auto refusal = [](uint64_t width, const std::string& text) -> std::string {
    try {
      IntParser(width).ParseToBytes(text, 1.0f);
    } catch (const std::invalid_argument& e) {
      return e.what();
    }
    return "";
  };
  EXPECT_EQ(refusal(3, "5"), "intParser: parser_length is not supported, error:3");
  EXPECT_EQ(refusal(3, "8388608"), "IntParser: contains an illegal number, error:8388608");
  EXPECT_EQ(refusal(0, "1"), "intParser: parser_length is not supported, error:0");
  EXPECT_EQ(refusal(16, "1"), "intParser: parser_length is not supported, error:16");
}

TEST(ConfigCodec, NumberCheckAndConversionRefusals) {
  for (const char* type : {"uint8", "int8"}) {
    const std::string codec = std::string(type) == "uint8" ? "UintParser" : "IntParser";
    for (const char* text : {"", "abc", "12abc", "1,5", "--1", " "})
      EXPECT_EQ(Refusal(type, text), codec + ": contains an illegal number, error:" + text) << text;
    // A number too large for a float passes the check and fails the conversion.
    EXPECT_EQ(Refusal(type, "1e39"), codec + ": stof() failed, error:stof argument out of range");
    EXPECT_EQ(Refusal(type, "nan"), codec + ": contains an illegal number, error:nan");
  }
  EXPECT_EQ(Refusal("float32", "x1"), "FloatParser: contains an illegal number, error:x1");
  EXPECT_EQ(Refusal("float32", "1e39"), "FloatParser: stof() out of range, error:stof argument out of range");
  EXPECT_EQ(Refusal("double", "1.5.2"), "DoubleParser: contains an illegal number, error:1.5.2");
  EXPECT_EQ(Refusal("double", "1e400"), "DoubleParser: stod() out of range, error:stod argument out of range");
  // Blanks around the number are accepted.
  EXPECT_EQ(Encode("uint16", " 258 "), Bytes({0x01, 0x02}));
}

TEST(ConfigCodec, FloatingPointIsBigEndianIeee754) {
  EXPECT_EQ(Encode("float32", "1"), Bytes({0x3F, 0x80, 0x00, 0x00}));
  EXPECT_EQ(Encode("float32", "-2.5"), Bytes({0xC0, 0x20, 0x00, 0x00}));
  EXPECT_EQ(Encode("float32", "1", 0.5f), Bytes({0x40, 0x00, 0x00, 0x00}));
  EXPECT_EQ(Encode("double", "1"), Bytes({0x3F, 0xF0, 0, 0, 0, 0, 0, 0}));
  EXPECT_EQ(Encode("double", "0.1", 1.0f), Bytes({0x3F, 0xB9, 0x99, 0x99, 0x99, 0x99, 0x99, 0x9A}));
  EXPECT_EQ(Encode("double", "3", 2.0f), Bytes({0x3F, 0xF8, 0, 0, 0, 0, 0, 0}));
}

TEST(ConfigCodec, AddressesAreDecimalPieces) {
  EXPECT_EQ(Encode("IP", "192.168.1.201"), Bytes({0xC0, 0xA8, 0x01, 0xC9}));
  EXPECT_EQ(Encode("IP", "0.0.0.0", 0.0f), Bytes({0, 0, 0, 0}));  // the coefficient is ignored
  EXPECT_EQ(Refusal("IP", "192.168.1"), "IPv4Parser: ip address, wrong format.");
  EXPECT_EQ(Refusal("IP", "192.168.1.2.3"), "IPv4Parser: ip address, wrong format.");
  EXPECT_EQ(Refusal("IP", "192.168..1"), "IPv4Parser: contains an illegal number");
  EXPECT_EQ(Refusal("IP", "192.168.1.256"), "IPv4Parser: contains an illegal number");
  EXPECT_EQ(Refusal("IP", "192.168.1.-1"), "IPv4Parser: contains an illegal number");
  EXPECT_EQ(Refusal("IP", "192.168.1.2x"), "IPv4Parser: contains an illegal number");
  EXPECT_EQ(Refusal("IP", "192.168.1.99999999999"), "IPv4Parser: contains an illegal number");
  EXPECT_EQ(Refusal("IP", ""), "IPv4Parser: ip address, wrong format.");

  EXPECT_EQ(Encode("MAC", "0:1:2:3:4:255"), Bytes({0x00, 0x01, 0x02, 0x03, 0x04, 0xFF}));
  EXPECT_EQ(Encode("MAC", "02:01:03:05:07:09"), Bytes({2, 1, 3, 5, 7, 9}));
  EXPECT_EQ(Encode("MAC", "10:10:10:10:10:10"), Bytes(6, 10));  // decimal, not 0x10
  EXPECT_EQ(Refusal("MAC", "00:1A:2B:3C:4D:5E"), "MacParser: contains an illegal number");
  EXPECT_EQ(Refusal("MAC", "0:1:2:3:4"), "MacParser: ip address, wrong format.");
  EXPECT_EQ(Refusal("MAC", "0:1:2:3:4:256"), "MacParser: contains an illegal number");
}

TEST(ConfigNumberText, StandardMessagesAndPrefixes) {
  EXPECT_EQ(varkel::Stoi(" 42abc"), 42);  // a valid prefix is enough, as with std::stoi
  EXPECT_EQ(varkel::Stoi("ff", 16), 255);
  EXPECT_FLOAT_EQ(varkel::Stof("0.25"), 0.25f);
  EXPECT_DOUBLE_EQ(varkel::Stod("-1.5e2"), -150.0);
  auto message = [](auto&& call) -> std::string {
    try {
      call();
    } catch (const std::exception& e) {
      return e.what();
    }
    return "";
  };
  EXPECT_EQ(message([] { varkel::Stoi("3000000000"); }), "stoi argument out of range");
  EXPECT_EQ(message([] { varkel::Stod("."); }), "invalid stod argument");
  EXPECT_EQ(message([] { varkel::Stod("1e999"); }), "stod argument out of range");
  EXPECT_TRUE(varkel::IsNumberText("-12.5e-1"));
  EXPECT_FALSE(varkel::IsNumberText("12 5"));
}
