// Range checks of entered values: the single check with its coefficient and its gap for
// bounds of 0, the page check with its formats and its reports.

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "manager_test_support.h"

namespace {

std::string RangaTable() {
  return vktest::kTableHeader +
         "0,Checks,All,,,,,,,,,,,,,,,\n"
         "1,1,0x01,0x31,0,R1,1,uint8,50,1~100,,,,1_1_1_1,1,0,,\n"
         "1,2,0x01,0x31,1,R0,1,uint16,0,0~100,,,,1_1_2_1,2,0,,\n"
         "1,3,0x01,0x31,2,R10,1,uint16,5,1~100,,,,1_1_3_1,2,0,10,\n"
         "1,4,,0x32,0,Raw4,1,raw,ABCD,,,,,1_1_4_1,4,0,,\n"
         "1,5,0x02,0x33,0,Addr,1,IP,192.168.1.1,,,,,1_1_5_1,4,0,,\n"
         "1,6,0x02,0x33,1,Mac,1,MAC,00:1A:2B:3C:4D:5E,,,,,1_1_6_1,6,0,,\n"
         "1,7,0x03,0x34,0,Name,1,string,x,,,,,1_1_7_1,8,0,,\n"
         "1,8,0x03,0x34,1,Locked,0,uint8,50,1~100,,,,1_1_8_0,1,0,,\n"
         "1,9,0x03,0x34,2,Free,1,uint8,7,,,,,1_1_9_1,1,0,,\n";
}

const std::vector<std::string> kRows{"R1", "R0", "R10", "Raw4", "Addr", "Mac", "Name", "Locked", "Free"};

class ManagerRange : public vktest::ManagerTest {
 protected:
  void SetUp() override {
    ManagerTest::SetUp();
    vktest::WriteTable(root_, "Ranga", RangaTable());
    m_ = std::make_unique<vktest::TestManager>();
    m_->InitConfigFileParser("Ranga");
    QObject::connect(m_.get(), &VarkelManager::someVarOutOfRange,
                     [this](QString name) { reported_.push_back(name.toStdString()); });
    QObject::connect(m_.get(), &VarkelManager::sendLogMessage, [this](QString msg, QString type) {
      if (type == "WARNING") warnings_.push_back(msg.toStdString());
    });
  }

  void Set(const std::string& name, const std::string& value) {
    for (size_t i = 0; i < kRows.size(); ++i)
      if (kRows[i] == name) m_->SetText(1, 0, 0, static_cast<int>(i), QString::fromStdString(value));
  }

  std::vector<std::string> reported_;
  std::vector<std::string> warnings_;
};

}  // namespace

TEST_F(ManagerRange, SingleCheckScalesByTheSetCoefficientAndSkipsBoundsOfZero) {
  const struct {
    const char* name;
    const char* value;
    bool ok;
  } cases[] = {
      {"R1", "0", false},   {"R1", "1", true},     {"R1", "101", false},  {"R1", "100.9", true},
      {"R1", "abc", false}, {"R1", "1e20", false}, {"R0", "500", true},   {"R10", "20", false},
      {"R10", "10", true},  {"Name", "x", true},   {"Free", "999", true},
  };
  for (const auto& c : cases) {
    Set(c.name, c.value);
    EXPECT_EQ(m_->CheckVarIsWithinRange(c.name), c.ok) << c.name << " = '" << c.value << "'";
  }
  EXPECT_TRUE(m_->CheckVarIsWithinRange("No Such Variable"));
  EXPECT_FALSE(m_->CheckVarIsWithinRange("1-1", "var_id"));  // R1, still 1e20
}

TEST_F(ManagerRange, PageCheckReportsEveryFailingVariable) {
  const struct {
    std::vector<std::pair<std::string, std::string>> values;
    bool ok;
    std::vector<std::string> reported;
    std::vector<std::string> warnings;
  } cases[] = {
      // Bounds of 0, no range, no permission and strings are not judged.
      {{{"R0", "500"}, {"Free", "250"}, {"Locked", "0"}, {"Name", "far too long text"}}, true, {}, {}},
      {{{"Mac", "00:1A:2B:3C:4D:5E"}, {"R10", "100"}}, true, {}, {}},
      {{{"Raw4", "ABCDE"}}, false, {"Raw4"}, {"Detected that the user set Raw4 is out of range"}},
      {{{"Addr", "192.168.1.256"}, {"Mac", "00:1A:2B:3C:4D"}},
       false,
       {"Addr", "Mac"},
       {"Detected that the user set Addr has invalid IP format",
        "Detected that the user set Mac has invalid MAC format"}},
      // No coefficient here: 200 is judged as 200.
      {{{"R1", "101"}, {"R10", "200"}}, false, {"R1", "R10"}, {}},
      // A value that is no number ends the check without naming anybody.
      {{{"R1", "abc"}, {"R10", "500"}}, false, {}, {}},
  };
  for (const auto& c : cases) {
    m_->InitConfigFileParser("Ranga");  // every value back to its default
    for (const auto& v : c.values) Set(v.first, v.second);
    reported_.clear();
    warnings_.clear();
    EXPECT_EQ(m_->CheckModuleVarsWithinRange(0), c.ok) << ::testing::PrintToString(c.values);
    EXPECT_EQ(reported_, c.reported) << ::testing::PrintToString(c.values);
    if (!c.warnings.empty()) EXPECT_EQ(warnings_, c.warnings);
  }
  EXPECT_TRUE(m_->CheckModuleVarsWithinRange(1));  // no such page: nothing to judge
}
