// Limits with hysteresis, alert rules as typed, and the CSV recording with the ways it
// can stop.

#include <gtest/gtest.h>

#include <stdlib.h>

#include <cmath>
#include <filesystem>

#include "csv_recorder.h"
#include "file_text.h"
#include "limit_watch.h"

namespace {

using namespace quarn::monitor;
namespace fs = std::filesystem;

TEST(LimitWatch, RaisesOnceAndRearmsOnlyPastTheHysteresis) {
  Limits limits;
  limits.low = 10;
  limits.high = 20;
  LimitWatch watch(0.05);  // half a unit
  EXPECT_EQ(watch.Update(15, limits).kind, LimitEvent::kNone);
  LimitEvent e = watch.Update(20.1, limits);
  EXPECT_EQ(e.kind, LimitEvent::kRaised);
  EXPECT_EQ(e.state, LimitState::kAboveHigh);
  EXPECT_EQ(e.limit, 20);
  // Noise around the limit: no new alert, no clearing.
  for (double v : {19.8, 20.3, 19.6, 21.0}) EXPECT_EQ(watch.Update(v, limits).kind, LimitEvent::kNone) << v;
  EXPECT_EQ(watch.Update(NAN, limits).kind, LimitEvent::kNone);
  EXPECT_EQ(watch.Update(19.5, limits).kind, LimitEvent::kCleared);
  EXPECT_EQ(watch.Update(20.5, limits).kind, LimitEvent::kRaised);
  // A jump past both limits reports the new one.
  e = watch.Update(2, limits);
  EXPECT_EQ(e.kind, LimitEvent::kRaised);
  EXPECT_EQ(e.state, LimitState::kBelowLow);
  EXPECT_EQ(AlertText("Input Voltage", "V", 2, e), "Input Voltage 2 V below the low limit 10 V");
  // Removing the limit clears.
  limits.low.reset();
  EXPECT_EQ(watch.Update(2, limits).kind, LimitEvent::kCleared);

  // Without hysteresis, the first sample counts and coming back inside re-arms.
  Limits high_only;
  high_only.high = 0;
  LimitWatch plain;
  EXPECT_EQ(plain.Update(1, high_only).kind, LimitEvent::kRaised);
  EXPECT_EQ(plain.Update(0, high_only).kind, LimitEvent::kCleared);
}

TEST(LimitWatch, AlertRulesAsTyped) {
  std::string name;
  Limits limits;
  ASSERT_TRUE(ParseAlertRule("Laser Temperature>50.5", &name, &limits));
  EXPECT_EQ(name, "Laser Temperature");
  EXPECT_EQ(*limits.high, 50.5);
  EXPECT_FALSE(limits.low);
  ASSERT_TRUE(ParseAlertRule(" 14-1 < -3e1 ", &name, &limits));
  EXPECT_EQ(name, "14-1");
  EXPECT_EQ(*limits.low, -30);
  for (const char* bad : {"", "Temp", "Temp>", ">5", "Temp>5x", "Temp<>5", "Temp>5>6", "Temp=5", "Temp>nan"})
    EXPECT_FALSE(ParseAlertRule(bad, &name, &limits)) << bad;
}

class Recording : public ::testing::Test {
 protected:
  void SetUp() override {
    char dir[] = "/tmp/varkel-rec-XXXXXX";
    ASSERT_NE(::mkdtemp(dir), nullptr);
    dir_ = dir;
  }
  void TearDown() override { fs::remove_all(dir_); }
  std::string dir_;
};

TEST_F(Recording, HeaderRowsEmptyCellsAndEventsReachTheFileAtOnce) {
  CsvRecorder rec;
  const std::string path = dir_ + "/r.csv";
  ASSERT_TRUE(rec.Open(path, {ColumnTitle("Laser Temperature", "°C"), ColumnTitle("Frame Counter", ""),
                              ColumnTitle("Odd, \"quoted\"", "V")}));
  // 2026-11-26T02:30:05.042Z
  const int64_t t = 1795660205042;
  ASSERT_TRUE(rec.WriteSample(t, {38.47, 1234567890123, NAN}));
  ASSERT_TRUE(rec.WriteEvent(t + 958, "Laser Temperature 51 °C above the high limit 50 °C"));
  ASSERT_TRUE(rec.WriteSample(t + 1000, {NAN, 7}));
  // Read while still open: nothing waits in a buffer.
  EXPECT_EQ(vktest::FileText(path),
            "time,Laser Temperature [°C],Frame Counter,\"Odd, \"\"quoted\"\" [V]\",event\n"
            "2026-11-26T02:30:05.042Z,38.47,1234567890123,,\n"
            "2026-11-26T02:30:06.000Z,,,,Laser Temperature 51 °C above the high limit 50 °C\n"
            "2026-11-26T02:30:06.042Z,,7,,\n");
  EXPECT_EQ(rec.rows(), 2u);
  EXPECT_EQ(IsoTimeMs(-1), "1969-12-31T23:59:59.999Z");
}

TEST_F(Recording, AVanishedFolderOrAFullDiskStopsWithAMessage) {
  const std::string sub = dir_ + "/sub";
  fs::create_directory(sub);
  CsvRecorder rec;
  ASSERT_TRUE(rec.Open(sub + "/r.csv", {"A"}));
  ASSERT_TRUE(rec.WriteSample(0, {1}));
  fs::remove_all(sub);
  EXPECT_FALSE(rec.WriteSample(1000, {2}));
  EXPECT_FALSE(rec.recording());
  EXPECT_NE(rec.error().find("is gone"), std::string::npos) << rec.error();
  EXPECT_FALSE(rec.WriteEvent(2000, "x"));

  CsvRecorder full;
  EXPECT_FALSE(full.Open("/dev/full", {"A"}));
  EXPECT_NE(full.error().find("No space left"), std::string::npos) << full.error();
  CsvRecorder nowhere;
  EXPECT_FALSE(nowhere.Open(dir_ + "/missing/r.csv", {"A"}));
  EXPECT_NE(nowhere.error().find("cannot record to"), std::string::npos);
}

}  // namespace
