// The Marvo OTA package: headers written out byte by byte, never built with the code under test.
#include "marvo_package.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <tuple>
#include <vector>

namespace {

using Bytes = std::vector<uint8_t>;
using varkel::OtaComponent;
using varkel::OtaPackageHeader;
using varkel::OtaParseResult;

// flags 0x1D: BMB_APP_A, BMB_FPGA, TMB_FPGA, TMB_PARAM. Offsets count from byte 56.
//   BMB_APP_A  offset 0x00000000 size 4
//   BMB_APP_B  (flag clear; the bytes say offset 0x11111111 size 0x22222222)
//   BMB_FPGA   offset 0x00000004 size 0x00000401 (1025)
//   TMB_FPGA   offset 0x00000405 size 0x00000400 (1024)
//   TMB_PARAM  offset 0x00000805 size 3
const Bytes kPackageHeader = {
    'Q',  'R',  'N',  'A',                           // magic
    0x78, 0x56, 0x34, 0x12,                          // total_size 0x12345678
    0x1D, 0xEE, 0xEE, 0xEE,                          // flags, reserved
    0x00, 0x00, 0x00, 0x00, 0x04, 0x00, 0x00, 0x00,  // BMB_APP_A
    0x11, 0x11, 0x11, 0x11, 0x22, 0x22, 0x22, 0x22,  // BMB_APP_B
    0x04, 0x00, 0x00, 0x00, 0x01, 0x04, 0x00, 0x00,  // BMB_FPGA
    0x05, 0x04, 0x00, 0x00, 0x00, 0x04, 0x00, 0x00,  // TMB_FPGA
    0x05, 0x08, 0x00, 0x00, 0x03, 0x00, 0x00, 0x00,  // TMB_PARAM
    0xEE, 0xEE, 0xEE, 0xEE,                          // reserved
};

// The header above followed by its data: app "APP!", 1025 FPGA bytes (0xB0 then 1024
// bytes counting 0..255), 1024 TMB bytes of 0x7E, "PRM".
Bytes Package() {
  Bytes p = kPackageHeader;
  p.insert(p.end(), {'A', 'P', 'P', '!'});
  p.push_back(0xB0);
  for (int i = 0; i < 1024; ++i) p.push_back(static_cast<uint8_t>(i));
  p.insert(p.end(), 1024, 0x7E);
  p.insert(p.end(), {'P', 'R', 'M'});
  return p;
}

OtaPackageHeader Parse(const Bytes& p, std::vector<std::string>* info = nullptr) {
  OtaPackageHeader h;
  EXPECT_EQ(varkel::ParseOtaPackageHeader(p.data(), p.size(), h, info), OtaParseResult::kOk);
  return h;
}

std::vector<std::string> Names(const std::vector<OtaComponent>& list) {
  std::vector<std::string> names;
  for (const auto& c : list) names.push_back(c.name + "/" + std::to_string(c.type));
  return names;
}

TEST(MarvoPackage, HeaderFieldsAreLittleEndianAndAbsentComponentsStayZero) {
  ASSERT_EQ(kPackageHeader.size(), 56u);
  std::vector<std::string> info;
  const OtaPackageHeader h = Parse(Package(), &info);
  EXPECT_TRUE(info.empty());
  EXPECT_EQ(h.total_size, 0x12345678u);
  EXPECT_EQ(h.flags, 0x1D);
  // {present, offset, size}; BMB_APP_B's flag is clear, so the bytes of its pair are not taken.
  std::vector<std::tuple<bool, uint32_t, uint32_t>> places;
  for (const auto& c : h.components) places.emplace_back(c.present, c.offset, c.size);
  EXPECT_EQ(places, (std::vector<std::tuple<bool, uint32_t, uint32_t>>{
                        {true, 0, 4}, {false, 0, 0}, {true, 4, 1025}, {true, 0x405, 0x400}, {true, 0x805, 3}}));
  // Flags print in decimal behind "0x".
  EXPECT_EQ(varkel::OtaParsedLine(h), "Marvo OTA package parsed: flags=0x29, total_size=305419896");
}

TEST(MarvoPackage, ShortPackagesAndWrongMagicAreRefusedAndLeaveAZeroedHeader) {
  Bytes p = Package();
  OtaPackageHeader h;
  std::vector<std::string> info;
  h.total_size = 99;
  h.components[0].present = true;
  EXPECT_EQ(varkel::ParseOtaPackageHeader(p.data(), 55, h, &info), OtaParseResult::kTooSmall);
  EXPECT_EQ(h.total_size, 0u);
  EXPECT_FALSE(h.components[0].present);
  EXPECT_TRUE(info.empty());
  // 56 bytes exactly is a whole header.
  EXPECT_EQ(varkel::ParseOtaPackageHeader(p.data(), 56, h, &info), OtaParseResult::kOk);

  p[3] = 'a';  // "QRNa"
  EXPECT_EQ(varkel::ParseOtaPackageHeader(p.data(), 56, h, &info), OtaParseResult::kBadMagic);
  EXPECT_EQ(info, std::vector<std::string>{"Invalid OTA package magic"});
  EXPECT_EQ(h.flags, 0);
}

TEST(MarvoPackage, FlagBitsAboveFourAreIgnored) {
  Bytes p = kPackageHeader;
  p[8] = 0xE1;  // bits 5-7 and BMB_APP_A
  const OtaPackageHeader h = Parse(p);
  EXPECT_EQ(h.flags, 0xE1);
  int present = 0;
  for (const auto& c : h.components) present += c.present ? 1 : 0;
  EXPECT_EQ(present, 1);
}

TEST(MarvoPackage, UpgradeListSkipsTheRunningPartitionsApplication) {
  Bytes p = kPackageHeader;
  p[8] = 0x1F;  // both applications too
  const OtaPackageHeader h = Parse(p);
  EXPECT_EQ(Names(varkel::BuildOtaUpgradeList(h, 0)),
            (std::vector<std::string>{"BMB_APP_B/2", "BMB_FPGA/1", "TMB_FPGA/0", "TMB_PARAM/3"}));
  EXPECT_EQ(Names(varkel::BuildOtaUpgradeList(h, 1)),
            (std::vector<std::string>{"BMB_APP_A/2", "BMB_FPGA/1", "TMB_FPGA/0", "TMB_PARAM/3"}));
  // Any partition value other than 0 counts as B.
  EXPECT_EQ(Names(varkel::BuildOtaUpgradeList(h, 7)), Names(varkel::BuildOtaUpgradeList(h, 1)));

  // Bit 0 only, lidar on partition A: nothing to send.
  p[8] = 0x01;
  EXPECT_TRUE(varkel::BuildOtaUpgradeList(Parse(p), 0).empty());
  EXPECT_EQ(Names(varkel::BuildOtaUpgradeList(Parse(p), 1)), std::vector<std::string>{"BMB_APP_A/2"});
}

TEST(MarvoPackage, ExtractionTakesTheDataAndDropsTheFirstBlockOfALargeFpgaImage) {
  const Bytes p = Package();
  const auto list = varkel::BuildOtaUpgradeList(Parse(p), 1);
  ASSERT_EQ(list.size(), 4u);
  std::vector<std::string> info;
  EXPECT_EQ(varkel::ExtractOtaComponent(p.data(), p.size(), list[0], &info), (Bytes{'A', 'P', 'P', '!'}));
  // 1025 FPGA bytes: the first 1024 go, the last one (counted 0..255 from byte 1, so 0xFF) stays.
  EXPECT_EQ(varkel::ExtractOtaComponent(p.data(), p.size(), list[1], &info), Bytes{0xFF});
  // 1024 bytes exactly: taken whole.
  EXPECT_EQ(varkel::ExtractOtaComponent(p.data(), p.size(), list[2], &info), Bytes(1024, 0x7E));
  // The same size under another name keeps its first block.
  OtaComponent param = list[3];
  EXPECT_EQ(varkel::ExtractOtaComponent(p.data(), p.size(), param, &info), (Bytes{'P', 'R', 'M'}));
  param.name = "BMB_FPGA ";  // not exactly the 8 characters
  param.offset = 4;
  param.size = 1025;
  EXPECT_EQ(varkel::ExtractOtaComponent(p.data(), p.size(), param, &info).size(), 1025u);
  EXPECT_TRUE(info.empty());
  EXPECT_EQ(varkel::OtaBlocks(0), 0u);
  EXPECT_EQ(varkel::OtaBlocks(1), 1u);
  EXPECT_EQ(varkel::OtaBlocks(1024), 1u);
  EXPECT_EQ(varkel::OtaBlocks(1025), 2u);
}

TEST(MarvoPackage, BoundsAreTestedWithWrappingButNeverReadOutsideThePackage) {
  Bytes p(72);
  for (size_t i = 0; i < p.size(); ++i) p[i] = static_cast<uint8_t>(i);
  std::vector<std::string> info;
  // Offset 2^32 - 16: 56 + offset wraps to 40; 32 bytes from there end at 72.
  OtaComponent wrapped{"TMB_PARAM", 3, 0xFFFFFFF0u, 32, true};
  const Bytes got = varkel::ExtractOtaComponent(p.data(), p.size(), wrapped, &info);
  ASSERT_EQ(got.size(), 32u);
  EXPECT_EQ(got.front(), 40);
  EXPECT_EQ(got.back(), 71);
  EXPECT_TRUE(info.empty());
  // One byte shorter and the same component is out of range.
  EXPECT_TRUE(varkel::ExtractOtaComponent(p.data(), 71, wrapped, &info).empty());
  EXPECT_EQ(info, std::vector<std::string>{"Component TMB_PARAM data out of range"});

  // A size that wraps the end round (56 + 0 + 2^32 - 20 = 36 in 32 bits) passes the
  // 32-bit test but would read 4 GiB: refused all the same.
  info.clear();
  OtaComponent huge{"BMB_APP_A", 2, 0, 0xFFFFFFECu, true};
  EXPECT_TRUE(varkel::ExtractOtaComponent(p.data(), p.size(), huge, &info).empty());
  EXPECT_EQ(info, std::vector<std::string>{"Component BMB_APP_A data out of range"});
  // Exactly to the end is inside; one past is not.
  info.clear();
  OtaComponent tail{"BMB_APP_A", 2, 10, 6, true};
  EXPECT_EQ(varkel::ExtractOtaComponent(p.data(), p.size(), tail, &info).size(), 6u);
  tail.size = 7;
  EXPECT_TRUE(varkel::ExtractOtaComponent(p.data(), p.size(), tail, &info).empty());
  EXPECT_EQ(info.size(), 1u);
}

}  // namespace
