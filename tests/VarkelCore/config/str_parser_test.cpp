#include "str_parser.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <vector>

#include "number_text.h"

namespace {

// The bytes in hexadecimal, or the message of the refusal.
std::string Encode(const StrParser& codec, const std::string& text, float coefficient = 1.0f) {
  try {
    std::string hex;
    for (uint8_t byte : codec.ParseToBytes(text, coefficient))
      hex += "0123456789ABCDEF"[byte >> 4], hex += "0123456789ABCDEF"[byte & 15];
    return hex;
  } catch (const std::invalid_argument& e) {
    return e.what();
  }
}

}  // namespace

TEST(ConfigCodec, UnknownTypesRawAndOtherWidths) {
  // Which codec each type gets shows in the encodings below; here, the types without one.
  testing::internal::CaptureStdout();
  EXPECT_EQ(MakeStrParser("bool"), nullptr);
  EXPECT_EQ(MakeStrParser("Uint8"), nullptr);   // case matters
  EXPECT_EQ(MakeStrParser("string"), nullptr);  // read-only types have no codec
  EXPECT_EQ(Encode(*MakeStrParser("raw"), "anything"), "");
  // Widths no type maps to: unsigned keeps its own limit; signed tests a range where one
  // is defined, then refuses the width.
  EXPECT_EQ(Encode(UintParser(3), "65536"), "010000");
  EXPECT_EQ(Encode(IntParser(3), "8388608"), "IntParser: contains an illegal number, error:8388608");
  EXPECT_EQ(Encode(IntParser(3), "5"), "intParser: parser_length is not supported, error:3");
  EXPECT_EQ(Encode(IntParser(16), "1"), "intParser: parser_length is not supported, error:16");
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            "DEBUG(): not support the format is bool\n"
            "DEBUG(): not support the format is Uint8\n"
            "DEBUG(): not support the format is string\n"
            "not developed\n");
}

TEST(ConfigCodec, EncodingsAndRefusals) {
  struct Case {
    const char* type;
    const char* text;
    std::string expected;  // bytes in hexadecimal, a message, "!" (illegal number) or "?" (wrong format)
    float coefficient = 1.0f;
  };
  // clang-format off
  // Integers: big-endian, truncated toward zero after division by the set coefficient; the
  // 32-bit shift wraps for uint32 and uint64, so only scaled values below 1 pass; signed
  // bounds compare as floats, so 2^31 and 2^63 pass and come out most negative. Floats:
  // IEEE 754, big-endian. Every number passes the number check before it is converted.
  // Addresses are decimal pieces; the coefficient is ignored.
  const Case cases[] = {
      {"uint8", "255", "FF"}, {"uint8", "12.9", "0C"}, {"uint16", "65535", "FFFF"}, {"uint16", " 258 ", "0102"},
      {"uint16", "1000", "2710", 0.1f}, {"uint16", "2.5", "0005", 0.5f}, {"uint8", "256", "!"}, {"uint8", "-1", "!"},
      {"uint16", "65536", "!"}, {"uint32", "0", "00000000"}, {"uint64", "0.75", "0000000000000000"},
      {"uint32", "100", "00000000", 1000}, {"uint32", "1", "!"}, {"uint64", "1", "!"}, {"int16", "-2", "FFFE"},
      {"int8", "-128", "80"}, {"int8", "127", "7F"}, {"int8", "-1.9", "FF"}, {"int32", "-3", "FFFFFFFA", 0.5f},
      {"int64", "-1", "FFFFFFFFFFFFFFFF"}, {"int64", "256", "0000000000000100"}, {"int8", "128", "!"},
      {"int8", "-129", "!"}, {"int16", "32768", "!"}, {"int32", "2147483648", "80000000"},
      {"int32", "2147483904", "!"}, {"int64", "1e19", "!"}, {"int64", "9223372036854775808", "8000000000000000"},
      {"float32", "1", "3F800000"}, {"float32", "-2.5", "C0200000"}, {"float32", "1", "40000000", 0.5f},
      {"double", "1", "3FF0000000000000"}, {"double", "0.1", "3FB999999999999A"},
      {"double", "3", "3FF8000000000000", 2}, {"uint8", "", "!"}, {"uint8", "abc", "!"}, {"int8", "12abc", "!"},
      {"uint8", "1,5", "!"}, {"int8", "--1", "!"}, {"int8", " ", "!"}, {"uint8", "nan", "!"}, {"int8", "nan", "!"},
      {"float32", "x1", "!"}, {"double", "1.5.2", "!"}, {"uint8", "12 5", "!"}, {"int8", "-12.5e-1", "FF"},
      {"uint8", "1e39", "UintParser: stof() failed, error:stof argument out of range"},
      {"int8", "1e39", "IntParser: stof() failed, error:stof argument out of range"},
      {"float32", "1e39", "FloatParser: stof() out of range, error:stof argument out of range"},
      {"double", "1e400", "DoubleParser: stod() out of range, error:stod argument out of range"},
      {"IP", "192.168.1.201", "C0A801C9"}, {"IP", "0.0.0.0", "00000000", 0}, {"IP", "192.168.1", "?"},
      {"IP", "192.168.1.2.3", "?"}, {"IP", "", "?"}, {"IP", "192.168..1", "!"}, {"IP", "192.168.1.256", "!"},
      {"IP", "192.168.1.-1", "!"}, {"IP", "192.168.1.2x", "!"}, {"IP", "192.168.1.99999999999", "!"},
      {"MAC", "0:1:2:3:4:255", "0001020304FF"}, {"MAC", "10:10:10:10:10:10", "0A0A0A0A0A0A"},
      {"MAC", "0:1:2:3:4", "?"}, {"MAC", "00:1A:2B:3C:4D:5E", "!"}, {"MAC", "0:1:2:3:4:256", "!"}};
  // clang-format on
  const std::map<char, std::string> codecs = {{'u', "UintParser"},   {'i', "IntParser"},  {'f', "FloatParser"},
                                              {'d', "DoubleParser"}, {'I', "IPv4Parser"}, {'M', "MacParser"}};
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.type) + " \"" + c.text + "\"");
    const std::string codec = codecs.at(c.type[0]), text = c.text;
    const bool address = codec == "IPv4Parser" || codec == "MacParser";
    std::string expected = c.expected;
    if (expected == "!") expected = codec + ": contains an illegal number" + (address ? "" : ", error:" + text);
    if (expected == "?") expected = codec + ": ip address, wrong format.";
    EXPECT_EQ(Encode(*MakeStrParser(c.type), c.text, c.coefficient), expected);
  }
}

TEST(ConfigNumberText, AValidPrefixIsEnoughAsWithStdStoi) {
  EXPECT_EQ(varkel::Stoi(" 42abc"), 42);
}
