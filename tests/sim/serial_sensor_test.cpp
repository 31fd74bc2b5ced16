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

  // The 3 KiB correction data in 13 pieces of 240 bytes (the last 192): [7] asks for the
  // first, [7, k] for piece k; each tells the number of pieces. Byte i is i * 7 + 3.
  ASSERT_EQ(client.SendCommand(2, {7}, body, 10000), 0);
  ASSERT_EQ(body.size(), 246u);
  EXPECT_EQ(std::vector<uint8_t>(body.begin(), body.begin() + 8), Hex("f4 02 07 0d f0 03 0a 11"));
  EXPECT_EQ(body.back(), 0);
  ASSERT_EQ(client.SendCommand(2, {7, 12}, body, 10000), 0);
  ASSERT_EQ(body.size(), 198u);
  EXPECT_EQ(std::vector<uint8_t>(body.begin(), body.begin() + 7), Hex("c4 02 07 0d c0 c3 ca"));
  ASSERT_EQ(client.SendCommand(2, {7, 13}, body, 10000), 0);
  EXPECT_EQ(body, Hex("02 02 07 01"));

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
  // An unknown frame type is answered, and refused.
  EXPECT_EQ(client.SendOtaFrame(7, 9, bytes, sizeof(bytes), 0x81, cmd, status), 0);
  EXPECT_EQ(cmd, 0x81);
  EXPECT_EQ(status, 3);
  EXPECT_EQ(client.SendOtaFrame(5, 0, nullptr, 0, 0x01, cmd, status), 0);
  EXPECT_EQ(cmd, 0x01);
  EXPECT_EQ(status, 0);
  EXPECT_EQ(sim->SmallSensor().ota_frames, 2u);

  sim->SetLinkLost(true);
  EXPECT_EQ(client.SendCommand(3, {10, 1}, body, 300), SerialClient::kErrBadReply);
  sim->SetLinkLost(false);
}

// "Zelto-KTC" over KTC: the serial requests ride as KTC commands 2 and 3 and come back as the
// serial body; 0x08 gives the network block, 0x20 sets the destination.
TEST(SimSerialSensor, KtcModelsAnswerTheSmallSensorRequests) {
  auto sim = simtest::StartSim(simtest::Options("Zelto-KTC", simtest::kShippedTableDir));
  auto c = simtest::Connect(sim->port());
  std::vector<uint8_t> reply;
  ASSERT_EQ(c->QueryCommand(Hex("0a 2c"), reply, 3), 0);
  EXPECT_EQ(reply, Hex("03 03 0a 2c 00"));
  EXPECT_EQ(sim->SmallSensor().spin_rate, 44);
  ASSERT_EQ(c->QueryCommand(Hex("0a 01"), reply, 2), 0);
  EXPECT_EQ(reply, Hex("12 02 0a 01 5a 54 32 34 31 31 30 30 30 31 32 33 00 00 00 00"));  // "ZT2411000123"
  std::vector<uint8_t> pbl = Hex("0f 05");
  pbl.resize(27, 0);
  ASSERT_EQ(c->QueryCommand(pbl, reply, 2), 0);
  ASSERT_EQ(reply.size(), 30u);
  EXPECT_EQ(std::vector<uint8_t>(reply.begin(), reply.begin() + 14), Hex("1c 02 0f 05 50 42 4c 20 56 31 2e 30 2e 31"));
  EXPECT_EQ(std::vector<uint8_t>(reply.end() - 2, reply.end()), Hex("00 00"));

  ASSERT_EQ(c->QueryCommand({}, reply, 0x08), 0);
  EXPECT_EQ(reply, Hex("c0 a8 01 c9 ff ff ff 00 c0 a8 01 01 c0 a8 01 64 09 40"));
  std::vector<uint8_t> set_reply;
  ASSERT_EQ(c->QueryCommand(Hex("0a 01 02 03 0f a0"), set_reply, 0x20), 0);
  EXPECT_TRUE(set_reply.empty());
  ASSERT_EQ(c->QueryCommand({}, reply, 0x08), 0);
  EXPECT_EQ(std::vector<uint8_t>(reply.begin() + 12, reply.end()), Hex("0a 01 02 03 0f a0"));
  EXPECT_EQ(c->QueryCommand(Hex("0a 01 02"), reply, 0x20), -1);
  EXPECT_EQ(c->GetLastReturnCode(), 0x04);

  // A table-driven model knows none of it.
  auto quenta = simtest::StartSim(simtest::Options("Quenta", simtest::kShippedTableDir));
  auto q = simtest::Connect(quenta->port());
  EXPECT_EQ(q->QueryCommand(Hex("0a 2c"), reply, 3), -1);
  EXPECT_EQ(q->GetLastReturnCode(), 0x01);
}
