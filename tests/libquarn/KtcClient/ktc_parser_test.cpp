#include "ktc_parser.h"

#include <gtest/gtest.h>

#include "crc32_mpeg2.h"
#include "scripted_peer.h"

using namespace quarn::lidar;
using ktc_test::Bytes;
using ktc_test::FromHex;

TEST(KtcParserFrames, GoldenRequestFramesOfBothVersions) {
  Ktc_1_0_parser v1;
  Ktc_2_0_parser v2;
  Bytes frame;
  ASSERT_TRUE(v1.KtcStreamEncode({}, frame, 0x01));
  EXPECT_EQ(frame, FromHex("47 74 01 00 00 00 00 00"));
  ASSERT_TRUE(v2.KtcStreamEncode({}, frame, 0x01));
  EXPECT_EQ(frame, FromHex("57 75 01 01 00 00 00 00 00 00 00 00"));
  // Byte 2 of a 2.0 frame is the protocol byte whatever the command.
  ASSERT_TRUE(v2.KtcStreamEncode({0xAA, 0xBB}, frame, 0xFE));
  EXPECT_EQ(frame, FromHex("57 75 01 fe 00 00 00 00 00 00 00 02 aa bb"));

  // A 300-byte payload: length 0x012C big-endian, payload behind the header.
  Bytes payload(300);
  for (size_t i = 0; i < payload.size(); ++i) payload[i] = static_cast<uint8_t>(i);
  ASSERT_TRUE(v1.KtcStreamEncode(payload, frame, 0x22));
  ASSERT_EQ(frame.size(), 308u);
  EXPECT_EQ(Bytes(frame.begin(), frame.begin() + 8), FromHex("47 74 22 00 00 00 01 2c"));
  EXPECT_EQ(Bytes(frame.begin() + 8, frame.end()), payload);

  // The output is replaced, not appended to, and encoding a vector into itself works.
  Bytes self = {0x10, 0x20};
  ASSERT_TRUE(v1.KtcStreamEncode(self, self, 0x05));
  EXPECT_EQ(self, FromHex("47 74 05 00 00 00 00 02 10 20"));
}

TEST(KtcParserFrames, HeaderAccessorsAndHolder) {
  Ktc_1_0_parser v1;
  Ktc_2_0_parser v2;
  EXPECT_EQ(v1.GetHeaderIdentifier0(), 0x47);
  EXPECT_EQ(v1.GetHeaderIdentifier1(), 0x74);
  EXPECT_EQ(v1.GetHeaderSize(), 8u);
  EXPECT_EQ(v2.GetHeaderIdentifier0(), 0x57);
  EXPECT_EQ(v2.GetHeaderIdentifier1(), 0x75);
  EXPECT_EQ(v2.GetHeaderSize(), 12u);
  for (GeneralKtcParser* p : {static_cast<GeneralKtcParser*>(&v1), static_cast<GeneralKtcParser*>(&v2)}) {
    EXPECT_EQ(p->GetCmd(), 0);
    EXPECT_EQ(p->GetReturnCode(), 0);
    EXPECT_EQ(p->GetPayloadLength(), 0u);
  }

  KtcParser one(1), two(2), none(3);
  ASSERT_NE(one.parser(), nullptr);
  ASSERT_NE(two.parser(), nullptr);
  EXPECT_EQ(one.parser()->GetHeaderSize(), 8u);
  EXPECT_EQ(two.parser()->GetHeaderSize(), 12u);
  EXPECT_EQ(none.parser(), nullptr);
  Bytes out = {9};
  std::vector<Bytes> frames;
  EXPECT_FALSE(none.KtcStreamEncode({1}, out, 1));
  EXPECT_FALSE(none.KtcStreamDecode(1, 0, {1}, 0, 1, out));
  EXPECT_FALSE(none.KtcFilestreamSend({1}, 1, frames));
  EXPECT_EQ(out, Bytes{9});
  EXPECT_TRUE(two.KtcStreamEncode({}, out, 7));
  EXPECT_EQ(out.size(), 12u);
}

TEST(KtcParserDecode, Version1ExtractsARangeOrRefuses) {
  Ktc_1_0_parser v1;
  const Bytes in = FromHex("00 01 02 03 04 05 06 07 08 09");
  Bytes out = {0xEE};
  EXPECT_FALSE(v1.KtcStreamDecode(0, 0, in, 8, 4, out));
  EXPECT_EQ(out, Bytes{0xEE});
  EXPECT_TRUE(v1.KtcStreamDecode(0, 0, in, 8, 2, out));
  EXPECT_EQ(out, FromHex("08 09"));
  EXPECT_TRUE(v1.KtcStreamDecode(0, 0, in, 10, 0, out));
  EXPECT_TRUE(out.empty());
  // Positions that would read outside the input are refused, including sums that wrap.
  EXPECT_FALSE(v1.KtcStreamDecode(0, 0, in, -2, 4, out));
  EXPECT_FALSE(v1.KtcStreamDecode(0, 0, in, 2, -1, out));
  EXPECT_FALSE(v1.KtcStreamDecode(0, 0, in, INT32_MAX, 2, out));
}

