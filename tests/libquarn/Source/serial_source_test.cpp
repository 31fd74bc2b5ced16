// The serial source over pseudo-terminals; the test plays the sensor on the master side.
#include "serial_source.h"

#include <gtest/gtest.h>

#include <future>
#include <thread>

#include "test_support.h"

namespace quarn::lidar {

// terminal_rate.cpp: the rate the terminal itself reports, through a second descriptor.
uint32_t TerminalRate(const std::string& path);

namespace {

using test_support::Cat;
using test_support::Hex;
using test_support::LogCapture;
using test_support::Pty;
using Clock = std::chrono::steady_clock;

const auto kReply = Hex("24 4c 44 43 4d 44 2c 03 0a 0b 00 00 04 03 02 01 19 7b 5e ed ee ff");

class SerialSourceModes : public ::testing::TestWithParam<bool> {};

TEST(SerialSource, ReceiveTypeChoosesTheRateAndFastRatesAreHonoured) {
  Pty pty;
  ASSERT_TRUE(pty.ok());
  LogCapture log;
  for (const uint32_t rate : {9600u, 3000000u, 3125000u}) {
    SerialSource source(pty.SlavePath(), 115200, rate);
    source.SetAutoReceive(false);
    if (!source.Open()) {
      // A terminal that refuses the rate must say so; it must not pretend.
      EXPECT_TRUE(log.Has(kLogError, "SerialSource::Open(), port " + pty.SlavePath(), true)) << rate;
      EXPECT_FALSE(source.IsOpened());
      continue;
    }
    EXPECT_EQ(source.OpenBaudRate(), rate);
    EXPECT_EQ(TerminalRate(pty.SlavePath()), rate);
  }
  SerialSource type1(pty.SlavePath(), 115200, 3000000);
  type1.SetReceiveType(1);
  ASSERT_TRUE(type1.Open());
  EXPECT_EQ(type1.OpenBaudRate(), 115200u);
  type1.Close();

  SerialSource other(pty.SlavePath(), 115200, 3000000);
  other.SetReceiveType(2);
  EXPECT_FALSE(other.Open());
  EXPECT_TRUE(log.Has(kLogError, "not support receiveStype, open error"));

  SerialSource missing("/dev/ttyVARKEL-none", 9600, 9600);
  EXPECT_FALSE(missing.Open());
  EXPECT_FALSE(missing.IsOpened());
  uint8_t buf[16];
  EXPECT_EQ(missing.Receive(buf, sizeof(buf), 10), -1);
  EXPECT_EQ(missing.Send(buf, 1, 0), -1);
  EXPECT_EQ(missing.Clear(SerialSource::kClearInput), -1);
}

TEST_P(SerialSourceModes, RepliesAndDataArriveWholeAndApart) {
  Pty pty;
  ASSERT_TRUE(pty.ok());
  SerialSource source(pty.SlavePath(), 9600, 3000000);
  source.SetAutoReceive(GetParam());
  ASSERT_TRUE(source.Open());

  // Data, then a reply cut in two with a pause between, then more data.
  ASSERT_TRUE(pty.Write(Cat({Hex("aa bb cc"), std::vector<uint8_t>(kReply.begin(), kReply.begin() + 9)})));
  std::thread sensor([&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(60));
    pty.Write(Cat({std::vector<uint8_t>(kReply.begin() + 9, kReply.end()), Hex("dd ee")}));
  });
  uint8_t buf[kPacketSlotDataSize];
  const int n = source.Receive(buf, sizeof(buf), 10000);
  sensor.join();
  ASSERT_EQ(n, static_cast<int>(kReply.size()));
  EXPECT_EQ(std::vector<uint8_t>(buf, buf + n), kReply);

  std::vector<uint8_t> data;
  while (data.size() < 5) {
    const int d = source.ReceiveData(buf, sizeof(buf), 5000);
    ASSERT_GT(d, 0);
    data.insert(data.end(), buf, buf + d);
  }
  EXPECT_EQ(data, Hex("aa bb cc dd ee"));

