// The shape of the logs the sensor makes up, and how it traces huge frames.

#include <gtest/gtest.h>

#include <cstdio>
#include <optional>
#include <string>

#include "device_log.h"
#include "reply_path.h"

using namespace varkel::sim;

namespace {

struct Stamp {
  int year, month, day, hour, minute, second, ms;
};

// The time stamp at the start of a log line, if it is a well-formed one.
std::optional<Stamp> StampOf(const std::string& line) {
  Stamp s{};
  int used = 0;
  if (std::sscanf(line.c_str(), "%4d-%2d-%2d %2d:%2d:%2d.%3d %n", &s.year, &s.month, &s.day, &s.hour, &s.minute,
                  &s.second, &s.ms, &used) != 7 ||
      used != 24)
    return std::nullopt;
  return s;
}

TEST(SimLogBody, ExactSizeWholeLinesAndATimeThatOnlyMovesForwardAcrossDays) {
  for (size_t size : {0, 1, 2, 57, 4096, 4097}) {
    const auto body = BuildLogBody("Fault Log", size);
    ASSERT_EQ(body.size(), size);
    if (size > 0) EXPECT_EQ(body.back(), '\n') << size;
  }
  EXPECT_EQ(BuildLogBody("Event Log", 5000), BuildLogBody("Event Log", 5000));
  EXPECT_NE(BuildLogBody("Operation Log bsw_error", 5000), BuildLogBody("Operation Log asw_error", 5000));

  // Long enough to run into the next month: every whole line has a valid, later-or-equal
  // time stamp and names its log.
  const auto body = BuildLogBody("Operation Log asw_warning", 4u << 20);
  const std::string text(body.begin(), body.end());
  static const int kDays[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
  std::string previous;
  size_t lines = 0;
  for (size_t at = 0, end; (end = text.find('\n', at)) != std::string::npos; at = end + 1) {
    const std::string line = text.substr(at, end - at);
    if (end + 1 == text.size()) break;  // the last line may be cut short
    const auto s = StampOf(line);
    ASSERT_TRUE(s) << line;
    ASSERT_TRUE(s->month >= 1 && s->month <= 12 && s->day >= 1 && s->day <= kDays[s->month - 1] && s->hour < 24 &&
                s->minute < 60 && s->second < 60 && s->ms < 1000)
        << line;
    const std::string stamp = line.substr(0, 23);
    ASSERT_GE(stamp, previous) << line;
    ASSERT_NE(line.find(" Operation Log asw_warning #" + std::to_string(lines + 1) + " "), std::string::npos) << line;
    previous = stamp;
    ++lines;
  }
  EXPECT_GT(lines, 40000u);
  EXPECT_EQ(previous.substr(0, 8), "2026-04-");
}

TEST(SimTrace, AHugeFrameIsTracedByItsStartAndSize) {
  ReplyPath path;
  path.set_verbose(true);
  std::vector<uint8_t> frame(1u << 20, 0xAB);
  testing::internal::CaptureStdout();
  EXPECT_TRUE(path.Send("KTC", frame, [](const std::vector<uint8_t>& b) { return b.size() == 1u << 20; }));
  path.TraceIn("KTC", frame.data(), 3);
  const std::string out = testing::internal::GetCapturedStdout();
  EXPECT_LT(out.size(), 4000u);
  EXPECT_NE(out.find("KTC out: ab ab"), std::string::npos) << out;
  EXPECT_NE(out.find("(1048576 bytes in all)"), std::string::npos) << out;
  EXPECT_NE(out.find("KTC in:  ab ab ab \n"), std::string::npos) << out;
}

}  // namespace
