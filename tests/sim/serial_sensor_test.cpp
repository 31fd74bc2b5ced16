// The small serial sensor on its pseudo-terminals, driven by the program's serial client,
// and by hand-written frames.

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <memory>

#include "serial_client.h"
#include "serial_source.h"
#include "sim_test_support.h"
#include "virtual_lidar.h"

using quarn::lidar::SerialClient;
using quarn::lidar::SerialSource;
using simtest::Hex;
using varkel::sim::SimOptions;
using varkel::sim::VirtualLidar;

namespace {

class SimSerialSensor : public ::testing::Test {
 protected:
  void SetUp() override {
    SimOptions o;
    o.model = "SimTest";
    o.config_dir = simtest::TestDataDir();
    o.port = 0;
    o.serial = true;
    sim_ = std::make_unique<VirtualLidar>(o);
    std::string error;
    ASSERT_TRUE(sim_->Start(&error)) << error;
    ASSERT_FALSE(sim_->command_port_path().empty());
    ASSERT_NE(sim_->command_port_path(), sim_->data_port_path());
  }
  void OpenClient() {
    command_ = std::make_shared<SerialSource>(sim_->command_port_path(), 9600, 3125000);
    command_->SetReceiveType(1);
    command_->SetAutoReceive(false);
    data_ = std::make_shared<SerialSource>(sim_->data_port_path(), 115200, 3000000);
    ASSERT_TRUE(command_->Open());
    ASSERT_TRUE(data_->Open());
    client_ = std::make_unique<SerialClient>(command_, data_);
  }
  void TearDown() override {
    client_.reset();
    if (command_) command_->Close();
    if (data_) data_->Close();
    sim_->Stop();
  }

  std::unique_ptr<VirtualLidar> sim_;
  std::shared_ptr<SerialSource> command_;
  std::shared_ptr<SerialSource> data_;
  std::unique_ptr<SerialClient> client_;
};

TEST_F(SimSerialSensor, AnswersTheSerialClientsGetsSetsAndOtaFrames) {
  OpenClient();
  std::vector<uint8_t> body;
  ASSERT_EQ(client_->SendCommand(3, {10, 44}, body, 10000), 0);
  EXPECT_EQ(body, Hex("03 03 0a 2c 00"));
  EXPECT_EQ(sim_->SmallSensor().spin_rate, 44);
  EXPECT_EQ(sim_->SerialCommandCount(3), 1u);
  EXPECT_EQ(sim_->LastSerialPayload(3), Hex("0a 2c"));
  ASSERT_EQ(client_->SendCommand(3, {11, 0}, body, 10000), 0);
  EXPECT_EQ(sim_->SmallSensor().mode, 11);
  ASSERT_EQ(client_->SendCommand(3, {42, 0}, body, 10000), 0);
  EXPECT_EQ(body.back(), 1) << "unknown item refused";

  std::vector<uint8_t> version{15, 0};
  version.resize(27, 0);
  ASSERT_EQ(client_->SendCommand(2, version, body, 10000), 0);
  ASSERT_EQ(body.size(), 30u);
  EXPECT_EQ(body[1], 2);
  EXPECT_EQ(body[2], 15);
  EXPECT_EQ(std::string(reinterpret_cast<const char*>(body.data()) + 4), "BMB-FPGA V1.3.7");

  ASSERT_EQ(client_->SendCommand(2, {7}, body, 10000), 0);
  ASSERT_GE(body.size(), 6u);
  EXPECT_EQ(body.size(), body[4] + 6u);
  EXPECT_EQ(std::vector<uint8_t>(body.begin() + 5, body.begin() + 5 + body[4]), sim_->SmallSensor().correction);

  ASSERT_EQ(client_->SendCommand(2, {11, 8, 3}, body, 10000), 0);
  EXPECT_EQ(body, Hex("04 02 0b 00 08 03"));
  EXPECT_EQ(sim_->SmallSensor().imu_angular_code, 8);

  auto state = sim_->SmallSensor();
  state.safety_state = 2;
  sim_->SetSmallSensor(state);
  ASSERT_EQ(client_->SendCommand(2, {8}, body, 10000), 0);
  EXPECT_EQ(body[3], 0xA1);
  EXPECT_EQ(body[4], 2);

  uint8_t cmd = 0;
  uint8_t status = 0xEE;
  const uint8_t data[] = {1, 2, 3, 4, 5};
  EXPECT_EQ(client_->SendOtaFrame(7, 9, data, sizeof(data), 0x81, cmd, status), 0);
  EXPECT_EQ(cmd, 0x81);
  EXPECT_EQ(status, 0);
  EXPECT_EQ(sim_->SmallSensor().ota_frames, 1u);

  sim_->SetLinkLost(true);
  EXPECT_EQ(client_->SendCommand(3, {10, 1}, body, 300), SerialClient::kErrBadReply);
  sim_->SetLinkLost(false);
}

int OpenRaw(const std::string& path) {
  return ::open(path.c_str(), O_RDWR | O_NOCTTY);
}

std::vector<uint8_t> ReadFor(int fd, size_t n, int timeout_ms) {
  std::vector<uint8_t> out;
  const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
  while (out.size() < n && std::chrono::steady_clock::now() < end) {
    pollfd p{fd, POLLIN, 0};
    if (::poll(&p, 1, 50) <= 0) continue;
    uint8_t buf[256];
    const ssize_t r = ::read(fd, buf, sizeof(buf));
    if (r > 0) out.insert(out.end(), buf, buf + r);
  }
  return out;
}

TEST_F(SimSerialSensor, HandWrittenFramesGetFixedReplies) {
  const int cmd = OpenRaw(sim_->command_port_path());
  const int data = OpenRaw(sim_->data_port_path());
  ASSERT_GE(cmd, 0);
  ASSERT_GE(data, 0);
  // Set spin rate 44, then an OTA frame on the data line; both replies come on the data line.
  const auto set_spin = Hex("24 4c 44 43 4d 44 2c 03 03 0a 2c d4 c3 b2 a1 12 69 15 5a ee ff");
  ASSERT_EQ(::write(cmd, set_spin.data(), set_spin.size()), static_cast<ssize_t>(set_spin.size()));
  EXPECT_EQ(ReadFor(data, 22, 10000), Hex("24 4c 44 43 4d 44 2c 03 03 0a 2c 00 02 00 ed 5e ba 01 dc c7 ee ff"));
  const auto ota =
      Hex("24 4c 44 4f 54 41 2c 00 00 00 81 00 00 00 01 00 00 00 02 00 00 00 05 de ad be ef 01 "
          "a7 5c 2e 8c ee ff");
  ASSERT_EQ(::write(data, ota.data(), ota.size()), static_cast<ssize_t>(ota.size()));
  const auto reply = ReadFor(data, 20, 10000);
  ASSERT_EQ(reply.size(), 20u);
  EXPECT_EQ(std::vector<uint8_t>(reply.begin(), reply.begin() + 10), Hex("24 4c 44 4f 54 41 2c 01 81 00"));
  ::close(cmd);
  ::close(data);
}

}  // namespace
