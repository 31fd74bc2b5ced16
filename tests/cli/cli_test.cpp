// varkel-cli's commands against the virtual lidar of the default model, run through the
// same entry the program uses (argument parsing included), with a private home folder.

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "cli_fixture.h"
#include "completion.h"

namespace {

using namespace varkel::cli::testing;
using Json = nlohmann::json;

TEST_F(CliTest, BackupSetDiffRestoreRoundTrip) {
  ASSERT_EQ(Run({"backup", File("b.json")}).status, 0);
  const Json backup = Json::parse(std::ifstream(File("b.json")));
  EXPECT_EQ(backup["model"], "Quenta");
  EXPECT_EQ(backup["serial_number"], sim_->Value("SN"));
  EXPECT_EQ(backup["firmware_version"], "1.4.2 (2026-03-18)");
  EXPECT_EQ(Run({"diff", File("b.json")}).status, 0);

  // A combo by its label, and a number.
  Result set = Run({"set", "Spin Rate=20 Hz", "Noise Filter Level=7"});
  ASSERT_EQ(set.status, 0) << set.err;
  EXPECT_EQ(sim_->Value("Spin Rate"), "1200");
  EXPECT_EQ(sim_->Value("Noise Filter Level"), "7");

  Result diff = Run({"--json", "diff", File("b.json")});
  EXPECT_EQ(diff.status, 1);
  const Json d = Json::parse(diff.out);
  ASSERT_EQ(d["differences"].size(), 2u) << diff.out;
  EXPECT_EQ(d["differences"][0], (Json{{"id", "7-1"}, {"name", "Spin Rate"}, {"sensor", "1200"}, {"backup", "600"}}));
  EXPECT_EQ(d["differences"][1]["name"], "Noise Filter Level");
  EXPECT_EQ(d["sensor_from_defaults"].size(), 2u);
  EXPECT_EQ(d["backup_from_defaults"].size(), 0u);

  // A dry run lists and writes nothing.
  const uint64_t writes = sim_->CommandCount(0x31) + sim_->CommandCount(0x2B);
  Result dry = Run({"--json", "restore", File("b.json"), "--dry-run"});
  EXPECT_EQ(dry.status, 0);
  EXPECT_EQ(Json::parse(dry.out)["changes"].size(), 2u);
  EXPECT_EQ(sim_->CommandCount(0x31) + sim_->CommandCount(0x2B), writes);

  Result restore = Run({"--json", "restore", File("b.json")});
  ASSERT_EQ(restore.status, 0) << restore.err;
  const Json r = Json::parse(restore.out);
  EXPECT_EQ(r["written"][0]["command"], "0x31");
  EXPECT_EQ(r["written"][1]["command"], "0x2B");
  EXPECT_EQ(r["written"].size(), 2u);
  EXPECT_EQ(r["not_sent"].size(), 0u);
  for (const Json& v : r["read_back"]) EXPECT_TRUE(v["ok"].get<bool>()) << v;
  EXPECT_EQ(sim_->Value("Spin Rate"), "600");
  EXPECT_EQ(Run({"diff", File("b.json")}).status, 0);
  EXPECT_NE(Run({"restore", File("b.json")}).out.find("nothing to restore"), std::string::npos);

  // A new backup over the old one holds the sensor's values, not the table's defaults.
  ASSERT_TRUE(sim_->SetValue("Spin Rate", "1200"));
  ASSERT_EQ(Run({"backup", File("b.json")}).status, 0);
  EXPECT_EQ(Run({"diff", File("b.json")}).status, 0);
  // A read-only value that moved counts only with --all.
  ASSERT_TRUE(sim_->SetValue("SN", "QT24K0193C"));
  EXPECT_EQ(Run({"diff", File("b.json")}).status, 0);
  EXPECT_EQ(Run({"diff", "--all", File("b.json")}).status, 1);
}

TEST_F(CliTest, SetSendsTheWholePayloadWithTheUntouchedFieldsPresentValues) {
  // Changed behind the table's back: the write must carry it, not the default.
  ASSERT_TRUE(sim_->SetValue("Laser Power Offset", "-3"));
  ASSERT_TRUE(sim_->SetValue("Standby Mode", "1"));
  ASSERT_EQ(Run({"set", "7-1=1200"}).status, 0);
  EXPECT_EQ(sim_->Value("Spin Rate"), "1200");
  EXPECT_EQ(sim_->Value("Laser Power Offset"), "-3");
  EXPECT_EQ(sim_->Value("Standby Mode"), "1");
  // One query of 0x30 before writing, one to read back; the payload is four bytes.
  EXPECT_EQ(sim_->CommandCount(0x31), 1u);
  EXPECT_EQ(sim_->LastPayload(0x31).size(), 4u);
}

TEST_F(CliTest, GetIsOneQueryPerGroupAndItsJsonIsStable) {
  Result all = Run({"get"});
  ASSERT_EQ(all.status, 0) << all.err;
  EXPECT_EQ(sim_->CommandCount(0x38), 1u);           // four temperatures, one query
  EXPECT_EQ(sim_->CommandCount(0x13), 1u);           // SN, PN, model, date
  ASSERT_TRUE(sim_->SetValue("Spin Rate", "1200"));  // not the table's default
  Result some = Run({"--json", "get", "Spin Rate", "4-1", "Min Range"});
  ASSERT_EQ(some.status, 0);
  // Keys in this order, indented by two.
  const auto shown = nlohmann::ordered_json::parse(some.out);
  EXPECT_EQ(some.out, shown.dump(2) + "\n");
  EXPECT_EQ(shown.dump(),
            R"([{"id":"7-1","name":"Spin Rate","type":"uint16","value":"1200","writable":true,"unit":"rpm"},)"
            R"({"id":"4-1","name":"IP Address","type":"IP","value":"192.168.1.201","writable":true,"unit":""},)"
            R"({"id":"8-2","name":"Min Range","type":"uint16","value":"0.10","writable":true,"unit":"m"}])");
}

TEST_F(CliTest, BadInputIsRefusedWithOneLineNamingIt) {
  ASSERT_EQ(Run({"backup", File("b.json")}).status, 0);
  Json other = Json::parse(std::ifstream(File("b.json")));
  other["model"] = "Quenta-Lite";
  std::ofstream(File("other.json")) << other;
  std::ofstream(File("text.json")) << "not json";
  std::ofstream(File("foreign.json")) << R"({"variables": []})";
  const struct {
    std::vector<std::string> args;
    int status;
    std::string says;
  } cases[] = {
      {{"get", "Nope"}, 2, "unknown variable 'Nope'"},
      {{"set", "Spin Rate"}, 2, "'Spin Rate' is not NAME=VALUE"},
      {{"set", "SN=X"}, 2, "SN cannot be written"},
      {{"set", "Access Password=x"}, 2, "Access Password cannot be written: its bytes are not defined for this model"},
      {{"set", "Spin Rate=999"}, 2, "Spin Rate: 999 is none of its options"},
      {{"set", "IP Address=1.2.3"}, 2, "IP Address: 1.2.3 is no IP address"},
      {{"set", "Noise Filter Level=11"}, 2, "Noise Filter Level: 11 is out of range 1~10"},
      {{"set", "Laser Power Offset=200", "--force"}, 2, "Laser Power Offset: value '200' refused"},
      {{"set", "Spin Rate=600", "7-1=1200"}, 2, "Spin Rate is given twice"},
      {{"diff", File("text.json")}, 2, "is not a backup"},
      {{"diff", File("foreign.json")}, 2, "is not a varkel-cli backup"},
      {{"restore", File("other.json")}, 2, "is a backup of Quenta-Lite, not of Quenta"},
      {{"--model", "Nokia", "get"}, 2, "unknown model 'Nokia'"},
      {{"--ktc-version", "2", "--timeout", "300", "get"}, 3, "does not answer KTC 2.0"},
  };
  for (const auto& c : cases) {
    const Result r = Run(c.args);
    EXPECT_EQ(r.status, c.status) << c.args[0] << " " << r.err;
    EXPECT_NE(r.err.find(c.says), std::string::npos) << r.err;
    EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 1) << r.err;
  }
  // Nothing was written by any of them.
  EXPECT_EQ(sim_->CommandCount(0x31), 0u);
  EXPECT_EQ(sim_->Value("Spin Rate"), "600");
  // --force writes a value outside the options.
  EXPECT_EQ(Run({"set", "Spin Rate=999", "--force"}).status, 0);
  EXPECT_EQ(sim_->Value("Spin Rate"), "999");
}