  // Send reaches the sensor as it is.
  ASSERT_EQ(source.Send(kReply.data(), static_cast<uint16_t>(kReply.size()), 0), static_cast<int>(kReply.size()));
  EXPECT_EQ(pty.Read(kReply.size(), 5000), kReply);
}

TEST_P(SerialSourceModes, SilenceTimesOutAndClearDropsStaleReplies) {
  Pty pty;
  ASSERT_TRUE(pty.ok());
  SerialSource source(pty.SlavePath(), 9600, 3000000);
  source.SetAutoReceive(GetParam());
  ASSERT_TRUE(source.Open());
  uint8_t buf[kPacketSlotDataSize];
  const auto start = Clock::now();
  EXPECT_EQ(source.Receive(buf, sizeof(buf), 150), 0);
  EXPECT_GE(Clock::now() - start, std::chrono::milliseconds(150));

  UdpPacket packet;
  EXPECT_EQ(source.Receive(packet, 1500, 0, 20000), 0);
  EXPECT_TRUE(packet.timeout);

  // Whether the reply already sits in the ring (thread) or still in the port (direct),
  // clearing drops it.
  ASSERT_TRUE(pty.Write(kReply));
  std::this_thread::sleep_for(std::chrono::milliseconds(100));
  EXPECT_EQ(source.Clear(SerialSource::kClearInput), 0);
  EXPECT_EQ(source.Receive(buf, sizeof(buf), 100), 0);
}

TEST_P(SerialSourceModes, CloseWakesAWaitingReader) {
  Pty pty;
  ASSERT_TRUE(pty.ok());
  SerialSource source(pty.SlavePath(), 9600, 3000000);
  source.SetAutoReceive(GetParam());
  ASSERT_TRUE(source.Open());
  auto reader = std::async(std::launch::async, [&] {
    uint8_t buf[kPacketSlotDataSize];
    return source.Receive(buf, sizeof(buf), 60000);
  });
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  const auto start = Clock::now();
  source.Close();
  ASSERT_EQ(reader.wait_for(std::chrono::seconds(10)), std::future_status::ready);
  EXPECT_EQ(reader.get(), -1);
  EXPECT_LT(Clock::now() - start, std::chrono::seconds(10));
  EXPECT_FALSE(source.IsOpened());
  source.Close();  // twice is harmless
}

TEST_P(SerialSourceModes, VanishedDeviceEndsReadsAndSaysWhy) {
  Pty pty;
  ASSERT_TRUE(pty.ok());
  LogCapture log;
  SerialSource source(pty.SlavePath(), 9600, 3000000);
  source.SetAutoReceive(GetParam());
  ASSERT_TRUE(source.Open());
  auto reader = std::async(std::launch::async, [&] {
    uint8_t buf[kPacketSlotDataSize];
    return source.Receive(buf, sizeof(buf), 60000);
  });
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  pty.CloseMaster();
  ASSERT_EQ(reader.wait_for(std::chrono::seconds(10)), std::future_status::ready);
  EXPECT_EQ(reader.get(), -1);
  EXPECT_FALSE(source.IsOpened());
  EXPECT_TRUE(source.DeviceLost());
  const std::string why = GetParam() ? "SerialSource receive thread ended, port " : "SerialSource read failed, port ";
  EXPECT_TRUE(log.Has(kLogError, why + pty.SlavePath() + ": device gone", true));
  uint8_t byte = 0;
  EXPECT_EQ(source.Send(&byte, 1, 0), -1);
  source.Close();
}

INSTANTIATE_TEST_SUITE_P(ThreadAndDirect, SerialSourceModes, ::testing::Bool(),
                         [](const auto& info) { return info.param ? "ReceiveThread" : "DirectRead"; });

}  // namespace
}  // namespace quarn::lidar
