// varkel-cli's restore against the virtual lidar: a restore that stops part-way, its
// rollback, the order of the commands that move the sensor, entries it skips, backups of
// another model, and a backup that cannot be written over an earlier one.

#include <gtest/gtest.h>

#include <sys/resource.h>

#include <csignal>
#include <fstream>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "cli_fixture.h"
#include "file_text.h"

namespace {

using namespace varkel::cli::testing;
using Json = nlohmann::json;
using varkel::sim::FailureMode;

bool Says(const std::string& text, const std::string& what) {
  return text.find(what) != std::string::npos;
}

TEST_F(CliTest, ARestoreThatStopsSaysHowFarItCameAndCanRollBack) {
  ASSERT_EQ(Run({"backup", File("b.json")}).status, 0);
  // Since the backup the sensor moved to the port this connection uses and to TLS, and two
  // scan settings changed; the sensor refuses the second of them.
  ASSERT_TRUE(sim_->SetValue("KTC Port", std::to_string(sim_->port())));
  ASSERT_TRUE(sim_->SetValue("KTC Security", "1"));
  ASSERT_TRUE(sim_->SetValue("Spin Rate", "1200"));
  ASSERT_TRUE(sim_->SetValue("Noise Filter Level", "7"));
  sim_->SetFailure(FailureMode::kReturnCode, 0x2B, 1);

  Result r = Run({"--json", "restore", File("b.json")});
  EXPECT_EQ(r.status, 3);
  EXPECT_TRUE(Says(r.err, "restore stopped: 0x2B SET")) << r.err;
  EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 1) << r.err;
  const Json j = Json::parse(r.out);
  EXPECT_EQ(j["written"], Json::parse(R"([{"command": "0x31", "variables": ["Spin Rate"]}])"));
  EXPECT_EQ(j["refused"], Json::parse(R"({"command": "0x2B", "variables": ["Noise Filter Level"], "return_code": 1})"));
  // The port and the security mode come after everything else, though their page is first.
  EXPECT_EQ(j["not_sent"], Json::parse(R"([{"command": "0x2D", "variables": ["KTC Port"]},
                                           {"command": "0x27", "variables": ["KTC Security"]}])"));
  ASSERT_EQ(j["read_back"].size(), 1u);
  EXPECT_EQ(j["read_back"][0]["before"], "1200");
  EXPECT_EQ(j["read_back"][0]["read_back"], "600");
  EXPECT_TRUE(j["rollback"].is_null());
  EXPECT_EQ(sim_->Value("Spin Rate"), "600");
  EXPECT_EQ(sim_->CommandCount(0x2D), 0u);
  EXPECT_EQ(sim_->CommandCount(0x27), 0u);

  // With --rollback what was written goes back to what the sensor held before. (The
  // virtual lidar keeps a refused value, so it is put back too.)
  ASSERT_TRUE(sim_->SetValue("Spin Rate", "1200"));
  ASSERT_TRUE(sim_->SetValue("Noise Filter Level", "7"));
  Result rb = Run({"restore", File("b.json"), "--rollback"});
  EXPECT_EQ(rb.status, 3);
  EXPECT_TRUE(Says(rb.err, "rolled back what was written")) << rb.err;
  EXPECT_TRUE(Says(rb.out, "written: 0x31 (Spin Rate)\n")) << rb.out;
  EXPECT_TRUE(Says(rb.out, "refused: 0x2B (Noise Filter Level), return code 1\n")) << rb.out;
  EXPECT_TRUE(Says(rb.out, "not sent: 0x2D (KTC Port); 0x27 (KTC Security)\n")) << rb.out;
  EXPECT_TRUE(Says(rb.out, "rollback done:\n  written: 0x31 (Spin Rate)\n")) << rb.out;
  EXPECT_EQ(sim_->Value("Spin Rate"), "1200");
  EXPECT_EQ(sim_->CommandCount(0x31), 3u);  // the first restore, this one, its rollback

  // Once nothing refuses, everything is written, the port's command just before the end.
  sim_->ClearFailures();
  ASSERT_TRUE(sim_->SetValue("Noise Filter Level", "7"));
  Result ok = Run({"--json", "restore", File("b.json")});
  ASSERT_EQ(ok.status, 0) << ok.err;
  const Json o = Json::parse(ok.out);
  std::vector<std::string> order;
  for (const Json& c : o["written"]) order.push_back(c["command"]);
  EXPECT_EQ(order, (std::vector<std::string>{"0x31", "0x2B", "0x2D", "0x27"}));
  EXPECT_TRUE(o["error"].is_null());
  EXPECT_EQ(sim_->Value("KTC Port"), "9347");
}

