// The simulator against the program's own KTC client: what the client reads is what the
// table and the bank say, writes land, and each failure mode gives the client's
// documented result. Both frame versions.

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <map>
#include <memory>
#include <set>
#include <thread>

#include "config_parser.h"
#include "ktc_client.h"
#include "ktc_command_text.h"
#include "sim_test_support.h"
#include "str_parser.h"
#include "virtual_lidar.h"

using quarn::lidar::KtcClient;
using simtest::Hex;
using varkel::sim::FailureMode;
using varkel::sim::SimOptions;
using varkel::sim::VirtualLidar;

namespace {

std::unique_ptr<VirtualLidar> StartSim(const std::string& model, const std::string& dir, int version) {
  SimOptions o;
  o.model = model;
  o.config_dir = dir;
  o.port = 0;
  o.ktc_version = version;
  o.live_values = false;
  auto sim = std::make_unique<VirtualLidar>(o);
  std::string error;
  EXPECT_TRUE(sim->Start(&error)) << error;
  return sim;
}

std::unique_ptr<KtcClient> Connect(uint16_t port, int version, uint32_t recv_ms = 1500) {
  auto c = std::make_unique<KtcClient>("127.0.0.1", port, false, KtcClient::kClientTcp, static_cast<uint8_t>(version),
                                       "", "", "", recv_ms, 1500, 10.0f, 0);
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (!c->IsOpen() && std::chrono::steady_clock::now() < end)
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  EXPECT_TRUE(c->IsOpen());
  return c;
}

// Reads every variable of a table through the client and checks the slice's shown text
// against the simulator's own view; returns the texts by var_id.
std::map<std::string, std::string> ReadAll(KtcClient& client, VirtualLidar& sim, const std::string& table) {
  ConfigParser parser;
  parser.Load(table);
  std::map<std::string, std::string> shown;
  for (const auto& [cmd_text, members] : parser.get_cmd_map) {
    quarn::lidar::KtcCommandText cmd;
    EXPECT_TRUE(quarn::lidar::ParseKtcCommandText(cmd_text, cmd)) << cmd_text;
    std::set<std::vector<uint8_t>> payloads;
    for (const VarInfo* v : members) payloads.insert(v->get_cmd_payload_bytes);
    for (const auto& get_payload : payloads) {
      std::vector<uint8_t> reply;
      const int rc = client.QueryCommand(quarn::lidar::BuildCommandPayload(cmd, get_payload), reply, cmd.cmd);
      EXPECT_EQ(rc, 0) << cmd_text << " last code " << client.GetLastReturnCode();
      if (rc != 0) continue;
      if (cmd.extended) {
        // The reply carries the code back ahead of its fields.
        EXPECT_GE(reply.size(), 4u);
        if (reply.size() < 4) continue;
        EXPECT_EQ(std::vector<uint8_t>(reply.begin(), reply.begin() + 4), quarn::lidar::BuildCommandPayload(cmd, {}));
      }
      for (const VarInfo* v : members) {
        if (v->get_cmd_payload_bytes != get_payload || v->var_len == 0) continue;
        const std::set<std::string> shown_types{"IP",    "MAC",    "HWVER",   "SWVER_YMD", "string", "DT",
                                                "uint8", "uint16", "uint32",  "uint64",    "int8",   "int16",
                                                "int32", "int64",  "float32", "double"};
        if (!shown_types.count(v->var_type)) continue;
        EXPECT_LE(v->get_start_pos + v->var_len, reply.size()) << v->var_id;
        if (v->get_start_pos + v->var_len > reply.size()) continue;
        const std::vector<uint8_t> slice(reply.begin() + v->get_start_pos,
                                         reply.begin() + v->get_start_pos + v->var_len);
        const std::string text = simtest::ShownText(v->var_type, slice, v->coefficient);
        EXPECT_EQ(text, sim.Value(v->var_id)) << v->var_id << " " << v->var_name;
        shown[v->var_id] = text;
      }
    }
  }
  return shown;
}

class SimKtcContract : public ::testing::TestWithParam<int> {
 protected:
  void SetUp() override {
    sim_ = StartSim("SimTest", simtest::TestDataDir(), GetParam());
    client_ = Connect(sim_->port(), GetParam());
  }
  int Query(uint8_t cmd, const std::vector<uint8_t>& payload, std::vector<uint8_t>* reply = nullptr) {
    std::vector<uint8_t> r;
    const int rc = client_->QueryCommand(payload, r, cmd);
    if (reply) *reply = r;
    return rc == 0 ? 0 : client_->GetLastReturnCode();
  }

