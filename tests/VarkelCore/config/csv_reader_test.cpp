#include "csv_reader.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <stdexcept>
#include <string>

namespace {

std::string TempPath(const std::string& name) {
  return std::string(VARKEL_BINARY_DIR) + "/test-tmp-csv-" + name;
}

void WriteFile(const std::string& path, const std::string& bytes) {
  std::ofstream out(path, std::ios::binary);
  out << bytes;
}

}  // namespace

TEST(ConfigCsvReader, SpreadsheetFileWithBomCrlfQuotedLinesAndTrailingEmptyLine) {
  const std::string path = TempPath("spreadsheet.csv");
  WriteFile(path,
            "\xEF\xBB\xBFGroupID,VarName,OptionDescription\r\n"
            "1,\"Spin, Rate\",\"0_Off\r\n1_On\"\r\n"
            "2,  Mode  ,\"  kept  \"\r\n"
            "\r\n");
  csv::Reader reader;
  ASSERT_TRUE(reader.ReadFile(path));
  // The mark is not part of the first column's name.
  EXPECT_EQ(reader.header(), (std::vector<std::string>{"GroupID", "VarName", "OptionDescription"}));
  ASSERT_EQ(reader.rows().size(), 2u);
  const csv::Row& first = reader.rows()[0];
  EXPECT_EQ(first["VarName"], "Spin, Rate");
  EXPECT_EQ(first["OptionDescription"], "0_Off\r\n1_On");
  // Blanks around unquoted cells go, quoted cells keep theirs.
  EXPECT_EQ(reader.rows()[1]["VarName"], "Mode");
  EXPECT_EQ(reader.rows()[1]["OptionDescription"], "  kept  ");
  std::remove(path.c_str());
}

TEST(ConfigCsvReader, MissingColumnRaggedRowsAndPositions) {
  csv::Reader reader;
  ASSERT_TRUE(reader.ReadText("A,B,C\n1\n1,2,3,4\n\"x\"\"y\",,\n"));
  ASSERT_EQ(reader.rows().size(), 3u);
  const csv::Row& short_row = reader.rows()[0];
  EXPECT_EQ(short_row["A"], "1");
  EXPECT_EQ(short_row["C"], "");  // cells missing at the end read as empty
  const csv::Row& long_row = reader.rows()[1];
  EXPECT_EQ(long_row.size(), 4u);
  EXPECT_EQ(long_row[3], "4");  // kept, reachable by position only
  EXPECT_EQ(long_row[9], "");
  EXPECT_EQ(reader.rows()[2]["A"], "x\"y");
  EXPECT_TRUE(reader.rows()[2][1].empty());
  EXPECT_FALSE(reader.rows()[1].AllEmpty());
  EXPECT_EQ(reader.ColumnPosition("C"), 2);
  EXPECT_EQ(reader.ColumnPosition("D"), -1);
  try {
    (void)short_row["GroupID"];
    FAIL() << "no error for a missing column";
  } catch (const std::runtime_error& e) {
    EXPECT_STREQ(e.what(), "Can't find a column named GroupID");
  }
}

TEST(ConfigCsvReader, EmptyInputsAndUnreadableFile) {
  csv::Reader reader;
  EXPECT_FALSE(reader.ReadText(""));
  EXPECT_EQ(reader.error(), "the file has no header row");
  EXPECT_FALSE(reader.ReadText("\xEF\xBB\xBF\r\n\r\n"));
  EXPECT_TRUE(reader.ReadText("A,B\n"));
  EXPECT_TRUE(reader.rows().empty());
  // A row of empty cells is a row; the table loader decides what it means.
  ASSERT_TRUE(reader.ReadText("A,B\n,\n"));
  ASSERT_EQ(reader.rows().size(), 1u);
  EXPECT_TRUE(reader.rows()[0].AllEmpty());
  EXPECT_FALSE(reader.ReadFile(TempPath("does-not-exist.csv")));
  EXPECT_EQ(reader.error(), "can't open the file");
  EXPECT_TRUE(reader.header().empty());
}

TEST(ConfigCsvReader, UnterminatedQuoteTakesTheRestOfTheFile) {
  csv::Reader reader;
  ASSERT_TRUE(reader.ReadText("A,B\n1,\"open\n2,3\n"));
  ASSERT_EQ(reader.rows().size(), 1u);
  EXPECT_EQ(reader.rows()[0]["B"], "open\n2,3\n");
}
