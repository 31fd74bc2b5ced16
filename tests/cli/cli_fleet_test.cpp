// varkel-cli on many sensors: the host list, the job runner, and the commands against a
// virtual fleet on consecutive loopback addresses, one member misbehaving.

#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <fstream>
#include <thread>

#include <nlohmann/json.hpp>

#include "cli_fixture.h"
#include "commands_fleet.h"
#include "fleet_runner.h"
#include "host_list.h"
#include "virtual_fleet.h"
#include "wait_until.h"

namespace varkel::cli::testing {
namespace {

using Json = nlohmann::json;
using varkel::sim::FailureMode;

TEST(HostList, ReadsAddressesRangesAndFilesAndNamesTheBadEntry) {
  const std::string dir = ::testing::TempDir();
  {
    std::ofstream(dir + "/hosts.txt") << "# the front sensors\n127.0.0.9:9000  # left\n\n  127.0.0.10\n";
    std::ofstream(dir + "/nested.txt") << "@" << dir << "/hosts.txt\n";
  }
  std::string labels;
  for (const HostTarget& t : ParseHostList(" 127.0.0.2 ,127.0.0.3-127.0.0.5:81,@" + dir + "/hosts.txt", 9347))
    labels += t.label + "/" + std::to_string(t.port) + " ";
  EXPECT_EQ(labels,
            "127.0.0.2/9347 127.0.0.3:81/81 127.0.0.4:81/81 127.0.0.5:81/81 127.0.0.9:9000/9000 127.0.0.10/9347 ");
  EXPECT_EQ(ParseHostList("10.0.0.0-10.0.3.255", 1).size(), kMostRangeAddresses);
  EXPECT_EQ(ParseHostList("127.0.0.255-127.0.1.0", 1)[1].address, "127.0.1.0");

  const std::vector<std::pair<std::string, std::string>> bad = {
      {"lidar-front", "'lidar-front'"},  // names are not looked up
      {"127.0.0.1,sensor.local", "'sensor.local'"},
      {"127.0.0.256", "'127.0.0.256'"},
      {"127.0.0.01", "'127.0.0.01'"},
      {"127.0.0.9-127.0.0.2", "ends before it starts"},
      {"10.0.0.0-10.0.4.0", "1025 addresses"},
      {"127.0.0.1:0", "'127.0.0.1:0'"},
      {"127.0.0.1:65536", "1 to 65535"},
      {"127.0.0.1:", "'127.0.0.1:'"},
      {"127.0.0.1,,127.0.0.2", "empty entry"},
      {"@" + dir + "/none.txt", "none.txt"},
      {"@" + dir + "/nested.txt", "one address or range per line"},
      {"127.0.0.2,127.0.0.1-127.0.0.3", "127.0.0.2:9347 twice"},
  };
  for (const auto& [text, named] : bad) {
    try {
      ParseHostList(text, 9347);
      ADD_FAILURE() << text << " was taken";
    } catch (const CliError& e) {
      EXPECT_EQ(e.status(), kExitBadInput);
      EXPECT_NE(std::string(e.what()).find(named), std::string::npos) << text << ": " << e.what();
    }
  }
}

TEST(JobRunner, KeepsToItsJobsAndCtrlCStartsNothingNew) {
  std::atomic<int> running{0}, most{0};
  const std::vector<bool> all = RunJobs(40, 3, [&](size_t) {
    const int now = ++running;
    for (int seen = most.load(); now > seen && !most.compare_exchange_weak(seen, now);) {
    }
    std::this_thread::yield();
    --running;
  });
  EXPECT_EQ(std::count(all.begin(), all.end(), true), 40);
  EXPECT_LE(most.load(), 3);

  InterruptGuard guard;
  std::vector<bool> ended(5, false);
  const std::vector<bool> ran = RunJobs(5, 1, [&](size_t i) {
    if (i == 1) {
      ::kill(::getpid(), SIGINT);
      vktest::PollUntil([] { return InterruptGuard::interrupted(); }, std::chrono::seconds(10));
    }
    ended[i] = true;  // a running one still ends
  });
  EXPECT_TRUE(InterruptGuard::interrupted());
  EXPECT_EQ(ran, (std::vector<bool>{true, true, false, false, false}));
  EXPECT_EQ(ended, ran);
}

// Four members on 127.0.0.2 to 127.0.0.5, one port.
class FleetTest : public CliTest {
 protected:
  void SetUp() override {
    CliTest::SetUp();
    varkel::sim::SimOptions o = Options();
    o.host = "127.0.0.2";
    o.restart_delay_ms = 100;
    fleet_ = std::make_unique<varkel::sim::VirtualFleet>(o, 4);
    std::string error;
    ASSERT_TRUE(fleet_->Start(&error)) << error;
  }
  void TearDown() override {
    fleet_->Stop();
    CliTest::TearDown();
  }
  Result RunMany(std::vector<std::string> args) {
    std::vector<std::string> all{"--port",  std::to_string(fleet_->port()), "--timeout", "400",
                                 "--hosts", "127.0.0.2-127.0.0.5"};
    all.insert(all.end(), args.begin(), args.end());
    return Run(all, false);
  }
  std::unique_ptr<varkel::sim::VirtualFleet> fleet_;
};

TEST_F(FleetTest, OneFailingMemberLeavesTheOthersAloneAndGivesTheWorstStatus) {
  fleet_->member(2).SetFailure(FailureMode::kNoReply);
  Result json = RunMany({"--json", "--jobs", "4", "info"});
  EXPECT_EQ(json.status, kExitSensor) << json.err;
  const Json rows = Json::parse(json.out);
  ASSERT_EQ(rows.size(), 4u);
  for (size_t i = 0; i < 4; ++i) {
    EXPECT_EQ(rows[i]["host"], fleet_->address(i));
    EXPECT_EQ(rows[i]["status"], i == 2 ? 3 : 0) << rows[i].dump();
    if (i != 2) EXPECT_EQ(rows[i]["serial_number"], fleet_->member(i).Value("SN"));
  }
  EXPECT_NE(rows[2]["error"].get<std::string>().find("does not answer KTC"), std::string::npos);
  EXPECT_NE(rows[0]["serial_number"], rows[1]["serial_number"]);

  // One session per sensor, the serial number included: as many connections as one
  // sensor's own run makes.
  const uint64_t before = fleet_->member(1).ConnectionsAccepted();
  ASSERT_EQ(Run({"--port", std::to_string(fleet_->port()), "--host", "127.0.0.3", "info"}, false).status, 0);
  const uint64_t one_run = fleet_->member(1).ConnectionsAccepted() - before;
  Result table = RunMany({"get", "Spin Rate"});
  EXPECT_EQ(fleet_->member(1).ConnectionsAccepted() - before, 2 * one_run);
  EXPECT_EQ(table.status, kExitSensor);
  std::istringstream lines(table.out);
  std::vector<std::string> got;
  for (std::string line; std::getline(lines, line);) got.push_back(line.substr(0, line.find(' ')));
  EXPECT_EQ(got, (std::vector<std::string>{"HOST", "127.0.0.2", "127.0.0.3", "127.0.0.4", "127.0.0.5", "3"}));
  EXPECT_NE(table.out.find("Spin Rate=600"), std::string::npos) << table.out;
  EXPECT_NE(table.out.find("\n3 ok, 1 failed\n"), std::string::npos) << table.out;
  EXPECT_NE(table.out.find(fleet_->member(3).Value("SN")), std::string::npos) << table.out;

  // Logs land in a folder named by the serial number the download's own session read.
  const std::string logs = File("logs");
  Result logged = RunMany({"--json", "logs", logs});
  const Json logged_rows = Json::parse(logged.out);
  const std::string folder = logs + "/" + fleet_->member(3).Value("SN");
  ASSERT_EQ(logged_rows[3]["status"], 0) << logged.out;
  EXPECT_EQ(logged_rows[3]["files"][0]["file"].get<std::string>().rfind(folder + "/", 0), 0u) << logged.out;
  EXPECT_TRUE(fs::exists(logged_rows[3]["files"][0]["file"].get<std::string>()));
  EXPECT_EQ(std::distance(fs::directory_iterator(logs), fs::directory_iterator()), 3);  // none for the silent one

  // Refused before anything is sent.
  fleet_->member(0).ResetCounters();
  for (const std::vector<std::string>& bad : std::vector<std::vector<std::string>>{
           {"--hosts", "127.0.0.2,sensor-7", "info"},
           {"--host", "127.0.0.2", "info"},
           {"reset", "--yes"},
           {"scan", "127.0.0.2"},
       })
    EXPECT_EQ(RunMany(bad).status, kExitBadInput) << bad[0];
  EXPECT_EQ(fleet_->member(0).CommandCount(7), 0u);
}

TEST_F(FleetTest, BackupWritesAFilePerSensorAndKeepsOneThatIsThere) {
  fleet_->member(3).SetFailure(FailureMode::kNoReply);
  const std::string dir = File("fleet");
  Result first = RunMany({"backup", dir});
  EXPECT_EQ(first.status, kExitSensor) << first.out;
  for (size_t i = 0; i < 3; ++i) EXPECT_TRUE(fs::exists(dir + "/" + fleet_->member(i).Value("SN") + ".json")) << i;
  EXPECT_EQ(std::distance(fs::directory_iterator(dir), fs::directory_iterator()), 3);

  fleet_->member(3).ClearFailures();
  Result again = RunMany({"--json", "backup", dir});
  EXPECT_EQ(again.status, kExitBadInput);
  const Json rows = Json::parse(again.out);
  EXPECT_NE(rows[0]["error"].get<std::string>().find(".json exists (--force to replace it)"), std::string::npos);
  EXPECT_EQ(rows[3]["status"], 0);
  EXPECT_EQ(RunMany({"backup", dir, "--force"}).status, 0);
  EXPECT_EQ(std::distance(fs::directory_iterator(dir), fs::directory_iterator()), 4);
}

TEST_F(FleetTest, AProfileLeavesAddressesAloneUnlessAskedAndCanBeNarrowed) {
  varkel::sim::VirtualLidar& source = fleet_->member(0);
  ASSERT_TRUE(source.SetValue("Spin Rate", "1200"));
  ASSERT_TRUE(source.SetValue("Noise Filter Level", "7"));
  ASSERT_TRUE(source.SetValue("Destination IP", "127.0.9.9"));
  const std::string profile = File("profile.json");
  ASSERT_EQ(Run({"--port", std::to_string(fleet_->port()), "--host", "127.0.0.2", "backup", profile}, false).status, 0);
  const std::string others = "127.0.0.3-127.0.0.5";

  Result dry = RunMany({"--hosts", others, "--json", "restore", profile, "--dry-run"});
  ASSERT_EQ(dry.status, 0) << dry.err;
  for (const Json& row : Json::parse(dry.out)) EXPECT_EQ(row["changes"].size(), 2u) << row.dump();
  EXPECT_EQ(fleet_->member(1).Value("Spin Rate"), "600");

  Result narrowed = RunMany({"--hosts", others, "restore", profile, "--except", "Noise Filter Level"});
  ASSERT_EQ(narrowed.status, 0) << narrowed.out << narrowed.err;
  EXPECT_NE(narrowed.out.find("left out: IP Address, Subnet Mask, Gateway, MAC Address, Destination IP"),
            std::string::npos)
      << narrowed.out;
  for (size_t i = 1; i < 4; ++i) {
    EXPECT_EQ(fleet_->member(i).Value("Spin Rate"), "1200");
    EXPECT_EQ(fleet_->member(i).Value("Noise Filter Level"), "5");
    EXPECT_EQ(fleet_->member(i).Value("Destination IP"), "192.168.1.100");
  }
  ASSERT_EQ(RunMany({"--hosts", others, "restore", profile, "--include-addresses", "--only", "Destination IP"}).status,
            0);
  EXPECT_EQ(fleet_->member(3).Value("Destination IP"), "127.0.9.9");
  EXPECT_EQ(fleet_->member(3).Value("Noise Filter Level"), "5");
  EXPECT_EQ(RunMany({"restore", profile, "--only", "No Such Thing"}).status, kExitBadInput);
  EXPECT_EQ(Run({"--host", "127.0.0.2", "restore", profile, "--include-addresses"}, false).status, kExitBadInput);
}

TEST_F(FleetTest, UpgradeShowsThePlanAndStartsNoTransferAfterTooManyFailed) {
  const std::string image = File("fw.patch");
  std::ofstream(image, std::ios::binary) << "VERSION=1.5.0 (2026-11-23)\n" << std::string(2600, '\x5A');
  fleet_->member(1).SetFailure(FailureMode::kRefusePiece, 0x50, 1);
  Result held = RunMany({"--jobs", "1", "upgrade", image, "--no-restart"});
  EXPECT_EQ(held.status, kExitHeldBack) << held.out;
  EXPECT_NE(held.out.find("4 of 4 sensor(s) to upgrade"), std::string::npos) << held.out;
  EXPECT_NE(held.out.find("1 ok, 1 failed, 2 not done"), std::string::npos) << held.out;
  EXPECT_NE(held.out.find("not upgraded: 1 transfer(s) failed (--max-failures 1)"), std::string::npos);
  const std::vector<uint64_t> received{1, 0, 0, 0};
  for (size_t i = 0; i < 4; ++i) EXPECT_EQ(fleet_->member(i).UpgradesReceived(), received[i]) << i;
  // Not a terminal: plain progress lines, one sensor each.
  EXPECT_NE(held.err.find("127.0.0.2  [##############################] 100%\n"), std::string::npos) << held.err;

  // With room for failures every other sensor is upgraded (what one upgrade does is the
  // single-sensor test's).
  Result json = RunMany({"--json", "upgrade", image, "--wait", "0", "--max-failures", "2"});
  EXPECT_EQ(json.status, kExitSensor) << json.err;
  const Json rows = Json::parse(json.out);
  EXPECT_EQ(rows[1]["status"], kExitSensor);
  EXPECT_EQ(rows[3]["version_after"], "1.5.0 (2026-11-23)");
}

TEST(VirtualFleet, LivesOnLoopbackOnly) {
  for (const auto& [host, count] : std::vector<std::pair<std::string, size_t>>{
           {"10.0.0.1", 2}, {"127.255.255.255", 2}, {"126.255.255.255", 1}, {"127.0.0.2", 0}}) {
    varkel::sim::SimOptions o;
    o.host = host;
    varkel::sim::VirtualFleet fleet(o, count);
    std::string error;
    EXPECT_FALSE(fleet.Start(&error)) << host;
    EXPECT_EQ(fleet.size(), 0u);
  }
}

}  // namespace
}  // namespace varkel::cli::testing
