// Log names from a model table become file names inside the folder the user chose.

#include <gtest/gtest.h>

#include "log_file_name.h"

TEST(SafeLogFileStem, NamesNeverLeaveTheFolderOrHideThemselves) {
  const std::pair<std::string, std::string> rows[] = {{"Fault Log", "Fault Log"},
                                                      {"../../etc/passwd", "______etc_passwd"},
                                                      {"..", "__"},
                                                      {"a/b\\\\c", "a_b__c"},
                                                      {"C:log", "C_log"},
                                                      {"x\ny\x01\x7f", "x_y__"},
                                                      {".hidden", "_hidden"},
                                                      {"", "log"},
                                                      {"Operation Log", "Operation Log"}};
  for (const auto& [name, stem] : rows) {
    EXPECT_EQ(varkel::SafeLogFileStem(name), stem) << name;
    EXPECT_EQ(varkel::SafeLogFileStem(name).find('/'), std::string::npos);
  }
}
