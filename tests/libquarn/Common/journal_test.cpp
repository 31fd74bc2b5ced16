#include "journal.h"

#include <gtest/gtest.h>

#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <set>
#include <string>

namespace {

namespace fs = std::filesystem;
namespace journal = quarn::journal;

class Journal : public ::testing::Test {
 protected:
  void SetUp() override {
    char dir[] = "/tmp/journal-test-XXXXXX";
    ASSERT_NE(::mkdtemp(dir), nullptr);
    dir_ = dir;
  }
  void TearDown() override { fs::remove_all(dir_); }
  static std::string Line(int writer, int seq) {
    journal::Change change{"set", "Frame Rate", "7-1", "10", std::to_string(seq), journal::Outcome::kOk, 0};
    auto entry = journal::MakeEntry({"127.0.0.1", "Quenta", "SN" + std::to_string(writer)}, change, 0);
    entry["pad"] = std::string(200, 'x');  // lines long enough for a torn write to show
    return entry.dump();
  }
  std::string dir_;
};

// Four processes append at once across several rotations: every line stays whole, none is
// lost, and the reader sees each writer's lines in the order they were written.
TEST_F(Journal, ConcurrentAppendsFromProcessesStayWholeAcrossRotation) {
  constexpr int kWriters = 4, kLines = 250;
  std::vector<pid_t> children;
  for (int w = 0; w < kWriters; ++w) {
    const pid_t pid = ::fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
      journal::Writer writer(dir_, 128 * 1024);  // a few rotations, none dropped
      int failures = 0;
      for (int i = 0; i < kLines; ++i) failures += writer.Append(Line(w, i)) ? 0 : 1;
      ::_exit(failures == 0 ? 0 : 1);
    }
    children.push_back(pid);
  }
  for (pid_t pid : children) {
    int status = 0;
    ASSERT_EQ(::waitpid(pid, &status, 0), pid);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
  }
  EXPECT_TRUE(fs::exists(dir_ + "/journal.1.jsonl")) << "no rotation happened";
  size_t skipped = 0;
  const auto entries = journal::Read(dir_, {}, &skipped);
  EXPECT_EQ(skipped, 0u);
  ASSERT_EQ(entries.size(), static_cast<size_t>(kWriters * kLines));
  std::vector<int> next(kWriters, 0);
  for (const auto& e : entries) {
    const int w = std::stoi(e["serial"].get<std::string>().substr(2));
    EXPECT_EQ(std::stoi(e["new"].get<std::string>()), next[w]++);
  }
}

TEST_F(Journal, RotationKeepsFiveOldFilesAndDropsTheOldest) {
  journal::Writer writer(dir_, 1000);
  for (int i = 0; i < 40; ++i) ASSERT_TRUE(writer.Append(Line(0, i)));
  for (int g = 0; g <= 5; ++g) EXPECT_TRUE(fs::exists(dir_ + "/" + journal::FileName(g))) << g;
  EXPECT_FALSE(fs::exists(dir_ + "/journal.6.jsonl"));
  const auto entries = journal::Read(dir_, {});
  ASSERT_FALSE(entries.empty());
  EXPECT_GT(std::stoi(entries.front()["new"].get<std::string>()), 0) << "the oldest lines were to go";
  EXPECT_EQ(entries.back()["new"], "39");
  // The newest few, across the files, in order.
  const auto newest = journal::Read(dir_, {std::nullopt, "", "", 12});
  ASSERT_EQ(newest.size(), 12u);
  EXPECT_EQ(newest.front(), entries[entries.size() - 12]);
  EXPECT_EQ(newest.back()["new"], "39");
}

