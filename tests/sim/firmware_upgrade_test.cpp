// The virtual lidar's firmware upgrade: the image's version line, acceptance on the
// table's upgrade command only, and the new version showing after the restart command.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "firmware_image.h"
#include "sim_test_support.h"

namespace {

using simtest::FromHex;
using varkel::sim::ImageVersion;

std::vector<uint8_t> Bytes(const std::string& s) {
  return std::vector<uint8_t>(s.begin(), s.end());
}

TEST(FirmwareImage, VersionLineIsFoundOnlyAtALineStart) {
  EXPECT_EQ(ImageVersion(Bytes("VERSION=1.5.0 (2026-11-23)")), "1.5.0 (2026-11-23)");
  EXPECT_EQ(ImageVersion(Bytes(std::string("\x7f"
                                           "ELF\0\0junk\nVERSION=1.5.1\r\nrest",
                                           25))),
            "1.5.1");
  EXPECT_EQ(ImageVersion(Bytes(std::string("x\nVERSION=2.0\0tail", 17))), "2.0");
  // Inside a line it is data, not the announcement; a later line still counts.
  EXPECT_EQ(ImageVersion(Bytes("OLDVERSION=0.1\nVERSION=0.2\n")), "0.2");
  EXPECT_EQ(ImageVersion(Bytes("OLDVERSION=0.1\n")), std::nullopt);
  EXPECT_EQ(ImageVersion(Bytes("VERSION=\nmore")), std::nullopt);
  EXPECT_EQ(ImageVersion(Bytes("VERSION=" + std::string(65, '9'))), std::nullopt);
  EXPECT_EQ(ImageVersion({}), std::nullopt);
}

// One upgrade piece on command 0x50, written out by hand: outer frame, inner frame,
// piece header (0, piece 1, total 1, CRC-32/MPEG-2 0x89B7F734) and 30 bytes of image
// "fw\nVERSION=2.0.0 (2027-01-02)\n".
const char kUpgradeRequest[] =
    "47 74 50 00 00 00 00 36 47 74 50 00 00 00 00 2e 00 00 00 00 00 00 00 01 00 00 00 01 89 b7 f7 34 "
    "66 77 0a 56 45 52 53 49 4f 4e 3d 32 2e 30 2e 30 20 28 32 30 32 37 2d 30 31 2d 30 32 29 0a";
const char kAck50[] = "47 74 50 00 00 00 00 00";
const char kRestart[] = "47 74 10 00 00 00 00 00";

TEST(FirmwareUpgrade, NewVersionShowsOnlyAfterTheRestart) {
  auto sim = simtest::StartSim(simtest::Options("Quenta", simtest::kShippedTableDir));
  const int fd = simtest::ConnectRaw(sim->port());
  ASSERT_GE(fd, 0);
  const std::string before = sim->Value("Firmware Version");
  EXPECT_EQ(before, "1.4.2 (2026-03-18)");

  EXPECT_EQ(simtest::Exchange(fd, FromHex(kUpgradeRequest), 8), FromHex(kAck50));
  EXPECT_EQ(sim->UpgradesReceived(), 1u);
  EXPECT_EQ(sim->PendingFirmwareVersion(), "2.0.0 (2027-01-02)");
  EXPECT_EQ(sim->Value("Firmware Version"), before);

  // The restart drops the connection; the new version is there once it is over.
  sim->SetRestartDelay(50);
  EXPECT_EQ(simtest::Exchange(fd, FromHex(kRestart), 8), FromHex(kRestart));
  ::close(fd);
  ASSERT_TRUE(vktest::PollUntil([&] { return sim->RestartCount() == 1; }));
  EXPECT_EQ(sim->Value("Firmware Version"), "2.0.0 (2027-01-02)");
  EXPECT_EQ(sim->PendingFirmwareVersion(), std::nullopt);
  // A second restart changes nothing further.
  ASSERT_TRUE(sim->SetValue("Firmware Version", "1.4.2 (2026-03-18)"));
  int again = -1;
  ASSERT_TRUE(vktest::PollUntil([&] { return (again = simtest::ConnectRaw(sim->port())) >= 0; }));
  EXPECT_EQ(simtest::Exchange(again, FromHex(kRestart), 8), FromHex(kRestart));
  ::close(again);
  ASSERT_TRUE(vktest::PollUntil([&] { return sim->RestartCount() == 2; }));
  EXPECT_EQ(sim->Value("Firmware Version"), "1.4.2 (2026-03-18)");
}

TEST(FirmwareUpgrade, AFileOnAnotherCommandIsNoUpgrade) {
  auto sim = simtest::StartSim(simtest::Options("Quenta", simtest::kShippedTableDir));
  const int fd = simtest::ConnectRaw(sim->port());
  ASSERT_GE(fd, 0);
  // The same piece on command 0x51 (both command bytes changed).
  std::vector<uint8_t> request = FromHex(kUpgradeRequest);
  request[2] = 0x51;
  request[10] = 0x51;
  EXPECT_EQ(simtest::Exchange(fd, request, 8), FromHex("47 74 51 00 00 00 00 00"));
  ASSERT_TRUE(sim->LastTransfer().has_value());
  EXPECT_TRUE(sim->LastTransfer()->ok);
  EXPECT_EQ(sim->UpgradesReceived(), 0u);
  EXPECT_EQ(simtest::Exchange(fd, FromHex(kRestart), 8), FromHex(kRestart));
  EXPECT_EQ(sim->Value("Firmware Version"), "1.4.2 (2026-03-18)");
  ::close(fd);
}

}  // namespace
