// Command and OTA exchanges end to end: commands go out on one pseudo-terminal (UART),
// replies come back on the other (RS485), where the sensor also streams data.
#include "serial_client.h"

#include <gtest/gtest.h>

#include <future>
#include <thread>

#include "hex_text.h"
#include "serial_frame.h"
#include "test_support.h"

namespace quarn::lidar {
namespace {

using test_support::Cat;
using test_support::Hex;
using test_support::Pty;

const auto kCommandReply = Hex("24 4c 44 43 4d 44 2c 03 0a 0b 00 00 04 03 02 01 19 7b 5e ed ee ff");
const auto kOtaReply = Hex("24 4c 44 4f 54 41 2c 01 81 00 0d 0c 0b 0a db 3b 9a 0c ee ff");

class SerialClientTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(uart_.ok() && rs485_.ok());
    command_ = std::make_shared<SerialSource>(uart_.SlavePath(), 9600, 3125000);
    command_->SetReceiveType(1);
    command_->SetAutoReceive(false);
    data_ = std::make_shared<SerialSource>(rs485_.SlavePath(), 115200, 3000000);
    ASSERT_TRUE(command_->Open());
    ASSERT_TRUE(data_->Open());
    client_ = std::make_unique<SerialClient>(command_, data_);
    client_->SetLogCallback([this](const std::string& line) {
      std::lock_guard<std::mutex> lock(lines_mutex_);
      lines_.push_back(line);
    });
  }
  std::vector<std::string> Lines() {
    std::lock_guard<std::mutex> lock(lines_mutex_);
    return lines_;
  }

  Pty uart_;
  Pty rs485_;
  std::shared_ptr<SerialSource> command_;
  std::shared_ptr<SerialSource> data_;
  std::unique_ptr<SerialClient> client_;
  std::mutex lines_mutex_;
  std::vector<std::string> lines_;
};

TEST_F(SerialClientTest, CommandRoundTripAmidStreamedData) {
  std::vector<uint8_t> request;
  std::thread sensor([&] {
    request = uart_.ReadRequest(10000);
    rs485_.Write(Cat({Hex("11 22 33"), kCommandReply, Hex("44 55")}));
  });
  std::vector<uint8_t> body;
  EXPECT_EQ(client_->SendCommand(0x0A, {0x0B, 0x00}, body, 10000), 0);
  sensor.join();
  EXPECT_EQ(body, Hex("03 0a 0b 00 00"));

  // What reached the sensor is the request for this command, with whatever nonce it drew.
  ASSERT_EQ(request.size(), 21u);
  const uint32_t nonce = request[11] | request[12] << 8 | request[13] << 16 | static_cast<uint32_t>(request[14]) << 24;
  EXPECT_EQ(request, BuildCommandFrame(0x0A, {0x0B, 0x00}, nonce));

  const auto lines = Lines();
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_EQ(lines[0], "SEND: " + ToHexSpaced(request));
  EXPECT_EQ(lines[1], "RECV: " + ToHexSpaced(kCommandReply));
}

TEST_F(SerialClientTest, SilenceAndBadRepliesAreCheckFailures) {
  std::vector<uint8_t> body;
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(client_->SendCommand(0x01, {}, body, 200), SerialClient::kErrBadReply);
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(200));
  EXPECT_EQ(Lines().back(), "RECV: ");
  EXPECT_EQ(uart_.ReadRequest(5000).size(), 19u);

  auto corrupt = kCommandReply;
  corrupt[9] ^= 0x40;
  std::thread sensor([&] {
    uart_.ReadRequest(10000);
    rs485_.Write(corrupt);
  });
  EXPECT_EQ(client_->SendCommand(0x0A, {0x0B, 0x00}, body, 10000), SerialClient::kErrBadReply);
  sensor.join();
  EXPECT_TRUE(body.empty());
}

TEST_F(SerialClientTest, ClosedSourcesAndVanishingReplyLine) {
  std::vector<uint8_t> body;
  auto waiting = std::async(std::launch::async, [&] { return client_->SendCommand(0x02, {0x01}, body, 60000); });
  uart_.ReadRequest(10000);  // the command went out; the reply never comes
  rs485_.CloseMaster();
  ASSERT_EQ(waiting.wait_for(std::chrono::seconds(10)), std::future_status::ready);
  EXPECT_EQ(waiting.get(), SerialClient::kErrReadFailed);
  EXPECT_EQ(client_->SendCommand(0x02, {0x01}, body, 100), SerialClient::kErrNotReady);

  SerialClient missing(command_, nullptr);
  EXPECT_EQ(missing.SendCommand(0x02, {}, body, 100), SerialClient::kErrNotReady);
  uint8_t cmd = 0, status = 0;
  EXPECT_EQ(missing.SendOtaFrame(1, 2, nullptr, 0, 3, cmd, status), SerialClient::kErrNotReady);
  command_->Close();
  SerialClient closed(command_, data_);
  EXPECT_EQ(closed.WaitReply(cmd, status, 10), SerialClient::kErrNotReady);
}

TEST_F(SerialClientTest, OtaFrameGoesOutOnTheDataLineAndItsReplyIsRead) {
  const std::vector<uint8_t> image = {0xDE, 0xAD, 0xBE, 0xEF, 0x01};
  std::vector<uint8_t> frame;
  std::thread sensor([&] {
    frame = rs485_.ReadRequest(10000);
    rs485_.Write(kOtaReply);
  });
  uint8_t cmd = 0, status = 0xFF;
  EXPECT_EQ(client_->SendOtaFrame(1, 0x400, image.data(), static_cast<uint32_t>(image.size()), 0x02, cmd, status), 0);
  sensor.join();
  EXPECT_EQ(cmd, 0x81);
  EXPECT_EQ(status, 0x00);
  EXPECT_EQ(frame, BuildOtaFrame(0x02, 1, 0x400, image.data(), image.size()));
  EXPECT_EQ(Lines().back(), "RECV: " + ToHexSpaced(kOtaReply));

  // A command-style reply (CRC least significant first) does not pass as an OTA reply.
  rs485_.Write(kCommandReply);
  EXPECT_EQ(client_->WaitReply(cmd, status, 10000), SerialClient::kErrBadReply);
}

}  // namespace
}  // namespace quarn::lidar