  std::unique_ptr<VirtualLidar> sim_;
  std::unique_ptr<KtcClient> client_;
};

TEST_P(SimKtcContract, EveryVariableReadsBackAsTheTableSays) {
  const auto shown = ReadAll(*client_, *sim_, simtest::TestDataDir() + "/SimTest.csv");
  const std::map<std::string, std::string> expected{{"1-1", "VK2411000042"},
                                                    {"1-2", "2.1.0 (REV-C)"},
                                                    {"1-3", "1.4.2 (2026-03-18)"},
                                                    {"1-4", "1 h 0 min 1 s"},
                                                    {"2-1", "192.168.1.201"},
                                                    {"2-2", "00:010:1A:FF:05:A0"},
                                                    {"2-3", "2368"},
                                                    {"3-1", "600"},
                                                    {"3-2", "-12.50"},
                                                    {"3-3", "1.25"},
                                                    {"3-4", "-0.50"},
                                                    {"3-5", "-3"},
                                                    {"3-6", "12.50"},
                                                    {"3-7", "123456789012"},
                                                    {"3-8", "-100000"},
                                                    {"3-9", "-5"},
                                                    {"4-1", "10"},
                                                    {"4-2", "350"},
                                                    {"5-1", "7"},
                                                    {"5-2", "9"},
                                                    {"6-1", "10.00"},
                                                    {"8-1", "SimTest"},
                                                    {"8-2", "45.00"}};
  EXPECT_EQ(shown, expected);
  EXPECT_EQ(sim_->Value("Restart"), "0");
}

TEST_P(SimKtcContract, ShippedTablesReadBackWhole) {
  const std::string dir = simtest::ShippedTableDir();
  auto models = ConfigParser::ListModels(dir);
  models.push_back("Marvo-KTC");
  ASSERT_NE(std::find(models.begin(), models.end(), "Quenta"), models.end());
  for (const auto& model : models) {
    SCOPED_TRACE(model);
    auto sim = StartSim(model, dir, GetParam());
    auto client = Connect(sim->port(), GetParam());
    const auto shown = ReadAll(*client, *sim, dir + "/" + model + ".csv");
    // The default model is a network lidar with whole pages of variables.
    if (model == "Quenta") EXPECT_GT(shown.size(), 20u);
    // Placeholder defaults are the program's, not the sensor's: identity reads as real text,
    // and the part number names the model so the program's model check passes.
    if (model == "Quenta") {
      EXPECT_EQ(sim->Value("SN").find("xxxx"), std::string::npos) << sim->Value("SN");
      EXPECT_NE(sim->Value("PN").find("Quenta"), std::string::npos) << sim->Value("PN");
    }
  }
}

TEST_P(SimKtcContract, WritesThroughTheCodecsReadBack) {
  auto field = [](const std::string& type, const std::string& text, float coef) {
    return MakeStrParser(type)->ParseToBytes(text, coef);
  };
  auto cat = [](std::initializer_list<std::vector<uint8_t>> parts) {
    std::vector<uint8_t> out;
    for (const auto& p : parts) out.insert(out.end(), p.begin(), p.end());
    return out;
  };
  // 0x13: speed, gain, offset, tilt (set order); 0x12: IP, MAC (decimal pieces), port.
  EXPECT_EQ(Query(0x13, cat({field("uint16", "1200", 1), field("float32", "2.5", 1), field("double", "3.25", 1),
                             field("int8", "-7", 1)})),
            0);
  EXPECT_EQ(
      Query(0x12, cat({field("IP", "10.0.0.7", 1), field("MAC", "0:1:2:3:4:255", 1), field("uint16", "8000", 1)})), 0);
  // Scale is written with set coefficient 0.25 and read with coefficient 0.5.
  EXPECT_EQ(Query(0x16, field("uint16", "7.5", 0.25f)), 0);
  // Extended set: code 0x1A06 ahead of the fields; the reply carries the code back.
  std::vector<uint8_t> reply;
  EXPECT_EQ(Query(0xFF, cat({Hex("00 00 1A 06"), field("uint16", "20", 1), field("uint16", "300", 1)}), &reply), 0);
  EXPECT_EQ(reply, Hex("00 00 1A 06"));

  EXPECT_EQ(Query(0x03, {}, &reply), 0);
  ASSERT_EQ(reply.size(), 41u);
  EXPECT_EQ(simtest::ShownText("uint16", {reply[0], reply[1]}, 1), "1200");
  EXPECT_EQ(simtest::ShownText("float32", {reply.begin() + 4, reply.begin() + 8}, 1), "2.50");
  EXPECT_EQ(simtest::ShownText("double", {reply.begin() + 8, reply.begin() + 16}, 1), "3.25");
  EXPECT_EQ(simtest::ShownText("int8", {reply[16]}, 1), "-7");
  // The read-only member of the same reply is untouched.
  EXPECT_EQ(simtest::ShownText("int16", {reply[2], reply[3]}, 0.01f), "-12.50");

  EXPECT_EQ(Query(0x02, {}, &reply), 0);
  EXPECT_EQ(reply, Hex("0A 00 00 07  00 01 02 03 04 FF  1F 40"));
  EXPECT_EQ(Query(0x06, {}, &reply), 0);
  EXPECT_EQ(reply, Hex("00 0F"));
  EXPECT_EQ(sim_->Value("Scale"), "7.50");
  EXPECT_EQ(Query(0xFF, Hex("00 00 1A 05"), &reply), 0);
  EXPECT_EQ(reply, Hex("00 00 1A 05 00 14 01 2C"));

  // The embedding side writes too, and the client sees it.
  EXPECT_TRUE(sim_->SetValue("IP Address", "172.16.0.9"));
  EXPECT_FALSE(sim_->SetValue("IP Address", "172.16.0"));
  EXPECT_FALSE(sim_->SetValue("no such variable", "1"));
  EXPECT_EQ(Query(0x02, {}, &reply), 0);
  EXPECT_EQ(std::vector<uint8_t>(reply.begin(), reply.begin() + 4), Hex("AC 10 00 09"));

  // A set payload too short for its fields is refused with the sensor's code, and changes nothing.
  EXPECT_EQ(Query(0x13, Hex("00 01")), 0x04);
  EXPECT_EQ(sim_->Value("Motor Speed"), "1200");
}

TEST_P(SimKtcContract, CountersProbesSilenceAndLinkLoss) {
  std::vector<uint8_t> reply;
  EXPECT_EQ(Query(0x07, {}), 0);
  EXPECT_EQ(Query(0x08, {}), 0);
  EXPECT_EQ(Query(0x05, Hex("02"), &reply), 0);
  EXPECT_EQ(reply, Hex("07 09"));
  // A get payload the table does not know, and a command it does not know.
  EXPECT_EQ(Query(0x05, Hex("03")), 0x04);
  EXPECT_EQ(Query(0x55, Hex("01 02")), 0x01);
  EXPECT_EQ(Query(0xFF, Hex("00 00 77 77 AA")), 0x01);
  EXPECT_EQ(sim_->CommandCount(0x05), 2u);
  EXPECT_EQ(sim_->LastPayload(0x05), Hex("03"));
  EXPECT_EQ(sim_->CommandCount(0x55), 1u);
  EXPECT_EQ(sim_->ExtendedCount(0x7777), 1u);
  EXPECT_EQ(sim_->LastExtendedPayload(0x7777), Hex("AA"));
  sim_->ResetCounters();
  EXPECT_EQ(sim_->CommandCount(0x05), 0u);
  EXPECT_TRUE(sim_->LastPayload(0x05).empty());

  // Baud rate of the small serial sensors' KTC side: set, then asked for.
  EXPECT_EQ(sim_->BaudRate(), VirtualLidar::kDefaultBaudRate);
  EXPECT_EQ(Query(0xFF, Hex("00 01 39 00 2D C6 C0")), 0);
  EXPECT_EQ(sim_->BaudRate(), 3000000u);
  EXPECT_EQ(Query(0xFF, Hex("00 01"), &reply), 0);
  EXPECT_EQ(reply, Hex("00 2D C6 C0"));

  sim_->SetSilent(7, true);
  EXPECT_EQ(Query(0x07, {}), quarn::lidar::kKtcHeaderReadFailed);
  EXPECT_EQ(Query(0x08, {}), 0);
  EXPECT_EQ(sim_->CommandCount(7), 1u);  // counted even when not answered (after the reset)
  sim_->SetSilent(7, false);
  EXPECT_EQ(Query(0x07, {}), 0);

  sim_->SetLinkLost(true);
  EXPECT_EQ(Query(0x08, {}), quarn::lidar::kKtcHeaderReadFailed);
  EXPECT_EQ(Query(0x03, {}), quarn::lidar::kKtcHeaderReadFailed);
  sim_->SetLinkLost(false);
  EXPECT_EQ(Query(0x08, {}), 0);
}

TEST_P(SimKtcContract, FailureModesGiveTheClientsCodes) {
  using quarn::lidar::kKtcHeaderReadFailed;
  using quarn::lidar::kKtcPayloadReadFailed;
  struct Case {
    FailureMode mode;
    int param;
    int expected;
  };
  const Case cases[] = {
      {FailureMode::kNoReply, 0, kKtcHeaderReadFailed},
      {FailureMode::kDelay, 100, 0},
      {FailureMode::kDelay, 3000, kKtcHeaderReadFailed},
      {FailureMode::kReturnCode, 5, 5},
      {FailureMode::kWrongEchoCmd, 0, 0 /* last code: the reply's, which is 0 */},
      {FailureMode::kWrongIdentifiers, 0, kKtcHeaderReadFailed},
      {FailureMode::kNoiseBeforeHeader, 6, 0},
      {FailureMode::kSplitHeader, 3, 0},
      {FailureMode::kLyingLength, 16, kKtcPayloadReadFailed},
      {FailureMode::kSlowDrip, 2, 0},
  };
  std::vector<uint8_t> good;
  ASSERT_EQ(Query(0x02, {}, &good), 0);
  for (const Case& c : cases) {
    sim_->SetFailure(c.mode, 0x02, c.param);
    // A connection of its own per case: a late reply must not meet the next case.
    auto client = Connect(sim_->port(), GetParam());
    std::vector<uint8_t> r;
    const int rc = client->QueryCommand({}, r, 0x02);
    EXPECT_EQ(rc == 0 ? 0 : client->GetLastReturnCode(), c.expected) << varkel::sim::FailureModeName(c.mode);
    if (c.mode == FailureMode::kWrongEchoCmd) EXPECT_EQ(rc, -1);
    if (c.expected == 0 && c.mode != FailureMode::kWrongEchoCmd)
      EXPECT_EQ(r, good) << varkel::sim::FailureModeName(c.mode);
    // Another command is not affected.
    EXPECT_EQ(Query(0x08, {}), 0) << varkel::sim::FailureModeName(c.mode);
  }
  sim_->ClearFailures();

  // Modes that end the connection: the client keeps failing until it reconnects.
  struct Ending {
    FailureMode mode;
    int expected;
  };
  for (const Ending& e : {Ending{FailureMode::kTruncatedPayload, kKtcPayloadReadFailed},
                          Ending{FailureMode::kResetMidReply, kKtcHeaderReadFailed}}) {
    auto client = Connect(sim_->port(), GetParam());
    sim_->SetFailure(e.mode, -1);
    std::vector<uint8_t> r;
    EXPECT_EQ(client->QueryCommand({}, r, 0x02), -1);
    EXPECT_EQ(client->GetLastReturnCode(), e.expected) << varkel::sim::FailureModeName(e.mode);
    sim_->ClearFailures();
  }
  // Every-command mode versus a per-command override.
  sim_->SetFailure(FailureMode::kReturnCode, -1, 9);
  sim_->SetFailure(FailureMode::kNone, 0x08);
  EXPECT_EQ(Query(0x07, {}), 9);
  sim_->SetFailure(FailureMode::kReturnCode, 0x08, 3);
  EXPECT_EQ(Query(0x08, {}), 3);
}

INSTANTIATE_TEST_SUITE_P(Versions, SimKtcContract, ::testing::Values(1, 2),
                         [](const auto& info) { return "v" + std::to_string(info.param); });

TEST(SimKtcGolden, RequestsWrittenByHandGetTheTablesReplies) {
  auto sim1 = StartSim("SimTest", simtest::TestDataDir(), 1);
  simtest::RawPeer p1(sim1->port());
  ASSERT_TRUE(p1.ok());
  ASSERT_TRUE(p1.Send(Hex("47 74 05 00 00 00 00 01 01")));
  EXPECT_EQ(p1.Read(10), Hex("47 74 05 00 00 00 00 02 07 09"));
  ASSERT_TRUE(p1.Send(Hex("47 74 07 00 00 00 00 00")));
  EXPECT_EQ(p1.Read(8), Hex("47 74 07 00 00 00 00 00"));
  // One-piece file "abc" as a frame inside a frame (command 0x0A), and its SHA-256.
  ASSERT_TRUE(
      p1.Send(Hex("47 74 0a 00 00 00 00 1b  47 74 0a 00 00 00 00 13  00 00 00 00  00 00 00 01  00 00 00 01 "
                  "9b 73 44 8c  61 62 63")));
  EXPECT_EQ(p1.Read(8), Hex("47 74 0a 00 00 00 00 00"));
  ASSERT_TRUE(sim1->LastTransfer());
  EXPECT_TRUE(sim1->LastTransfer()->ok);
  EXPECT_EQ(sim1->LastTransfer()->sha256_hex, "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");

  auto sim2 = StartSim("SimTest", simtest::TestDataDir(), 2);
  simtest::RawPeer p2(sim2->port());
  ASSERT_TRUE(p2.ok());
  ASSERT_TRUE(p2.Send(Hex("57 75 01 ff 00 00 00 00 00 00 00 04 00 00 1a 05")));
  EXPECT_EQ(p2.Read(20), Hex("57 75 01 ff 00 00 00 00 00 00 00 08 00 00 1a 05 00 0a 01 5e"));
  ASSERT_TRUE(p2.Send(Hex("57 75 01 02 00 00 00 00 00 00 00 00")));
  EXPECT_EQ(p2.Read(24), Hex("57 75 01 02 00 00 00 00 00 00 00 0c c0 a8 01 c9 00 10 1a ff 05 a0 09 40"));
}

class SimTransfers : public ::testing::Test {
 protected:
  void SetUp() override {
    sim_ = StartSim("SimTest", simtest::TestDataDir(), 1);
    client_ = Connect(sim_->port(), 1, 3000);
    for (size_t i = 0; i < data_.size(); ++i) data_[i] = static_cast<uint8_t>((i * 131) ^ (i >> 7));
  }
  std::unique_ptr<VirtualLidar> sim_;
  std::unique_ptr<KtcClient> client_;
  std::vector<uint8_t> data_ = std::vector<uint8_t>(5000);
};

TEST_F(SimTransfers, PlainAndExtendedFilesArriveWhole) {
  const std::string expected = varkel::sim::Sha256Hex(data_);
  ASSERT_EQ(expected.size(), 64u);
  std::atomic<uint32_t> progress{0};
  EXPECT_EQ(client_->TransferFile(data_, 0x0A, false, progress), 0);
  EXPECT_EQ(progress.load(), 5u);
  ASSERT_TRUE(sim_->LastTransfer());
  EXPECT_TRUE(sim_->LastTransfer()->ok);
  EXPECT_EQ(sim_->LastTransfer()->length, 5000u);
  EXPECT_EQ(sim_->LastTransfer()->sha256_hex, expected);
  EXPECT_EQ(sim_->CommandCount(0x0A), 5u);

  std::string text = "0x1A0B";
  const std::vector<uint8_t> small(data_.begin(), data_.begin() + 1500);
  EXPECT_EQ(client_->TransferFileByCmdText(small, text, progress), 0);
  EXPECT_EQ(sim_->ExtendedCount(0x1A0B), 2u);
  ASSERT_TRUE(sim_->LastTransfer());
  EXPECT_TRUE(sim_->LastTransfer()->ok);
  EXPECT_EQ(sim_->LastTransfer()->sha256_hex, varkel::sim::Sha256Hex(small));
}

TEST_F(SimTransfers, BadPiecesAndDisconnectsFailTheTransfer) {
  // A piece whose CRC does not match is refused with the sensor's code 0x02.
  std::vector<uint8_t> bad =
      Hex("47 74 0a 00 00 00 00 13  00 00 00 00  00 00 00 01  00 00 00 01  9b 73 44 8d  61 62 63");
  std::vector<uint8_t> r;
  EXPECT_EQ(client_->QueryCommand(bad, r, 0x0A), -1);
  EXPECT_EQ(client_->GetLastReturnCode(), 0x02);
  ASSERT_TRUE(sim_->LastTransfer());
  EXPECT_FALSE(sim_->LastTransfer()->ok);

  sim_->SetFailure(FailureMode::kDisconnectAfterPieces, 0x0A, 2);
  std::atomic<uint32_t> progress{0};
  EXPECT_EQ(client_->TransferFile(data_, 0x0A, false, progress), -1);
  EXPECT_EQ(progress.load(), 3u);
  // The sensor notices the lost connection and records the file as failed.
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (std::chrono::steady_clock::now() < end && (!sim_->LastTransfer() || sim_->LastTransfer()->length != 2048))
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  ASSERT_TRUE(sim_->LastTransfer());
  EXPECT_EQ(sim_->LastTransfer()->length, 2048u);
  EXPECT_FALSE(sim_->LastTransfer()->ok);
}

TEST(SimStart, ClearErrorsForAMissingTableOrABusyPort) {
  SimOptions o;
  o.model = "NoSuchModel";
  o.config_dir = simtest::TestDataDir();
  o.port = 0;
  VirtualLidar missing(o);
  std::string error;
  EXPECT_FALSE(missing.Start(&error));
  EXPECT_EQ(error, "model table not found: " + simtest::TestDataDir() + "/NoSuchModel.csv");

  auto first = StartSim("SimTest", simtest::TestDataDir(), 1);
  o.model = "SimTest";
  o.port = first->port();
  VirtualLidar second(o);
  EXPECT_FALSE(second.Start(&error));
  EXPECT_EQ(error, "port " + std::to_string(first->port()) + " on 127.0.0.1 is already in use");

  // Moving values: the run time counts up while live.
  o.port = 0;
  o.live_values = true;
  VirtualLidar live(o);
  ASSERT_TRUE(live.Start(&error)) << error;
  EXPECT_TRUE(live.SetValue("Run Time", "0"));
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (std::chrono::steady_clock::now() < end && live.Value("Run Time") == "0 h 0 min 0 s")
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  EXPECT_EQ(live.Value("Run Time").rfind("0 h 0 min ", 0), 0u);
  EXPECT_NE(live.Value("Run Time"), "0 h 0 min 0 s");
}

}  // namespace
