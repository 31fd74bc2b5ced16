#include "csv_reader.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <stdexcept>
#include <string>

TEST(ConfigCsvReader, SpreadsheetFileWithBomCrlfQuotedLinesAndTrailingEmptyLine) {
  const std::string path = std::string(VARKEL_BINARY_DIR) + "/test-tmp-csv-spreadsheet.csv";
  std::ofstream(path, std::ios::binary) << "\xEF\xBB\xBFGroupID,VarName,OptionDescription\r\n"
                                           "1,\"Spin, Rate\",\"0_Off\r\n1_On\"\r\n"
                                           "2,  Mode  ,\"  kept  \"\r\n"
                                           "\r\n";
  csv::Reader reader;
  ASSERT_TRUE(reader.ReadFile(path));
  std::remove(path.c_str());
  // The mark is not part of the first column's name.
  EXPECT_EQ(reader.header(), (std::vector<std::string>{"GroupID", "VarName", "OptionDescription"}));
  ASSERT_EQ(reader.rows().size(), 2u);
  EXPECT_EQ(reader.rows()[0]["VarName"] + "|" + reader.rows()[0]["OptionDescription"], "Spin, Rate|0_Off\r\n1_On");
  // Blanks around unquoted cells go, quoted cells keep theirs.
  EXPECT_EQ(reader.rows()[1]["VarName"] + "|" + reader.rows()[1]["OptionDescription"], "Mode|  kept  ");
}

TEST(ConfigCsvReader, RaggedRowsMissingColumnEmptyInputsAndOpenQuote) {
  csv::Reader reader;
  ASSERT_TRUE(reader.ReadText("A,B,C\n1\n1,2,3,4\n\"x\"\"y\",,\n"));
  ASSERT_EQ(reader.rows().size(), 3u);
  const csv::Row& short_row = reader.rows()[0];
  EXPECT_EQ(short_row["A"] + "|" + short_row["C"], "1|");  // cells missing at the end read as empty
  const csv::Row& long_row = reader.rows()[1];
  EXPECT_EQ(long_row.size(), 4u);
  EXPECT_EQ(long_row[3] + "|" + long_row[9], "4|");  // kept, reachable by position only
  EXPECT_EQ(reader.rows()[2]["A"] + "|" + reader.rows()[2]["B"], "x\"y|");
  EXPECT_EQ(std::make_pair(reader.ColumnPosition("C"), reader.ColumnPosition("D")), std::make_pair(2L, -1L));
  try {
    (void)short_row["GroupID"];
    FAIL() << "no error for a missing column";
  } catch (const std::runtime_error& e) {
    EXPECT_STREQ(e.what(), "Can't find a column named GroupID");
  }
  // "" and "the file has no header row" are checked where tables load.
  EXPECT_FALSE(reader.ReadText("\xEF\xBB\xBF\r\n\r\n"));
  EXPECT_TRUE(reader.ReadText("A,B\n"));
  EXPECT_TRUE(reader.rows().empty());
  // A row of empty cells is a row; the table loader decides what it means.
  ASSERT_TRUE(reader.ReadText("A,B\n,\n1,\n"));
  ASSERT_EQ(reader.rows().size(), 2u);
  EXPECT_TRUE(reader.rows()[0].AllEmpty());
  EXPECT_FALSE(reader.rows()[1].AllEmpty());
  // An open quote takes the rest of the file.
  ASSERT_TRUE(reader.ReadText("A,B\n1,\"open\n2,3\n"));
  ASSERT_EQ(reader.rows().size(), 1u);
  EXPECT_EQ(reader.rows()[0]["B"], "open\n2,3\n");
}
