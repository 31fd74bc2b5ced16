#include "atomic_file.h"

#include <gtest/gtest.h>

#include <stdlib.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <csignal>
#include <filesystem>
#include <string>

#include "file_text.h"

namespace {

namespace fs = std::filesystem;

class AtomicFile : public ::testing::Test {
 protected:
  void SetUp() override {
    char dir[] = "/tmp/atomic-file-test-XXXXXX";
    ASSERT_NE(::mkdtemp(dir), nullptr);
    dir_ = dir;
  }
  void TearDown() override { fs::remove_all(dir_); }
  size_t Entries() { return static_cast<size_t>(std::distance(fs::directory_iterator(dir_), {})); }
  std::string dir_;
};

TEST_F(AtomicFile, ReplacesWholeAndKeepsThePermissions) {
  const std::string path = dir_ + "/backup.json";
  std::string error;
  ASSERT_TRUE(quarn::WriteFileAtomically(path, std::string("first, and longer"), &error)) << error;
  ::chmod(path.c_str(), 0640);
  ASSERT_TRUE(quarn::WriteFileAtomically(path, std::string("second"), &error)) << error;
  EXPECT_EQ(vktest::FileText(path), "second");
  struct stat st {};
  ASSERT_EQ(::stat(path.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0640u);
  EXPECT_EQ(Entries(), 1u);  // no temporary left beside it
}

TEST_F(AtomicFile, AFailedWriteLeavesTheOldFileAndNoTemporary) {
  const std::string path = dir_ + "/backup.json";
  ASSERT_TRUE(quarn::WriteFileAtomically(path, std::string("the earlier backup")));

  // Cut off part-way: a file size limit holds for root too.
  std::signal(SIGXFSZ, SIG_IGN);
  rlimit saved{};
  ASSERT_EQ(::getrlimit(RLIMIT_FSIZE, &saved), 0);
  rlimit small = saved;
  small.rlim_cur = 4096;
  ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &small), 0);
  std::string error;
  const bool written = quarn::WriteFileAtomically(path, std::string(64 * 1024, 'x'), &error);
  ::setrlimit(RLIMIT_FSIZE, &saved);
  EXPECT_FALSE(written);
  EXPECT_EQ(error.rfind("cannot write " + path + ": ", 0), 0u) << error;
  EXPECT_EQ(vktest::FileText(path), "the earlier backup");
  EXPECT_EQ(Entries(), 1u);

  // A folder in the file's place is never replaced.
  const std::string folder = dir_ + "/folder";
  fs::create_directory(folder);
  EXPECT_FALSE(quarn::WriteFileAtomically(folder, std::string("x"), &error));
  EXPECT_NE(error.find(folder), std::string::npos);
  EXPECT_TRUE(fs::is_directory(folder));
  EXPECT_FALSE(quarn::WriteFileAtomically(dir_ + "/no-such-dir/f", std::string("x"), &error));
  EXPECT_EQ(Entries(), 2u);
}

}  // namespace