TEST_F(Journal, UnwritableJournalFailsTheAppendNotTheCaller) {
  const std::string blocker = dir_ + "/file";
  std::ofstream(blocker) << "not a folder";
  std::string error;
  EXPECT_FALSE(journal::Writer(blocker + "/varkel").Append("{}", &error));
  EXPECT_NE(error.find(blocker), std::string::npos) << error;
  const char* before = std::getenv("XDG_DATA_HOME");
  const std::string saved = before ? before : "";
  ::setenv("XDG_DATA_HOME", blocker.c_str(), 1);
  EXPECT_NO_THROW(journal::Record({}, {"restart", "restart", "", {}, {}, journal::Outcome::kNoReply, 0}));
  EXPECT_NO_THROW(journal::Record({}, {"restart", "restart", "", {}, {}, journal::Outcome::kNoReply, 0}));
  if (before)
    ::setenv("XDG_DATA_HOME", saved.c_str(), 1);
  else
    ::unsetenv("XDG_DATA_HOME");
}

TEST_F(Journal, EntryCarriesOutcomeAndOnlyTheValuesThereAre) {
  const auto refused = journal::MakeEntry(
      {"127.0.0.1", "Quenta", "SN1"}, {"console", "13 0A", "", {}, {}, journal::Outcome::kRefused, 5}, 1764122934123);
  EXPECT_EQ(refused["time"], "2025-11-26T02:08:54.123Z");
  EXPECT_EQ(refused["outcome"], "refused");
  EXPECT_EQ(refused["code"], 5);
  EXPECT_FALSE(refused.contains("old") || refused.contains("new") || refused.contains("id"));
  EXPECT_FALSE(refused["user"].get<std::string>().empty());
  EXPECT_EQ(journal::OutcomeOf(-1, -2), journal::Outcome::kNoReply);
  EXPECT_EQ(journal::OutcomeOf(-1, 3), journal::Outcome::kRefused);
  EXPECT_EQ(journal::OutcomeOf(0, 3), journal::Outcome::kOk);
}

TEST_F(Journal, ReadFiltersByTimeHostAndSerialAndSkipsTornLines) {
  journal::Writer writer(dir_);
  const int64_t day = journal::ParseTime("2026-11-26").value();
  for (int i = 0; i < 4; ++i) {
    journal::Change change{"set", "x", "", {}, {}, journal::Outcome::kOk, 0};
    ASSERT_TRUE(writer.Append(journal::MakeEntry({i % 2 ? "127.0.0.2" : "127.0.0.3", "Quenta", "S" + std::to_string(i)},
                                                 change, day + i * 3600000)
                                  .dump()));
  }
  ASSERT_TRUE(writer.Append("{\"time\": \"2026-11-26T0"));  // a line cut short
  size_t skipped = 0;
  EXPECT_EQ(journal::Read(dir_, {}, &skipped).size(), 4u);
  EXPECT_EQ(skipped, 1u);
  EXPECT_EQ(journal::Read(dir_, {journal::ParseTime("2026-11-26T02:00Z"), "", ""}).size(), 2u);
  EXPECT_EQ(journal::Read(dir_, {std::nullopt, "127.0.0.2", ""}).size(), 2u);
  EXPECT_EQ(journal::Read(dir_, {std::nullopt, "127.0.0.2", "S3"}).size(), 1u);
  EXPECT_EQ(journal::Read(dir_, {std::nullopt, "", "S9"}).size(), 0u);
}

TEST(JournalTime, ParsesTheAcceptedFormsAndRefusesTheRest) {
  const int64_t day = 1795651200000;  // 2026-11-26T00:00:00Z
  const std::pair<const char*, std::optional<int64_t>> cases[] = {
      {"2026-11-26", day},
      {"2026-11-26T08:30", day + 8 * 3600000 + 30 * 60000},
      {"2026-11-26T08:30:05Z", day + 8 * 3600000 + 30 * 60000 + 5000},
      {"2026-11-26T00:00:00.250", day + 250},
      {"2026-11-26 08:30", std::nullopt},
      {"2026-13-01", std::nullopt},
      {"yesterday", std::nullopt},
      {"2026-11-26T08:30:05.1234", std::nullopt},
  };
  for (const auto& [text, expected] : cases) EXPECT_EQ(journal::ParseTime(text), expected) << text;
  EXPECT_EQ(journal::FormatTime(day + 250), "2026-11-26T00:00:00.250Z");
}

}  // namespace
