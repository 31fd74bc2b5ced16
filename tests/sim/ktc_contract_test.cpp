// The simulator against the program's own KTC client and value reading, on the shipped
// tables the controller tests do not load, and requests written by hand. Both frame
// versions. The controller tests and the fault matrix cover the rest.

#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <tuple>

#include "config_parser.h"
#include "ktc_command_text.h"
#include "sim_test_support.h"
#include "value_text.h"

namespace ql = quarn::lidar;
using quarn::lidar::KtcClient;
using simtest::FromHex;
using simtest::Options;
using simtest::StartSim;
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

class SimKtcContract : public ::testing::TestWithParam<int> {};

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
    EXPECT_EQ(simtest::Exchange(fd, FromHex(request), FromHex(reply).size()), FromHex(reply)) << request;
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

// 0x22 takes the channel and five start angles, and a malformed write changes nothing
// (the controller's tests read and write the ranges end to end).
TEST(SimFov, TakesTheChannelAndRefusesMalformedWrites) {
  auto sim = StartSim(Options("Quenta", simtest::kShippedTableDir));
  auto client = simtest::Connect(sim->port());
  std::vector<uint8_t> reply;
  const varkel::sim::FovBlock::Angles written{1, 2, 3, 4, 36000};
  ASSERT_EQ(client->QueryCommand(FromHex("02 0001 0002 0003 0004 8ca0"), reply, 0x22), 0);
  EXPECT_EQ(sim->FovStart(), written);
  for (const char* bad : {"03 0001 0002 0003 0004", "03 0001 0002 0003 0004 8ca1", "03 0001 0002 0003 0004 0005 06"}) {
    EXPECT_EQ(client->QueryCommand(FromHex(bad), reply, 0x22), -1) << bad;
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
  vktest::PollUntil([&] { return live->Value("Run Time") != "0 h 0 min 0 s"; });
  EXPECT_EQ(live->Value("Run Time").rfind("0 h 0 min ", 0), 0u);
  EXPECT_NE(live->Value("Run Time"), "0 h 0 min 0 s");

  // Temperatures the sensor measures drift; a temperature one sets is a setting and stays.
  auto quenta_options = Options("Quenta", simtest::kShippedTableDir);
  quenta_options.live_values = true;
  auto quenta = StartSim(quenta_options);
  const std::string threshold = quenta->Value("Overtemperature Threshold");
  const std::string board = quenta->Value("Main Board Temperature");
  EXPECT_TRUE(vktest::PollUntil([&] { return quenta->Value("Main Board Temperature") != board; }));
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
