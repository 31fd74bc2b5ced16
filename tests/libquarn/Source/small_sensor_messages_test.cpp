// The small sensors' request payloads and reply checks, against bytes written out by hand.

#include <gtest/gtest.h>

#include "small_sensor_messages.h"

namespace ss = quarn::lidar::small_sensor;
using Bytes = std::vector<uint8_t>;

TEST(SmallSensorMessages, RequestPayloads) {
  Bytes pbl(27, 0);
  pbl[0] = 0x0F;
  pbl[1] = 0x05;
  EXPECT_EQ(ss::VersionRequest(5), pbl);
  EXPECT_EQ(ss::CorrectionRequest(0), (Bytes{0x07}));
  EXPECT_EQ(ss::CorrectionRequest(3), (Bytes{0x07, 0x03}));
  EXPECT_EQ(ss::BaudRateSet(3125000), (Bytes{0x00, 0x01, 0x39, 0x00, 0x2F, 0xAF, 0x08}));
  // The Marvo upgrade's two rates.
  EXPECT_EQ(ss::BaudRateSet(5000000), (Bytes{0x00, 0x01, 0x39, 0x00, 0x4C, 0x4B, 0x40}));
  EXPECT_EQ(ss::BaudRateSet(9600), (Bytes{0x00, 0x01, 0x39, 0x00, 0x00, 0x25, 0x80}));
  EXPECT_EQ(*ss::DestinationPayload("192.168.1.100", 2368), (Bytes{0xC0, 0xA8, 0x01, 0x64, 0x09, 0x40}));
  EXPECT_EQ(*ss::DestinationPayload("0.0.0.0", 65535), (Bytes{0, 0, 0, 0, 0xFF, 0xFF}));
  for (const char* bad : {"1.2.3", "1.2.3.4.", "1..2.3", "1.2.3.256", "1.2.3.-4", " 1.2.3.4", "1.2.3.0004", ""})
    EXPECT_FALSE(ss::DestinationPayload(bad, 1)) << bad;
  EXPECT_FALSE(ss::DestinationPayload("1.2.3.4", -1));
  EXPECT_FALSE(ss::DestinationPayload("1.2.3.4", 65536));

  // The angular table sends 8 for index 5, not 5.
  const int codes[] = {0, 1, 2, 3, 4, 8};
  for (int i = 0; i < 6; ++i) EXPECT_EQ(ss::ImuAngularCode(i), codes[i]);
  EXPECT_EQ(ss::ImuAngularCode(-1), -1);
  EXPECT_EQ(ss::ImuAngularCode(6), -1);
}

TEST(SmallSensorMessages, SetAndImuRepliesMustHaveTheirExactShape) {
  EXPECT_EQ(ss::SetReplyStatus({0x03, 0x03, 0x0B, 0x00, 0x00}, 11), 0);
  EXPECT_EQ(ss::SetReplyStatus({0x03, 0x03, 0x0B, 0x00, 0x05}, 11), 5);
  EXPECT_EQ(ss::SetReplyStatus({0x04, 0x03, 0x0B, 0x00, 0x00, 0x00}, 11), -2);  // 6 bytes, status 0
  EXPECT_EQ(ss::SetReplyStatus({0x03, 0x02, 0x0B, 0x00, 0x00}, 11), -2);
  EXPECT_EQ(ss::SetReplyStatus({0x03, 0x03, 0x0A, 0x00, 0x00}, 11), -2);
  EXPECT_EQ(ss::ImuReplyStatus({0x04, 0x02, 0x0B, 0x00, 0x08, 0x03}), 0);
  EXPECT_EQ(ss::ImuReplyStatus({0x04, 0x02, 0x0B, 0x01, 0x09, 0x03}), 1);
  EXPECT_EQ(ss::ImuReplyStatus({0x03, 0x02, 0x0B, 0x00, 0x08}), -2);
}

TEST(SmallSensorMessages, UpgradeRepliesMustHaveTheirExactShape) {
  uint32_t partition = 9;
  EXPECT_EQ(ss::ChangeModeReplyStatus({0x04, 0x03, 0x0C, 0x04, 0x00, 0x01}, 4, partition), 0);
  EXPECT_EQ(partition, 1u);
  partition = 9;
  EXPECT_EQ(ss::ChangeModeReplyStatus({0x04, 0x03, 0x0C, 0x04, 0x02, 0x00}, 4, partition), 2);
  EXPECT_EQ(partition, 9u);  // a refusal tells no partition
  for (const Bytes& bad : {Bytes{0x03, 0x03, 0x0C, 0x04, 0x00}, Bytes{0x04, 0x03, 0x0C, 0x00, 0x00, 0x01},
                           Bytes{0x04, 0x02, 0x0C, 0x04, 0x00, 0x01}, Bytes{0x05, 0x03, 0x0C, 0x04, 0x00, 0x01}})
    EXPECT_EQ(ss::ChangeModeReplyStatus(bad, 4, partition), -2);
  EXPECT_EQ(ss::OtaReplyStatus({0x01, 0x11, 0x00}, 0x11), 0);
  EXPECT_EQ(ss::OtaReplyStatus({0x01, 0x02, 0x03}, 0x02), 3);
  EXPECT_EQ(ss::OtaReplyStatus({0x01, 0x03, 0x00}, 0x02), -2);
  EXPECT_EQ(ss::OtaReplyStatus({0x02, 0x02, 0x00, 0x00}, 0x02), -2);
}

