// varkel-cli watch against the virtual lidar: alerts on an excursion, the rows, JSON lines
// and recording it writes, what it refuses before connecting, and the end of a lost link.

#include <gtest/gtest.h>

#include <regex>
#include <sstream>
#include <thread>

#include <nlohmann/json.hpp>

#include "../sim/sim_test_support.h"
#include "cli_fixture.h"
#include "file_text.h"
#include "wait_until.h"

namespace {

using namespace varkel::cli::testing;
using Json = nlohmann::json;

std::vector<std::string> Lines(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

std::vector<std::string> FileLines(const std::string& path) {
  return Lines(vktest::FileText(path));
}

class WatchTest : public CliTest {
 protected:
  // The motor pushed far past its normal speed from the moment the lidar listens.
  void StartWithExcursion() {
    sim_->Stop();
    varkel::sim::SimOptions o = Options();
    o.excursions = {{"Motor Speed", 60000, 60}};
    sim_ = Started(o);
    ASSERT_NE(sim_, nullptr);
  }
};

TEST_F(WatchTest, AnExcursionAlertsOnceAndIsRecordedWithEverySampleAsJsonLines) {
  StartWithExcursion();
  const std::string csv = File("w.csv");
  Result r = Run({"watch", "Motor Speed", "Input Voltage", "--interval", "100", "--count", "5", "--json", "--csv", csv,
                  "--alert", "Motor Speed>700", "--alert", "Input Voltage<1"});
  EXPECT_EQ(r.status, 1) << r.err;
  // One alert: the speed stays beyond its limit, the voltage never passes its own.
  const auto errors = Lines(r.err);
  ASSERT_EQ(errors.size(), 1u) << r.err;
  EXPECT_NE(errors[0].find("alert: Motor Speed "), std::string::npos) << errors[0];
  EXPECT_NE(errors[0].find(" rpm above the high limit 700 rpm"), std::string::npos) << errors[0];

  const std::regex iso(R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z)");
  const auto rows = Lines(r.out);
  ASSERT_EQ(rows.size(), 5u) << r.out;
  double last_speed = 0;
  for (const std::string& line : rows) {
    const Json j = Json::parse(line);
    EXPECT_TRUE(std::regex_match(j["time"].get<std::string>(), iso)) << line;
    ASSERT_EQ(j["values"].size(), 2u) << line;
    EXPECT_EQ(j["values"]["Input Voltage"], 12.04);
    EXPECT_GE(j["values"]["Motor Speed"].get<double>(), last_speed);
    last_speed = j["values"]["Motor Speed"];
  }
  EXPECT_GT(last_speed, 700);

  const auto lines = FileLines(csv);
  ASSERT_EQ(lines.size(), 7u);
  EXPECT_EQ(lines[0], "time,Motor Speed [rpm],Input Voltage [V],event");
  int events = 0;
  for (size_t i = 1; i < lines.size(); ++i) {
    if (lines[i].find(",,,Motor Speed ") != std::string::npos) ++events;
    EXPECT_TRUE(std::regex_search(lines[i], std::regex("^" + std::string(R"(\d{4}-\d\d-\d\dT[0-9:.]{12}Z,)"))));
  }
  EXPECT_EQ(events, 1);
  EXPECT_EQ(lines.back().substr(lines.back().size() - 7), ",12.04,");
}

TEST_F(WatchTest, BadNamesAndAlertsAreRefusedBeforeAnythingIsSent) {
  const uint64_t probes = sim_->CommandCount(7);
  for (const std::vector<std::string>& args :
       std::vector<std::vector<std::string>>{{"watch", "No Such Thing"},
                                             {"watch", "SN"},
                                             {"watch", "Run Time"},
                                             {"watch", "--alert", "Motor Speed=5"},
                                             {"watch", "--alert", "Nothing>5"},
                                             {"watch", "--alert", "Serial Number Of Nothing<"},
                                             {"watch", "--interval", "50"},
                                             {"watch", "--csv", File("no/such/folder/w.csv")}}) {
    Result r = Run(args);
    EXPECT_EQ(r.status, 2) << args.back() << ": " << r.err;
    EXPECT_FALSE(r.err.empty());
  }
  EXPECT_EQ(sim_->CommandCount(7), probes);
}

TEST_F(WatchTest, ALostConnectionEndsWithStatus3AfterEverySampleIsWritten) {
  const std::string csv = File("lost.csv");
  Result r;
  std::thread watch([&] { r = Run({"watch", "--interval", "100", "--count", "100000", "--csv", csv}); });
  // Header and a few samples on disk, then the sensor goes away.
  EXPECT_TRUE(vktest::PollUntil([&] { return FileLines(csv).size() >= 4; }));
  sim_->Stop();
  watch.join();
  EXPECT_EQ(r.status, 3) << r.err;
  EXPECT_NE(r.err.find("connection lost"), std::string::npos) << r.err;
  // The table's header and rows; the recording holds every row printed.
  const auto printed = Lines(r.out);
  const auto recorded = FileLines(csv);
  ASSERT_GE(printed.size(), 4u);
  EXPECT_EQ(recorded.size(), printed.size());
  EXPECT_EQ(printed[0].substr(0, 4), "TIME");
  EXPECT_NE(printed[0].find("Laser Temperature [°C]"), std::string::npos);
  EXPECT_EQ(printed.back().substr(0, 24), recorded.back().substr(0, 24));
}

}  // namespace