TEST_F(CliTest, UnreachableSensorAndSettingsFileDefaults) {
  const uint16_t port = sim_->port();
  // The window's settings file gives the address when no option does.
  fs::create_directories(home_ + "/Documents/VelmoraDataFiles");
  std::ofstream(home_ + "/Documents/VelmoraDataFiles/RecvSettings.ini")
      << "[General]\ndevice_ip_address=127.0.0.1\nktc_port=" << port << "\n";
  Result info = Run({"--json", "info"}, false);
  ASSERT_EQ(info.status, 0) << info.err;
  const Json i = Json::parse(info.out);
  EXPECT_EQ(i["serial_number"], sim_->Value("SN"));
  EXPECT_EQ(i["part_number"], sim_->Value("PN"));
  EXPECT_EQ(i["versions"]["Hardware Version"], "2.1.0 (REV-C)");

  sim_->Stop();
  Result gone = Run({"get"}, false);
  EXPECT_EQ(gone.status, 3);
  EXPECT_EQ(gone.err, "varkel-cli: cannot reach 127.0.0.1:" + std::to_string(port) + ": connection refused\n");
}

TEST_F(CliTest, ModelsListsTheInstalledTables) {
  Result models = Run({"--json", "models"}, false);
  ASSERT_EQ(models.status, 0);
  EXPECT_EQ(Json::parse(models.out), (Json{"Quenta", "Quenta-Lite", "Zelto", "Zelto-KTC"}));
}

