// Where the programs find their model tables: beside bin/ first, else <prefix>/share/varkel.

#include <gtest/gtest.h>

#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>

#include "data_root.h"

namespace {

namespace fs = std::filesystem;

TEST(DataRoot, BesideBinThenSharedDataThenTheWorkingFolder) {
  const fs::path prefix = fs::temp_directory_path() / ("varkel-data-root-" + std::to_string(::getpid()));
  fs::remove_all(prefix);
  fs::create_directories(prefix / "bin");
  const std::string exe = (prefix / "bin" / "varkel-cli").string();
  EXPECT_EQ(quarn::DefaultModelTableDir(exe), "./Config/varID");

  // A package unpacked anywhere: <prefix>/bin and <prefix>/share/varkel.
  fs::create_directories(prefix / "share/varkel/Config/varID");
  EXPECT_EQ(quarn::DefaultModelTableDir(exe), prefix.string() + "/share/varkel/Config/varID");
  EXPECT_EQ(quarn::FindDataRoot((prefix / "bin/").string(), "Config/varID"), prefix.string() + "/share/varkel");

  // The build tree's layout (tables beside bin/) wins over the shared data.
  fs::create_directories(prefix / "Config/varID");
  EXPECT_EQ(quarn::DefaultModelTableDir(exe), prefix.string() + "/Config/varID");

  // A file where the folder should be is no table folder.
  fs::remove_all(prefix / "Config");
  fs::remove_all(prefix / "share");
  fs::create_directories(prefix / "Config");
  { std::ofstream(prefix / "Config/varID") << "not a folder"; }
  EXPECT_EQ(quarn::DefaultModelTableDir(exe), "./Config/varID");
  fs::remove_all(prefix);
}

}  // namespace
