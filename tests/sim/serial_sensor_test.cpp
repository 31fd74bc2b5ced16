// The small serial sensor on its pseudo-terminals, driven by the program's serial client.
// Its frames are held against fixed bytes in wire_test.cpp.

#include "serial_client.h"
#include "serial_source.h"
#include "sim_test_support.h"

using quarn::lidar::SerialClient;
using quarn::lidar::SerialSource;
using simtest::Hex;

TEST(SimSerialSensor, AnswersTheSerialClientsGetsSetsAndOtaFrames) {
  auto o = simtest::Options();
  o.serial = true;
  auto sim = simtest::StartSim(o);
  auto command = std::make_shared<SerialSource>(sim->command_port_path(), 9600, 3125000);
  command->SetReceiveType(1);
  command->SetAutoReceive(false);
  auto data = std::make_shared<SerialSource>(sim->data_port_path(), 115200, 3000000);
  ASSERT_TRUE(command->Open());
  ASSERT_TRUE(data->Open());
  SerialClient client(command, data);

  // Sets: spin rate 44, mode 11, and an unknown item refused with status 1.
  std::vector<uint8_t> body;
  ASSERT_EQ(client.SendCommand(3, {10, 44}, body, 10000), 0);
  EXPECT_EQ(body, Hex("03 03 0a 2c 00"));
  EXPECT_EQ(sim->SerialCommandCount(3), 1u);
  EXPECT_EQ(sim->LastSerialPayload(3), Hex("0a 2c"));
  ASSERT_EQ(client.SendCommand(3, {11, 0}, body, 10000), 0);
  ASSERT_EQ(client.SendCommand(3, {42, 0}, body, 10000), 0);
  EXPECT_EQ(body, Hex("03 03 2a 00 01"));
  EXPECT_EQ(sim->SmallSensor().spin_rate, 44);
  EXPECT_EQ(sim->SmallSensor().mode, 11);

  std::vector<uint8_t> version{15, 0};
  version.resize(27, 0);
  ASSERT_EQ(client.SendCommand(2, version, body, 10000), 0);
  ASSERT_EQ(body.size(), 30u);
  EXPECT_EQ(body[1], 2);
  EXPECT_EQ(body[2], 15);
  EXPECT_EQ(std::string(reinterpret_cast<const char*>(body.data()) + 4), "BMB-FPGA V1.3.7");

  ASSERT_EQ(client.SendCommand(2, {7}, body, 10000), 0);
  ASSERT_GE(body.size(), 6u);
  EXPECT_EQ(body.size(), body[4] + 6u);
  EXPECT_EQ(std::vector<uint8_t>(body.begin() + 5, body.begin() + 5 + body[4]), sim->SmallSensor().correction);

  ASSERT_EQ(client.SendCommand(2, {11, 8, 3}, body, 10000), 0);
  EXPECT_EQ(body, Hex("04 02 0b 00 08 03"));
  EXPECT_EQ(sim->SmallSensor().imu_angular_code, 8);

  auto state = sim->SmallSensor();
  state.safety_state = 2;
  sim->SetSmallSensor(state);
  ASSERT_EQ(client.SendCommand(2, {8}, body, 10000), 0);
  EXPECT_EQ(body[3], 0xA1);
  EXPECT_EQ(body[4], 2);

  uint8_t cmd = 0, status = 0xEE;
  const uint8_t bytes[] = {1, 2, 3, 4, 5};
  EXPECT_EQ(client.SendOtaFrame(7, 9, bytes, sizeof(bytes), 0x81, cmd, status), 0);
  EXPECT_EQ(cmd, 0x81);
  EXPECT_EQ(status, 0);
  EXPECT_EQ(sim->SmallSensor().ota_frames, 1u);

  sim->SetLinkLost(true);
  EXPECT_EQ(client.SendCommand(3, {10, 1}, body, 300), SerialClient::kErrBadReply);
  sim->SetLinkLost(false);
}
