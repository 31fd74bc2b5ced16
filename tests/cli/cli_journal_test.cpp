// The change journal as the command line leaves and reads it, and the support bundle.

#include <gtest/gtest.h>

#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <set>
#include <string>

#include <nlohmann/json.hpp>

#include "change_journal.h"
#include "cli_fixture.h"
#include "file_text.h"
#include "run_program.h"

namespace {

using namespace varkel::cli::testing;
using Json = nlohmann::json;

class CliJournalTest : public CliTest {
 protected:
  Json Journal(std::vector<std::string> filters = {}) {
    filters.insert(filters.begin(), {"--json", "journal"});
    const Result r = Run(filters, false);
    EXPECT_EQ(r.status, 0) << r.err;
    return Json::parse(r.out);
  }
  std::set<std::string> ArchiveNames(const std::string& archive) {
    std::string listing;
    EXPECT_EQ(varkel::RunProgram({"tar", "-tzf", archive}, home_, 30000, &listing), 0) << listing;
    std::set<std::string> names;
    std::istringstream in(listing);
    for (std::string line; std::getline(in, line);) names.insert(line);
    return names;
  }
};

TEST_F(CliJournalTest, ChangesLeaveOneLineEachWithTheirOutcome) {
  // A unit's own serial number, not the table's default, names it in the journal.
  ASSERT_TRUE(sim_->SetValue("SN", "QT26J00417"));
  const std::string before = sim_->Value("Noise Filter Level");
  EXPECT_EQ(Run({"backup", File("b.json")}).status, 0);  // reads leave no line
  ASSERT_EQ(Run({"set", "Noise Filter Level=7"}).status, 0);
  sim_->SetFailure(varkel::sim::FailureMode::kReturnCode, 0x2B, 4);
  EXPECT_EQ(Run({"set", "Noise Filter Level=9"}).status, 3);
  sim_->ClearFailures();
  ASSERT_EQ(Run({"console", "13"}).status, 0);

  const Json all = Journal();
  ASSERT_EQ(all.size(), 3u) << all.dump(2);
  const Json& set = all[0];
  const Json expected = Json::parse(
      R"({"program": "varkel-cli", "host": "127.0.0.1", "model": "Quenta", "serial": "QT26J00417", "what": "set",)"
      R"( "name": "Noise Filter Level", "id": "8-4", "new": "7", "outcome": "ok"})");
  for (const auto& [key, value] : expected.items()) EXPECT_EQ(set[key], value) << key;
  EXPECT_EQ(set["old"], before);
  EXPECT_FALSE(set.contains("code"));
  EXPECT_EQ(all[1]["old"], "7");
  EXPECT_EQ(all[1]["outcome"], "refused");
  EXPECT_EQ(all[1]["code"], 4);
  EXPECT_EQ(all[2]["what"], "console");
  EXPECT_EQ(all[2]["name"], "13 ");

  // Filters, and a restore recorded as such.
  ASSERT_EQ(Run({"restore", File("b.json")}).status, 0);
  EXPECT_EQ(Journal({"--serial", sim_->Value("SN")}).size(), 4u);
  EXPECT_EQ(Journal({"--serial", "nobody"}).size(), 0u);
  EXPECT_EQ(Journal({"--host", "127.0.0.9"}).size(), 0u);
  EXPECT_EQ(Journal({"--since", "2999-01-01"}).size(), 0u);
  EXPECT_EQ(Journal({"--since", all[2]["time"]}).back()["what"], "restore");
  EXPECT_EQ(Run({"journal", "--since", "last week"}, false).status, 2);
  const Result table = Run({"journal", "--host", "127.0.0.1"}, false);
  EXPECT_NE(table.out.find("refused (4)"), std::string::npos) << table.out;
}

TEST_F(CliJournalTest, AnUnwritableJournalNeverFailsTheChange) {
  std::ofstream(File("blocker")) << "a file where the folder would go";
  ::setenv("XDG_DATA_HOME", File("blocker").c_str(), 1);
  const Result set = Run({"set", "Noise Filter Level=6"});
  EXPECT_EQ(set.status, 0) << set.err;
  EXPECT_EQ(sim_->Value("Noise Filter Level"), "6");
}

// Only the variables the user changed are recorded, and secrets never in the clear.
TEST_F(CliJournalTest, SetLinesCarryOnlyEditedVariablesAndMaskSecrets) {
  auto table = varkel::cli::LoadModel(kTables, "Quenta");
  struct Host : varkel::TableHost {
    std::string Value(const VarInfo& var) override { return var.var_type == "raw" ? "s3cret" : "42"; }
    bool Edited(const VarInfo& var) override { return var.var_name != "Access Password"; }
    void StoreRead(VarInfo&, const std::string&) override {}
    std::array<float, quarn::lidar::kFovRanges> FovValues() override { return {}; }
  } host;
  VarInfo* key = table->FindByName("Shared Secret Key");
  ASSERT_NE(key, nullptr);
  varkel::PreparedSet set;
  set.set_cmd = key->set_cmd;
  const auto changes = varkel::SetChanges(host, *table, set, {}, "set");
  bool key_seen = false;
  for (const auto& change : changes) {
    EXPECT_NE(change.name, "Access Password") << "left alone, so not changed";
    key_seen = key_seen || change.name == key->var_name;
    EXPECT_EQ(change.new_value, change.name == key->var_name ? "********" : "42") << change.name;
  }
  EXPECT_TRUE(key_seen);
}

TEST_F(CliJournalTest, BundleHoldsWhatItListsAndNothingHalfWritten) {
  ASSERT_EQ(Run({"set", "Noise Filter Level=7"}).status, 0);
  const std::string settings = home_ + "/Documents/VelmoraDataFiles/RecvSettings.ini";
  fs::create_directories(fs::path(settings).parent_path());
  std::ofstream(settings) << "[General]\ndevice_ip_address=127.0.0.1\nwifi_password=hunter2\n";

  const Result plain = Run({"bundle", File("plain.tar.gz")}, false);
  ASSERT_EQ(plain.status, 0) << plain.err;
  const auto names = ArchiveNames(File("plain.tar.gz"));
  for (const char* part : {"version.txt", "journal/journal.jsonl", "settings.ini"})
    EXPECT_TRUE(names.count(part)) << part;
  EXPECT_FALSE(names.count("sensor/backup.json")) << "no sensor was named";

  // Versions, backup and logs come over the connection one command makes.
  uint64_t before = sim_->ConnectionsAccepted();
  ASSERT_EQ(Run({"info"}).status, 0);
  const uint64_t one_command = sim_->ConnectionsAccepted() - before;
  before = sim_->ConnectionsAccepted();
  ASSERT_EQ(Run({"bundle", File("sensor.tar.gz"), "--logs"}).status, 0);
  EXPECT_EQ(sim_->ConnectionsAccepted() - before, one_command);
  const auto with_sensor = ArchiveNames(File("sensor.tar.gz"));
  for (const char* part : {"sensor/backup.json", "sensor/versions.json"}) EXPECT_TRUE(with_sensor.count(part)) << part;
  EXPECT_TRUE(std::any_of(with_sensor.begin(), with_sensor.end(),
                          [](const std::string& n) { return n.rfind("sensor/logs/", 0) == 0 && n.size() > 12; }));

  std::string out;
  ASSERT_EQ(varkel::RunProgram({"tar", "-xzf", File("plain.tar.gz"), "settings.ini"}, home_, 30000, &out), 0);
  const std::string text = vktest::FileText(File("settings.ini"));
  EXPECT_EQ(text.find("hunter2"), std::string::npos);
  EXPECT_NE(text.find("device_ip_address=127.0.0.1"), std::string::npos);

  // A sensor that does not answer: no archive, and nothing beside where it would be.
  sim_->SetFailure(varkel::sim::FailureMode::kNoReply);
  EXPECT_NE(Run({"--timeout", "300", "bundle", File("dead.tar.gz")}).status, 0);
  for (const auto& entry : fs::directory_iterator(home_))
    EXPECT_EQ(entry.path().filename().string().find("dead"), std::string::npos) << entry.path();
}

}  // namespace