TEST_F(CliTest, RestoreMatchesByIdAndNameAndSaysWhatItSkips) {
  ASSERT_EQ(Run({"backup", File("b.json")}).status, 0);
  Json backup = Json::parse(std::ifstream(File("b.json")));
  for (Json& v : backup["variables"]) {
    if (v["name"] == "Spin Rate") v["name"] = "Spin Speed";
    if (v["name"] == "SN") v["writable"] = true;  // read-only here
  }
  backup["variables"].push_back(Json{{"id", "99-9"}, {"name", "Beam Tilt"}, {"value", "3"}, {"writable", true}});
  std::ofstream(File("edited.json")) << backup;
  ASSERT_TRUE(sim_->SetValue("Spin Rate", "1200"));
  ASSERT_TRUE(sim_->SetValue("Noise Filter Level", "7"));

  Result r = Run({"--json", "restore", File("edited.json")});
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(Json::parse(r.out)["skipped"], Json::parse(R"([
    {"id": "1-1", "name": "SN", "reason": "not writable"},
    {"id": "7-1", "name": "Spin Speed", "reason": "name differs", "table_name": "Spin Rate"},
    {"id": "99-9", "name": "Beam Tilt", "reason": "unknown id"}])"));
  EXPECT_EQ(sim_->Value("Spin Rate"), "1200");
  EXPECT_EQ(sim_->Value("Noise Filter Level"), "5");

  // Said plainly on the terminal too, even with nothing left to write.
  Result text = Run({"restore", File("edited.json")});
  EXPECT_EQ(text.status, 0);
  EXPECT_TRUE(Says(text.out, "nothing to restore")) << text.out;
  EXPECT_TRUE(Says(text.out, "skipped 3 backup entries:\n")) << text.out;
  EXPECT_TRUE(Says(text.out, "7-1 Spin Speed: 7-1 is Spin Rate in Quenta\n")) << text.out;
  EXPECT_TRUE(Says(text.out, "99-9 Beam Tilt: Quenta has no variable 99-9\n")) << text.out;
}

TEST_F(CliTest, ABackupOfAnotherModelNeedsOtherModelAndLandsOnlyOnTheSameRows) {
  ASSERT_EQ(Run({"backup", File("quenta.json")}).status, 0);
  auto started = Started(Options("Quenta-Lite"));
  ASSERT_NE(started, nullptr);
  varkel::sim::VirtualLidar& lite = *started;
  const std::string ip = lite.Value("IP Address");
  auto restore = [&](std::vector<std::string> flags) {
    std::vector<std::string> args{"--model", "Quenta-Lite", "--port",           std::to_string(lite.port()),
                                  "--json",  "restore",     File("quenta.json")};
    args.insert(args.end(), flags.begin(), flags.end());
    return Run(args);
  };
  // --force only skips range checks.
  for (const auto& flags : {std::vector<std::string>{}, std::vector<std::string>{"--force"}}) {
    Result r = restore(flags);
    EXPECT_EQ(r.status, 2);
    EXPECT_TRUE(Says(r.err, "is a backup of Quenta, not of Quenta-Lite (--other-model")) << r.err;
  }
  // Quenta's Destination IP has the id of the Lite's IP Address: skipped, never written.
  Result r = restore({"--other-model"});
  EXPECT_EQ(r.status, 0) << r.err;
  bool skipped = false;
  const Json report = Json::parse(r.out);
  for (const Json& s : report["skipped"])
    skipped = skipped || (s["id"] == "5-1" && s["name"] == "Destination IP" && s["table_name"] == "IP Address");
  EXPECT_TRUE(skipped) << r.out;
  EXPECT_EQ(lite.Value("IP Address"), ip);
  EXPECT_EQ(lite.CommandCount(0x21), 0u);
}

TEST_F(CliTest, ABackupThatCannotBeWrittenLeavesTheEarlierOneWhole) {
  ASSERT_EQ(Run({"backup", File("b.json")}).status, 0);
  const std::string earlier = vktest::FileText(File("b.json"));
  ASSERT_GT(earlier.size(), 1024u);
  // A size limit cuts the write off part-way, root or not.
  std::signal(SIGXFSZ, SIG_IGN);
  rlimit saved{};
  ASSERT_EQ(::getrlimit(RLIMIT_FSIZE, &saved), 0);
  rlimit small = saved;
  small.rlim_cur = 1024;
  ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &small), 0);
  Result r = Run({"backup", File("b.json")});
  ::setrlimit(RLIMIT_FSIZE, &saved);
  EXPECT_EQ(r.status, 2);
  EXPECT_EQ(r.err, "varkel-cli: cannot write " + File("b.json") + ": File too large\n");
  EXPECT_EQ(vktest::FileText(File("b.json")), earlier);
  EXPECT_EQ(std::distance(fs::directory_iterator(home_), {}), 1);
}

}  // namespace