TEST(SmallSensorMessages, GetReplies) {
  // Correction piece: N at byte 4, whole reply N + 6.
  auto piece = ss::ParseCorrectionPiece({0x07, 0x02, 0x07, 0x02, 0x03, 0xAA, 0xBB, 0xCC, 0x00});
  ASSERT_TRUE(piece);
  EXPECT_EQ(piece->pieces, 2);
  EXPECT_EQ(piece->data, (Bytes{0xAA, 0xBB, 0xCC}));
  EXPECT_FALSE(ss::ParseCorrectionPiece({0x07, 0x02, 0x07, 0x02, 0x04, 0xAA, 0xBB, 0xCC, 0x00}));
  EXPECT_FALSE(ss::ParseCorrectionPiece({0x04, 0x02, 0x07, 0x00, 0x00, 0x00}));  // no pieces
  // At most 250 data bytes; a KTC link could carry more, but no piece holds them.
  Bytes full = {254, 0x02, 0x07, 0x01, 250};
  full.resize(256, 0x5A);
  EXPECT_TRUE(ss::ParseCorrectionPiece(full));
  Bytes over = {255, 0x02, 0x07, 0x01, 251};
  over.resize(257, 0x5A);
  EXPECT_FALSE(ss::ParseCorrectionPiece(over));

  auto safety = ss::ParseSafety({0x08, 0x02, 0x08, 0xA1, 0x01, 0x02, 0x01, 0x00, 0x00, 0x0A, 0x00});
  ASSERT_TRUE(safety);
  EXPECT_EQ(safety->state, 1);
  EXPECT_EQ(safety->faults, (std::vector<uint16_t>{0x0102, 0x000A}));
  EXPECT_EQ(ss::FaultCodeText(0x000A), "0x0A");
  EXPECT_EQ(ss::FaultCodeText(0x1F03), "0x1F03");
  EXPECT_TRUE(ss::ParseSafety({0x02, 0x02, 0x08, 0xA1, 0x00})->faults.empty());
  EXPECT_FALSE(ss::ParseSafety({0x02, 0x02, 0x08, 0xA2, 0x00}));
  EXPECT_FALSE(ss::ParseSafety({0x03, 0x02, 0x08, 0xA1, 0x00, 0x01}));  // half a fault code

  Bytes sn{0x12, 0x02, 0x0A, 0x01, 'Z', 'T', '-', '9'};
  sn.resize(20, 0);
  EXPECT_EQ(*ss::ParseSerialNumber(sn), "ZT-9");
  sn[3] = 0;
  EXPECT_FALSE(ss::ParseSerialNumber(sn));
  EXPECT_TRUE(ss::ValidSerialNumber("ZT2411000123"));
  EXPECT_FALSE(ss::ValidSerialNumber(""));
  EXPECT_FALSE(ss::ValidSerialNumber("ZT 24"));
  EXPECT_FALSE(ss::ValidSerialNumber("12345678901234567"));

  Bytes version{0x1C, 0x02, 0x0F, 0x05, ' ', 'P', 'B', 'L', ' ', '1'};
  version.resize(30, 0);
  std::string text;
  EXPECT_EQ(ss::ParseVersion(version, 5, text), 0);
  EXPECT_EQ(text, "PBL 1");
  EXPECT_EQ(ss::ParseVersion(version, 2, text), -2);  // another version's answer
  version[28] = 3;
  EXPECT_EQ(ss::ParseVersion(version, 5, text), 3);
  version.pop_back();
  EXPECT_EQ(ss::ParseVersion(version, 5, text), -2);

  EXPECT_EQ(*ss::ParseBaudRate({0x00, 0x2D, 0xC6, 0xC0}), 3000000u);
  EXPECT_FALSE(ss::ParseBaudRate({0x00, 0x2D, 0xC6}));
  auto block = ss::ParseNetworkBlock({192, 168, 1, 201, 255, 255, 255, 0, 192, 168, 1, 1, 10, 0, 0, 7, 0x09, 0x40});
  ASSERT_TRUE(block);
  EXPECT_EQ(block->lidar_ip, "192.168.1.201");
  EXPECT_EQ(block->destination_ip, "10.0.0.7");
  EXPECT_EQ(block->destination_port, 2368);
  EXPECT_FALSE(ss::ParseNetworkBlock(Bytes(17, 0)));
}
