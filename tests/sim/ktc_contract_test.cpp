// The simulator against the program's own KTC client and value reading: what the program
// reads is what the table and the bank say, writes land, and each failure mode gives the
// client's documented result. Both frame versions.

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <map>
#include <sstream>
#include <tuple>

#include "config_parser.h"
#include "ktc_command_text.h"
#include "sim_test_support.h"
#include "str_parser.h"
#include "value_text.h"

namespace ql = quarn::lidar;
using quarn::lidar::kKtcHeaderReadFailed;
using quarn::lidar::kKtcPayloadReadFailed;
using quarn::lidar::KtcClient;
using simtest::Hex;
using simtest::Options;
using simtest::StartSim;
using varkel::sim::FailureMode;
using varkel::sim::VirtualLidar;

namespace {

// Reads every variable of a table through the client, turns each slice into the text the
// pages show and checks it against the simulator's own view; returns the texts by var_id.
std::map<std::string, std::string> ReadAll(KtcClient& client, VirtualLidar& sim, const std::string& table) {
  ConfigParser parser;
  parser.Load(table);
  std::map<std::string, std::string> shown;
  for (const auto& [cmd_text, members] : parser.get_cmd_map) {
    ql::KtcCommandText cmd;
    EXPECT_TRUE(ql::ParseKtcCommandText(cmd_text, cmd)) << cmd_text;
    for (const VarInfo* v : members) {
      // Logs are downloads, not values shown on a page (the maintenance tests fetch them).
      if (v->var_type == "raw" && v->var_len == 0 && v->set_cmd.empty()) continue;
      std::vector<uint8_t> reply;
      EXPECT_EQ(client.QueryCommand(ql::BuildCommandPayload(cmd, v->get_cmd_payload_bytes), reply, cmd.cmd), 0)
          << v->var_id << " last code " << client.GetLastReturnCode();
      EXPECT_LE(v->get_start_pos + v->var_len, reply.size()) << v->var_id;
      if (v->var_len == 0 || v->get_start_pos + v->var_len > reply.size()) continue;
      const auto at = reply.begin() + v->get_start_pos;
      const auto t = varkel::BytesToValueText(v->var_type, {at, at + v->var_len}, v->coefficient);
      if (!t.ok && t.text.find("not support") != std::string::npos) continue;  // not shown on the pages
      EXPECT_TRUE(t.ok) << v->var_id << ": " << t.text;
      EXPECT_EQ(t.text, sim.Value(v->var_id)) << v->var_id << " " << v->var_name;
      shown[v->var_id] = t.text;
    }
  }
  return shown;
}

// "var_id=text;var_id=text;..." as a map.
std::map<std::string, std::string> Texts(const std::string& list) {
  std::map<std::string, std::string> out;
  std::istringstream in(list);
  for (std::string item; std::getline(in, item, ';');)
    out[item.substr(0, item.find('='))] = item.substr(item.find('=') + 1);
  return out;
}

// What the program shows for SimTest.csv as loaded (written from the table, by hand).
const auto kSimTestShown = Texts(
    "1-1=VK2411000042;1-2=2.1.0 (REV-C);1-3=1.4.2 (2026-03-18);1-4=1 h 0 min 1 s;2-1=192.168.1.201;"
    "2-2=00:010:1A:FF:05:A0;2-3=2368;3-1=600;3-2=-12.50;3-3=1.25;3-4=-0.50;3-5=-3;3-6=12.50;3-7=123456789012;"
    "3-8=-100000;3-9=-5;4-1=10;4-2=350;5-1=7;5-2=9;6-1=10.00;8-1=SimTest;8-2=45.00");

class SimKtcContract : public ::testing::TestWithParam<int> {
 protected:
  void SetUp() override {
    sim_ = StartSim(Options(), GetParam());
    client_ = simtest::Connect(sim_->port(), GetParam());
  }
  // 0 on success, else the client's last return code.
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
  EXPECT_EQ(ReadAll(*client_, *sim_, simtest::kTestDataDir + "/SimTest.csv"), kSimTestShown);
  EXPECT_EQ(sim_->Value("Restart"), "0");
}

TEST_P(SimKtcContract, ShippedTablesReadBackWhole) {
  const std::string dir = simtest::kShippedTableDir;
  auto models = ConfigParser::ListModels(dir);
  models.push_back("Marvo-KTC");
  ASSERT_NE(std::find(models.begin(), models.end(), "Quenta"), models.end());
  for (const auto& model : models) {
    SCOPED_TRACE(model);
    auto sim = StartSim(Options(model, dir), GetParam());
    const auto shown = ReadAll(*simtest::Connect(sim->port(), GetParam()), *sim, dir + "/" + model + ".csv");
    if (model != "Quenta") continue;
    // The default model is a network lidar with whole pages of variables. Placeholder
    // defaults are the program's, not the sensor's: identity reads as real text, and the
    // part number names the model so the program's model check passes.
    EXPECT_GT(shown.size(), 20u);
    EXPECT_EQ(sim->Value("SN").find("xxxx"), std::string::npos) << sim->Value("SN");
    EXPECT_NE(sim->Value("PN").find("Quenta"), std::string::npos) << sim->Value("PN");
  }
}

TEST_P(SimKtcContract, WritesThroughTheCodecsReadBack) {
  // A set payload from the program's codecs: {type, shown text} in set order.
  auto fields = [](std::vector<uint8_t> out, std::vector<std::pair<std::string, std::string>> texts, float coef = 1) {
    for (const auto& [type, text] : texts) {
      const auto b = MakeStrParser(type)->ParseToBytes(text, coef);
      out.insert(out.end(), b.begin(), b.end());
    }
    return out;
  };
  EXPECT_EQ(Query(0x13, fields({}, {{"uint16", "1200"}, {"float32", "2.5"}, {"double", "3.25"}, {"int8", "-7"}})), 0);
  // The MAC is written in decimal pieces.
  EXPECT_EQ(Query(0x12, fields({}, {{"IP", "10.0.0.7"}, {"MAC", "0:1:2:3:4:255"}, {"uint16", "8000"}})), 0);
  // Scale is written with set coefficient 0.25 and read with coefficient 0.5.
  EXPECT_EQ(Query(0x16, fields({}, {{"uint16", "7.5"}}, 0.25f)), 0);
  // Extended set: code 0x1A06 ahead of the fields; the reply carries the code back.
  std::vector<uint8_t> reply;
  EXPECT_EQ(Query(0xFF, fields(Hex("00 00 1A 06"), {{"uint16", "20"}, {"uint16", "300"}}), &reply), 0);
  EXPECT_EQ(reply, Hex("00 00 1A 06"));
  EXPECT_EQ(Query(0x02, {}, &reply), 0);
  EXPECT_EQ(reply, Hex("0A 00 00 07  00 01 02 03 04 FF  1F 40"));

  // Read-only members of the same replies keep their values.
  auto expected =
      Texts("2-1=10.0.0.7;2-2=00:01:02:03:04:FF;2-3=8000;3-1=1200;3-3=2.50;3-4=3.25;3-5=-7;4-1=20;4-2=300;6-1=7.50");
  expected.insert(kSimTestShown.begin(), kSimTestShown.end());
  EXPECT_EQ(ReadAll(*client_, *sim_, simtest::kTestDataDir + "/SimTest.csv"), expected);

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
  EXPECT_EQ(Query(0x07, {}), kKtcHeaderReadFailed);
  EXPECT_EQ(Query(0x08, {}), 0);
  EXPECT_EQ(sim_->CommandCount(7), 1u);  // counted even when not answered (after the reset)
  sim_->SetSilent(7, false);
  EXPECT_EQ(Query(0x07, {}), 0);

  sim_->SetLinkLost(true);
  EXPECT_EQ(Query(0x08, {}), kKtcHeaderReadFailed);
  EXPECT_EQ(Query(0x03, {}), kKtcHeaderReadFailed);
  sim_->SetLinkLost(false);
  EXPECT_EQ(Query(0x08, {}), 0);
}

TEST_P(SimKtcContract, FailureModesGiveTheClientsCodes) {
  // {mode, its parameter, the client's result: 0 or its last return code}
  const std::tuple<FailureMode, int, int> cases[] = {
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
      {FailureMode::kTruncatedPayload, 0, kKtcPayloadReadFailed},
      {FailureMode::kResetMidReply, 0, kKtcHeaderReadFailed},
  };
  std::vector<uint8_t> good;
  ASSERT_EQ(Query(0x02, {}, &good), 0);
  for (const auto& [mode, param, expected] : cases) {
    SCOPED_TRACE(varkel::sim::FailureModeName(mode));
    sim_->SetFailure(mode, 0x02, param);
    // A connection of its own per case: a late reply must not meet the next case.
    auto client = simtest::Connect(sim_->port(), GetParam());
    std::vector<uint8_t> r;
    const int rc = client->QueryCommand({}, r, 0x02);
    EXPECT_EQ(rc == 0 ? 0 : client->GetLastReturnCode(), expected);
    if (mode == FailureMode::kWrongEchoCmd) EXPECT_EQ(rc, -1);
    if (expected == 0 && mode != FailureMode::kWrongEchoCmd) EXPECT_EQ(r, good);
    // Another command is not affected.
    EXPECT_EQ(Query(0x08, {}), 0);
  }
  sim_->ClearFailures();

  // Every-command mode versus a per-command override.
  sim_->SetFailure(FailureMode::kReturnCode, -1, 9);
  EXPECT_EQ(Query(0x07, {}), 9);
  sim_->SetFailure(FailureMode::kReturnCode, 0x08, 3);
  EXPECT_EQ(Query(0x08, {}), 3);
}

INSTANTIATE_TEST_SUITE_P(Versions, SimKtcContract, ::testing::Values(1, 2),
                         [](const auto& info) { return "v" + std::to_string(info.param); });

// The last file the sensor took in, as {ok, length, SHA-256}.
std::tuple<bool, uint32_t, std::string> LastFile(const VirtualLidar& sim) {
  const auto t = sim.LastTransfer();
  return t ? std::make_tuple(t->ok, t->length, t->sha256_hex) : std::make_tuple(false, 0u, std::string("none"));
}

TEST(SimKtcGolden, RequestsWrittenByHandGetTheTablesReplies) {
  auto sim1 = StartSim(Options(), 1);
  auto sim2 = StartSim(Options(), 2);
  const int v1 = simtest::ConnectRaw(sim1->port());
  const int v2 = simtest::ConnectRaw(sim2->port());
  ASSERT_TRUE(v1 >= 0 && v2 >= 0);
  auto exchange = [](int fd, const std::string& request, const std::string& reply) {
    EXPECT_EQ(simtest::Exchange(fd, Hex(request), Hex(reply).size()), Hex(reply)) << request;
  };
  exchange(v1, "47 74 05 00 00 00 00 01 01", "47 74 05 00 00 00 00 02 07 09");
  exchange(v1, "47 74 07 00 00 00 00 00", "47 74 07 00 00 00 00 00");
  // One-piece file "abc" as a frame inside a frame (command 0x0A), and its SHA-256.
  exchange(v1, "47 74 0a 00 00 00 00 1b  47 74 0a 00 00 00 00 13  00000000 00000001 00000001 9b73448c 616263",
           "47 74 0a 00 00 00 00 00");
  EXPECT_EQ(LastFile(*sim1),
            std::make_tuple(true, 3u, "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad"));
  exchange(v2, "57 75 01 ff 00000000 00000004 00001a05", "57 75 01 ff 00000000 00000008 00001a05 000a 015e");
  exchange(v2, "57 75 01 02 00000000 00000000", "57 75 01 02 00000000 0000000c c0a801c9 00101aff05a0 0940");
  ::close(v1);
  ::close(v2);
}

TEST(SimTransfers, FilesArriveWholeAndBadPiecesOrDisconnectsFail) {
  auto sim = StartSim(Options());
  auto client = simtest::Connect(sim->port(), 1, 3000);
  std::vector<uint8_t> data(5000);
  for (size_t i = 0; i < data.size(); ++i) data[i] = static_cast<uint8_t>((i * 131) ^ (i >> 7));
  std::atomic<uint32_t> progress{0};
  EXPECT_EQ(client->TransferFile(data, 0x0A, false, progress), 0);
  EXPECT_EQ(progress.load(), 5u);
  EXPECT_EQ(sim->CommandCount(0x0A), 5u);
  EXPECT_EQ(LastFile(*sim), std::make_tuple(true, 5000u, varkel::sim::Sha256Hex(data)));

  std::string text = "0x1A0B";
  const std::vector<uint8_t> small(data.begin(), data.begin() + 1500);
  EXPECT_EQ(client->TransferFileByCmdText(small, text, progress), 0);
  EXPECT_EQ(sim->ExtendedCount(0x1A0B), 2u);
  EXPECT_EQ(LastFile(*sim), std::make_tuple(true, 1500u, varkel::sim::Sha256Hex(small)));

  // A piece whose CRC does not match is refused with the sensor's code 0x02.
  std::vector<uint8_t> r;
  const auto bad = Hex("47 74 0a 00 00 00 00 13  00000000 00000001 00000001 9b73448d 616263");
  EXPECT_EQ(client->QueryCommand(bad, r, 0x0A), -1);
  EXPECT_EQ(client->GetLastReturnCode(), 0x02);
  EXPECT_FALSE(std::get<0>(LastFile(*sim)));

  sim->SetFailure(FailureMode::kDisconnectAfterPieces, 0x0A, 2);
  EXPECT_EQ(client->TransferFile(data, 0x0A, false, progress), -1);
  EXPECT_EQ(progress.load(), 3u);
  // The sensor notices the lost connection and records the file as failed.
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (std::chrono::steady_clock::now() < end && std::get<1>(LastFile(*sim)) != 2048)
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  EXPECT_EQ(std::get<0>(LastFile(*sim)), false);
  EXPECT_EQ(std::get<1>(LastFile(*sim)), 2048u);
}

// 0x23 answers the channel and the ten angles, 0x22 takes the channel and five start
// angles, and a malformed write changes nothing.
TEST(SimFov, ReadsAndWritesTheRangesAndRefusesMalformedWrites) {
  auto sim = StartSim(Options("Quenta", simtest::kShippedTableDir));
  auto client = simtest::Connect(sim->port());
  std::vector<uint8_t> reply;
  ASSERT_EQ(client->QueryCommand({}, reply, 0x23), 0);
  EXPECT_EQ(reply, Hex("00 0000 0000 0000 0000 0000 8ca0 8ca0 8ca0 8ca0 8ca0"));

  const varkel::sim::FovBlock::Angles written{1, 2, 3, 4, 36000};
  ASSERT_EQ(client->QueryCommand(Hex("02 0001 0002 0003 0004 8ca0"), reply, 0x22), 0);
  EXPECT_EQ(sim->FovStart(), written);
  EXPECT_EQ(sim->Value("FOV Channel"), "2");

  for (const char* bad : {"03 0001 0002 0003 0004", "03 0001 0002 0003 0004 8ca1", "03 0001 0002 0003 0004 0005 06"}) {
    EXPECT_EQ(client->QueryCommand(Hex(bad), reply, 0x22), -1) << bad;
    EXPECT_EQ(client->GetLastReturnCode(), 4) << bad;
  }
  EXPECT_EQ(sim->FovStart(), written);
  EXPECT_EQ(sim->FovEnd(), (varkel::sim::FovBlock::Angles{36000, 36000, 36000, 36000, 36000}));
  EXPECT_EQ(sim->Value("FOV Channel"), "2");
}

TEST(SimStart, LiveValuesMove) {
  // The run time counts up while live.
  auto o = Options();
  o.live_values = true;
  auto live = StartSim(o);
  EXPECT_TRUE(live->SetValue("Run Time", "0"));
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (std::chrono::steady_clock::now() < end && live->Value("Run Time") == "0 h 0 min 0 s")
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  EXPECT_EQ(live->Value("Run Time").rfind("0 h 0 min ", 0), 0u);
  EXPECT_NE(live->Value("Run Time"), "0 h 0 min 0 s");

  // Temperatures the sensor measures drift; a temperature one sets is a setting and stays.
  auto quenta_options = Options("Quenta", simtest::kShippedTableDir);
  quenta_options.live_values = true;
  auto quenta = StartSim(quenta_options);
  const std::string threshold = quenta->Value("Overtemperature Threshold");
  const std::string board = quenta->Value("Main Board Temperature");
  const auto drift_end = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (std::chrono::steady_clock::now() < drift_end && quenta->Value("Main Board Temperature") == board)
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  EXPECT_NE(quenta->Value("Main Board Temperature"), board);
  EXPECT_EQ(quenta->Value("Overtemperature Threshold"), threshold);

  // The motor follows the spin rate set; current, power and voltage agree with each other.
  ASSERT_TRUE(quenta->SetValue("Spin Rate", "1200"));
  for (int i = 0; i < 20; ++i) {
    EXPECT_NEAR(std::stod(quenta->Value("Motor Speed")), 1200, 1200 * 0.003);
    const double volts = std::stod(quenta->Value("Input Voltage"));
    const double watts = std::stod(quenta->Value("Power Consumption"));
    EXPECT_NEAR(std::stod(quenta->Value("Input Current")), watts / volts, 0.011);
  }
}

}  // namespace