// What bash offers for the command line `words` (the last one being typed) with `script`
// sourced, one blank apart.
std::string BashOffers(const std::string& script, const std::string& words) {
  char path[] = "/tmp/varkel-completion-XXXXXX";
  const int fd = ::mkstemp(path);
  EXPECT_GE(fd, 0);
  EXPECT_EQ(::write(fd, script.data(), script.size()), static_cast<ssize_t>(script.size()));
  ::close(fd);
  const std::string command = std::string("bash --norc --noprofile -c 'source ") + path + "; COMP_WORDS=(" + words +
                              "); COMP_CWORD=$((${#COMP_WORDS[@]} - 1)); _varkel_cli; echo \"${COMPREPLY[*]}\"'";
  std::string offers;
  if (FILE* p = ::popen(command.c_str(), "r")) {
    char buf[4096];
    while (size_t n = std::fread(buf, 1, sizeof(buf), p)) offers.append(buf, n);
    ::pclose(p);
  }
  ::unlink(path);
  if (!offers.empty() && offers.back() == '\n') offers.pop_back();
  return offers;
}

TEST(CliCompletion, BashCompletesCommandsAndTheirOptionsFromTheProgramsOwnTree) {
  if (::access("/bin/bash", X_OK) != 0) GTEST_SKIP() << "no bash";
  std::ostringstream out, err;
  const char* argv[] = {"varkel-cli", "completion", "bash"};
  ASSERT_EQ(varkel::cli::RunCli(3, argv, out, err), 0) << err.str();
  const std::string script = out.str();
  EXPECT_EQ(BashOffers(script, "varkel-cli re"), "reset restart restore");
  EXPECT_EQ(BashOffers(script, "varkel-cli --json restore x.json --r"), "--rollback");
  EXPECT_EQ(BashOffers(script, "varkel-cli --tl"), "--tls");  // options of the program itself

  // A command added to the tree is offered with its options, the generator untouched.
  CLI::App app{"", "varkel-cli"};
  app.add_subcommand("reset");
  bool fast = false;
  app.add_subcommand("rebuild")->add_flag("--fast", fast);
  const std::string grown = varkel::cli::BashCompletion(app);
  EXPECT_EQ(BashOffers(grown, "varkel-cli re"), "rebuild reset");
  EXPECT_EQ(BashOffers(grown, "varkel-cli rebuild --f"), "--fast");
}

}  // namespace
