#include "logger.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "file_text.h"
#include "log_capture.h"
#include "wait_until.h"

namespace {

using Capture = vktest::LogCapture;

TEST(Logger, FormatsAndFillsSourceLocation) {
  Capture cap;
  const int line = __LINE__ + 1;
  LOG_WARNING("connect failed %d on %s", 111, "eth0");
  auto records = cap.Records();
  ASSERT_EQ(records.size(), 1u);
  EXPECT_EQ(records[0].level, kLogWarning);
  EXPECT_EQ(records[0].message, "connect failed 111 on eth0");
  EXPECT_EQ(records[0].file, "logger_test.cpp");
  EXPECT_EQ(records[0].line, line);
  EXPECT_NE(records[0].function.find("TestBody"), std::string::npos);
}

TEST(Logger, OverlongMessageIsCutNotFatal) {
  Capture cap;
  std::string huge(Logger::kMaxMessageLength * 3, 'x');
  LOG_ERROR("%s", huge.c_str());
  auto records = cap.Records();
  ASSERT_EQ(records.size(), 1u);
  EXPECT_LT(records[0].message.size(), Logger::kMaxMessageLength + 64);
  EXPECT_NE(records[0].message.find("(truncated)"), std::string::npos);
}

TEST(Logger, NullFormatAndReentrantObserverAreSafe) {
  Capture cap;
  Logger::GetInstance().AddToQueue(kLogProgress, nullptr, 0, nullptr, nullptr);
  // An observer that logs would deadlock without the re-entry guard.
  int id = Logger::GetInstance().AddObserver([](const LogRecord&) { LOG_PROGRESS("from observer"); });
  LOG_PROGRESS("outer");
  Logger::GetInstance().RemoveObserver(id);
  auto records = cap.Records();
  ASSERT_EQ(records.size(), 2u);
  EXPECT_EQ(records[0].message, "(null format)");
  EXPECT_EQ(records[1].message, "outer");
}

TEST(Logger, ConcurrentWritersLoseNothing) {
  Capture cap;
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t)
    threads.emplace_back([t] {
      for (int i = 0; i < 250; ++i) LOG_TIMING("t%d i%d", t, i);
    });
  for (auto& th : threads) th.join();
  EXPECT_EQ(cap.Records().size(), 1000u);
  EXPECT_FALSE(Logger::GetInstance().LogDirectory().empty());
}

std::string LogFileText() {
  return vktest::FileText(Logger::GetInstance().LogDirectory() + "/varkel.log");
}

TEST(Logger, BatchedLinesKeepTheirOrderAroundWarningsAndReachTheFileUnasked) {
  const std::string tag = std::to_string(std::chrono::steady_clock::now().time_since_epoch().count());
  LOG_TIMING("first %s", tag.c_str());
  LOG_WARNING("second %s", tag.c_str());  // written at once, after the line before it
  LOG_PROGRESS("third %s", tag.c_str());
  Logger::GetInstance().Flush();
  const std::string text = LogFileText();
  const size_t a = text.find("first " + tag), b = text.find("second " + tag), c = text.find("third " + tag);
  ASSERT_NE(a, std::string::npos);
  ASSERT_NE(b, std::string::npos);
  ASSERT_NE(c, std::string::npos);
  EXPECT_LT(a, b);
  EXPECT_LT(b, c);
  EXPECT_NE(text.find("[logger_test.cpp:"), std::string::npos);

  // Without a flush, a quiet logger still writes the batch within a moment.
  LOG_TIMING("unasked %s", tag.c_str());
  EXPECT_TRUE(vktest::PollUntil([&] { return LogFileText().find("unasked " + tag) != std::string::npos; }));
}

}  // namespace
