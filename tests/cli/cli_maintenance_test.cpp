// varkel-cli's console, restart, reset, logs and upgrade against the virtual lidar.

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "cli_fixture.h"
#include "file_text.h"

namespace {

using namespace varkel::cli::testing;
using Json = nlohmann::json;

class CliMaintenanceTest : public CliTest {};

// The one file in `dir` whose name starts with `prefix`, or "" when there is not exactly one.
fs::path OnlyFile(const fs::path& dir, const std::string& prefix) {
  std::vector<fs::path> found;
  for (const auto& entry : fs::directory_iterator(dir))
    if (entry.path().filename().string().rfind(prefix, 0) == 0) found.push_back(entry.path());
  return found.size() == 1 ? found.front() : fs::path();
}

TEST_F(CliMaintenanceTest, ConsoleSendsTheTypedBytesAndShowsTheWholeReply) {
  Result read = Run({"--json", "console", "0x30"});
  ASSERT_EQ(read.status, 0) << read.err;
  const Json r = Json::parse(read.out);
  EXPECT_EQ(r["command"], "0x30");
  EXPECT_EQ(r["header"].get<std::string>().size(), 8u * 3 - 1);
  EXPECT_EQ(r["payload"], "02 58 00 00 00 00 00 00");
  EXPECT_FALSE(r["restarts"].get<bool>());

  // Pieces with and without prefix, as separate words or one: 0x04B0 is 1200 rpm.
  Result write = Run({"console", "31", "0x04 b0", "0", "0x0"});
  ASSERT_EQ(write.status, 0) << write.err;
  EXPECT_EQ(sim_->LastPayload(0x31), (std::vector<uint8_t>{0x04, 0xB0, 0x00, 0x00}));
  EXPECT_EQ(sim_->Value("Spin Rate"), "1200");
  EXPECT_EQ(write.out.rfind("header   ", 0), 0u) << write.out;

  // KTC 2.0 has a 12-byte header; the payload is the same.
  varkel::sim::SimOptions o = Options();
  o.ktc_version = 2;
  auto v2 = Started(o);
  ASSERT_NE(v2, nullptr);
  Result wide = Run({"--json", "--port", std::to_string(v2->port()), "--ktc-version", "2", "console", "30"});
  ASSERT_EQ(wide.status, 0) << wide.err;
  EXPECT_EQ(Json::parse(wide.out)["header"].get<std::string>().size(), 12u * 3 - 1);
  EXPECT_EQ(Json::parse(wide.out)["payload"], "02 58 00 00 00 00 00 00");

  // A log is longer than the window's 1024 shown bytes; the command line shows all of it.
  sim_->SetLogSize(3000);
  Result log = Run({"--json", "console", "61"});
  ASSERT_EQ(log.status, 0) << log.err;
  EXPECT_EQ(Json::parse(log.out)["payload_bytes"], 3000);

  // Each way the command line words a refusal; what the parser refuses is the controller's tests'.
  const struct {
    std::vector<std::string> args;
    int status;
    std::string says;
  } refused[] = {
      {{"console", "1g"}, 2, "malformed command '1g': not a hexadecimal byte"},
      {{"console", "0x100"}, 2, "malformed command '0x100': above 0xFF"},
      {{"console", "31", "04  B0"}, 2, "malformed payload '04  B0'"},
      {{"console", "31", "1FF"}, 2, "above 0xFF"},
      {{"console", "61", "07"}, 3, "command 0x61 failed, return code 4"},
      {{"console", "EE"}, 3, "command 0xEE failed, return code 1"},
  };
  for (const auto& c : refused) {
    const Result res = Run(c.args);
    EXPECT_EQ(res.status, c.status) << c.args[1] << " " << res.err;
    EXPECT_NE(res.err.find(c.says), std::string::npos) << res.err;
    EXPECT_EQ(std::count(res.err.begin(), res.err.end(), '\n'), 1) << res.err;
  }
  EXPECT_EQ(sim_->CommandCount(0x31), 1u);  // no malformed text reached the sensor
}

TEST_F(CliMaintenanceTest, RestartAndResetSendTheTableRowsAndResetWantsConsent) {
  sim_->SetRestartDelay(200);
  ASSERT_TRUE(sim_->SetValue("Noise Filter Level", "7"));

  Result refused = Run({"reset"});
  EXPECT_EQ(refused.status, 2);
  EXPECT_NE(refused.err.find("add --yes"), std::string::npos) << refused.err;
  EXPECT_EQ(sim_->ResetCount(), 0u);
  EXPECT_EQ(sim_->CommandCount(0x25), 0u);

  Result restart = Run({"restart"});
  ASSERT_EQ(restart.status, 0) << restart.err;
  EXPECT_TRUE(RestartsReach(1));
  ASSERT_TRUE(Listens());
  EXPECT_EQ(sim_->Value("Noise Filter Level"), "7");  // a restart keeps the settings

  Result reset = Run({"--json", "reset", "--yes"});
  ASSERT_EQ(reset.status, 0) << reset.err;
  EXPECT_EQ(Json::parse(reset.out), (Json{{"action", "reset"}, {"ok", true}}));
  EXPECT_TRUE(RestartsReach(2));
  EXPECT_EQ(sim_->ResetCount(), 1u);
  ASSERT_TRUE(Listens());
  EXPECT_NE(sim_->Value("Noise Filter Level"), "7");

  // Refused by the sensor: no restart, and the user is told to do it by hand.
  sim_->SetFailure(varkel::sim::FailureMode::kReturnCode, 0x10, 3);
  Result failed = Run({"restart"});
  EXPECT_EQ(failed.status, 3);
  EXPECT_NE(failed.err.find("restart failed, return code 3; restart the sensor by hand"), std::string::npos)
      << failed.err;
  EXPECT_EQ(sim_->RestartCount(), 2u);

  // The console's 0x10 restarts too, and says so.
  sim_->ClearFailures();
  Result console = Run({"console", "10"});
  ASSERT_EQ(console.status, 0) << console.err;
  EXPECT_NE(console.out.find("the sensor restarts"), std::string::npos);
  EXPECT_TRUE(RestartsReach(3));
}

TEST_F(CliMaintenanceTest, LogsLandInTheFolderWholeAndTheOperationLogAsATarArchive) {
  sim_->SetLogSize(5000);
  const std::string dir = File("logs");
  Result logs = Run({"--json", "logs", dir});
  ASSERT_EQ(logs.status, 0) << logs.err;
  EXPECT_EQ(Json::parse(logs.out)["files"].size(), 2u);
  for (const char* name : {"Fault Log", "Event Log"}) {
    const fs::path file = OnlyFile(dir, std::string(name) + "_");
    ASSERT_FALSE(file.empty()) << name;
    EXPECT_EQ(file.extension(), ".bin");
    EXPECT_EQ(vktest::FileBytes(file), *sim_->LogBody(name)) << name;
  }

  Result op = Run({"--json", "logs", dir, "--operation"});
  ASSERT_EQ(op.status, 0) << op.err;
  const fs::path archive = Json::parse(op.out)["archive"].get<std::string>();
  ASSERT_TRUE(fs::is_regular_file(archive));
  EXPECT_EQ(archive.parent_path(), fs::absolute(dir));
  // Only the archive is left of the parts.
  EXPECT_TRUE(OnlyFile(dir, "operation_log_") == archive);
  const fs::path out = File("untar");
  fs::create_directories(out);
  ASSERT_EQ(std::system(("tar -xf '" + archive.string() + "' -C '" + out.string() + "'").c_str()), 0);
  const struct {
    const char* prefix;
    uint16_t selector;
  } parts[] = {{"bsw_warning_", 0x0000}, {"asw_warning_", 0x0001}, {"bsw_error_", 0x0100}, {"asw_error_", 0x0101}};
  for (const auto& part : parts) {
    const fs::path file = OnlyFile(out, part.prefix);
    ASSERT_FALSE(file.empty()) << part.prefix;
    EXPECT_EQ(vktest::FileBytes(file), *sim_->LogBody("Operation Log", part.selector)) << part.prefix;
  }

  // A log the sensor refuses fails the command, naming it; the others still arrive.
  sim_->SetFailure(varkel::sim::FailureMode::kReturnCode, 0x61, 2);
  const std::string again = File("again");
  Result failed = Run({"logs", again});
  EXPECT_EQ(failed.status, 3);
  EXPECT_EQ(failed.err, "varkel-cli: Fault Log download failed, return code 2\n");
  EXPECT_FALSE(OnlyFile(again, "Event Log_").empty());

  // A part that fails keeps the parts where the user can find them.
  sim_->SetFailure(varkel::sim::FailureMode::kReturnCode, 0x60, 2);
  Result op_failed = Run({"logs", again, "--operation"});
  EXPECT_EQ(op_failed.status, 3);
  EXPECT_NE(op_failed.err.find("bsw_warning_"), std::string::npos) << op_failed.err;
  EXPECT_NE(op_failed.err.find("; the parts stay in " + again + "/operation_log_"), std::string::npos) << op_failed.err;
}

TEST_F(CliMaintenanceTest, UpgradeSendsTheFileOnTheUpgradeRowThenRestarts) {
  sim_->SetRestartDelay(200);
  const std::string image = File("fw.patch");
  {
    std::ofstream out(image, std::ios::binary);
    out << "VERSION=1.5.0 (2026-11-23)\n" << std::string(2600, '\x5A');
  }
  Result sent = Run({"upgrade", image, "--wait", "0"});
  ASSERT_EQ(sent.status, 0) << sent.err;
  EXPECT_EQ(sim_->UpgradesReceived(), 1u);
  EXPECT_TRUE(RestartsReach(1));
  // Not a terminal: plain lines, the last one whole.
  EXPECT_NE(sent.err.find("upgrade: 100% (3/3 pieces)\n"), std::string::npos) << sent.err;
  EXPECT_EQ(sent.err.find('\r'), std::string::npos);
  ASSERT_TRUE(Listens());
  EXPECT_EQ(sim_->Value("Firmware Version"), "1.5.0 (2026-11-23)");

  // Without the restart the version waits for one.
  {
    std::ofstream out(image, std::ios::binary | std::ios::trunc);
    out << "VERSION=1.6.0 (2026-12-01)\n" << std::string(100, '\x01');
  }
  Result held = Run({"--json", "upgrade", image, "--no-restart"});
  ASSERT_EQ(held.status, 0) << held.err;
  EXPECT_EQ(Json::parse(held.out)["command"], "0x50");
  EXPECT_EQ(sim_->UpgradesReceived(), 2u);
  EXPECT_EQ(sim_->CommandCount(0x10), 1u);
  EXPECT_EQ(sim_->PendingFirmwareVersion(), "1.6.0 (2026-12-01)");

  // Another row's command carries a plain file, no upgrade.
  Result other = Run({"upgrade", image, "--var", "Spin Rate", "--no-restart"});
  ASSERT_EQ(other.status, 0) << other.err;
  EXPECT_EQ(sim_->UpgradesReceived(), 2u);
  ASSERT_TRUE(sim_->LastTransfer().has_value());
  EXPECT_TRUE(sim_->LastTransfer()->ok);

  sim_->SetFailure(varkel::sim::FailureMode::kRefusePiece, 0x50, 1);
  Result refused = Run({"upgrade", image, "--wait", "0"});
  EXPECT_EQ(refused.status, 3);
  EXPECT_NE(refused.err.find("upgrade transfer failed at piece 1 of 1"), std::string::npos) << refused.err;
  EXPECT_EQ(sim_->CommandCount(0x10), 1u);  // no restart after a failed transfer

  EXPECT_EQ(Run({"upgrade", File("none.bin")}).status, 2);
  EXPECT_EQ(Run({"upgrade", image, "--var", "Nope"}).status, 2);
}

}  // namespace