TEST(KtcParserDecode, Version2ActsOnStatus) {
  Ktc_2_0_parser v2;
  const Bytes in = {1, 2, 3};
  Bytes out;
  for (uint8_t status : {1, 3, 5, 7, 9}) {
    out = {0xEE};
    EXPECT_TRUE(v2.KtcStreamDecode(status, 0, in, 99, 99, out)) << int(status);
    EXPECT_EQ(out, in) << int(status);
  }
  // Any other status only reports success.
  for (uint8_t status : {0, 11, 200}) {
    out = {0xEE};
    EXPECT_TRUE(v2.KtcStreamDecode(status, 0, in, 0, 0, out)) << int(status);
    EXPECT_EQ(out, Bytes{0xEE}) << int(status);
  }
  for (uint8_t status : {2, 4, 6, 8}) {
    out = {0xEE};
    EXPECT_TRUE(v2.KtcStreamDecode(status, 0, {}, 0, 0, out));
    EXPECT_EQ(out, Bytes{0xEE});
    EXPECT_FALSE(v2.KtcStreamDecode(status, 0, in, 0, 0, out));
    EXPECT_EQ(out, in);
  }
  out = {0xEE};
  EXPECT_TRUE(v2.KtcStreamDecode(10, 0, {}, 0, 0, out));
  EXPECT_FALSE(v2.KtcStreamDecode(10, 0x42, {}, 0, 0, out));
  EXPECT_FALSE(v2.KtcStreamDecode(10, 0, in, 0, 0, out));
  EXPECT_EQ(out, FromHex("ee 42 00"));
  // Input and output may be one vector.
  Bytes same = {4, 5};
  EXPECT_TRUE(v2.KtcStreamDecode(1, 0, same, 0, 0, same));
  EXPECT_EQ(same, (Bytes{4, 5}));
}

TEST(KtcFileStream, PiecesOf2049Bytes) {
  Ktc_1_0_parser v1;
  Bytes file(2049);
  for (size_t i = 0; i < file.size(); ++i) file[i] = static_cast<uint8_t>(i * 7 + 3);
  std::vector<Bytes> frames;
  ASSERT_TRUE(v1.KtcFilestreamSend(file, 0x0A, frames));
  ASSERT_EQ(frames.size(), 3u);
  const size_t sizes[] = {1024, 1024, 1};
  for (size_t k = 0; k < 3; ++k) {
    const Bytes& f = frames[k];
    const size_t m = sizes[k];
    ASSERT_EQ(f.size(), 8 + 16 + m);
    const uint32_t len = 16 + static_cast<uint32_t>(m);
    EXPECT_EQ(Bytes(f.begin(), f.begin() + 8),
              (Bytes{0x47, 0x74, 0x0A, 0x00, 0x00, 0x00, static_cast<uint8_t>(len >> 8), static_cast<uint8_t>(len)}));
    EXPECT_EQ(Bytes(f.begin() + 8, f.begin() + 20),
              (Bytes{0, 0, 0, 0, 0, 0, 0, static_cast<uint8_t>(k + 1), 0, 0, 0, 3}));
    const Bytes data(f.begin() + 24, f.end());
    EXPECT_EQ(data, Bytes(file.begin() + static_cast<long>(k * 1024), file.begin() + static_cast<long>(k * 1024 + m)));
    const uint32_t crc = Crc32Mpeg2(data);
    EXPECT_EQ(Bytes(f.begin() + 20, f.begin() + 24),
              (Bytes{static_cast<uint8_t>(crc >> 24), static_cast<uint8_t>(crc >> 16), static_cast<uint8_t>(crc >> 8),
                     static_cast<uint8_t>(crc)}));
  }
}

TEST(KtcFileStream, GoldenSingleByteFileAndEdges) {
  Ktc_1_0_parser v1;
  std::vector<Bytes> frames;
  // The nine digits: one piece whose CRC field is the standard check value 0x0376E6E7.
  ASSERT_TRUE(v1.KtcFilestreamSend({'1', '2', '3', '4', '5', '6', '7', '8', '9'}, 0x0A, frames));
  ASSERT_EQ(frames.size(), 1u);
  EXPECT_EQ(frames[0], FromHex("47 74 0a 00 00 00 00 19"
                               "00 00 00 00 00 00 00 01 00 00 00 01 03 76 e6 e7"
                               "31 32 33 34 35 36 37 38 39"));
  // An empty file gives no frames; the output keeps what it had.
  frames.assign(1, Bytes{1});
  EXPECT_TRUE(v1.KtcFilestreamSend({}, 0x0A, frames));
  EXPECT_EQ(frames.size(), 1u);
  // Exactly 1024 bytes is one full piece; 1025 makes a second piece of one byte.
  frames.clear();
  ASSERT_TRUE(v1.KtcFilestreamSend(Bytes(1024, 0x55), 1, frames));
  ASSERT_EQ(frames.size(), 1u);
  EXPECT_EQ(frames[0].size(), 8u + 16 + 1024);
  frames.clear();
  ASSERT_TRUE(v1.KtcFilestreamSend(Bytes(1025, 0x55), 1, frames));
  ASSERT_EQ(frames.size(), 2u);
  EXPECT_EQ(frames[1].size(), 8u + 16 + 1);
  // Version 2.0 keeps the base behaviour: true and nothing produced.
  Ktc_2_0_parser v2;
  frames.clear();
  EXPECT_TRUE(v2.KtcFilestreamSend(Bytes(5000, 1), 1, frames));
  EXPECT_TRUE(frames.empty());
}
