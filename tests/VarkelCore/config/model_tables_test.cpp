// The tables that ship with the program: each must load cleanly and describe payloads
// that a sensor and the writer can agree on.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <set>
#include <string>

#include "config_parser.h"
#include "number_text.h"
#include "str_parser.h"

namespace {

const std::string kTableDir = std::string(VARKEL_SOURCE_DIR) + "/Config/varID";

// Bytes a field of the type takes; 0 when any length is allowed.
const std::map<std::string, uint32_t> kTypeWidths = {
    {"IP", 4},     {"MAC", 6},        {"uint8", 1}, {"uint16", 2}, {"uint32", 4},  {"uint64", 8},
    {"int8", 1},   {"int16", 2},      {"int32", 4}, {"int64", 8},  {"float32", 4}, {"double", 8},
    {"HWVER", 16}, {"SWVER_YMD", 16}, {"raw", 0},   {"string", 0}, {"DT", 0}};

void CheckTable(const std::string& model, ConfigParser& parser) {
  SCOPED_TRACE(model);
  testing::internal::CaptureStdout();
  ASSERT_NO_THROW(parser.Load(kTableDir + "/" + model + ".csv"));
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "") << "loading printed warnings";
  ASSERT_FALSE(parser.var_map.empty() || parser.module_titles.empty());

  for (const VarInfo* var : parser.records()) {
    SCOPED_TRACE(var->var_id + " " + var->var_name);
    ASSERT_EQ(kTypeWidths.count(var->var_type), 1u) << "unknown type " << var->var_type;
    if (const uint32_t width = kTypeWidths.at(var->var_type)) EXPECT_EQ(var->var_len, width);
    if (var->var_type == "string" || var->var_type == "DT") EXPECT_GT(var->var_len, 0u);
    EXPECT_TRUE(var->component_type >= 0 && var->component_type <= 6) << "kind " << var->component_type;
    if (var->component_type == 2) EXPECT_NE(var->switch_var, nullptr) << "kind 2 without a switch";
    // Every place names a page and group that exist (kind 6 places are not on pages).
    const auto& pages = parser.module_vars;
    for (const auto& [place, position] : var->module_places)
      EXPECT_TRUE(var->component_type == 6 || (place.first < static_cast<int>(pages.size()) &&
                                               place.second < static_cast<int>(pages[place.first].size())))
          << "page " << place.first + 1 << " group " << place.second + 1;
    // The writer refuses set-only variables that are not raw.
    if (!var->set_cmd.empty() && var->get_cmd.empty()) EXPECT_EQ(var->var_type, "raw");
    // A default the user may edit and write must survive the codec, into exactly its field
    // (read-only fields a set payload carries go back as read: the MAC's letters need not).
    if (!var->set_cmd.empty() && var->permission != 0 && var->var_type != "raw") {
      auto codec = MakeStrParser(var->var_type);
      ASSERT_NE(codec, nullptr);
      size_t size = 0;
      EXPECT_NO_THROW(size = codec->ParseToBytes(var->default_val, var->set_coefficient).size());
      EXPECT_EQ(size, var->var_len);
    }
    // Option lists have a label per option and hold the default; ranges hold it too.
    std::set<int32_t> labelled;
    for (const auto& [option, label] : var->option_labels) labelled.insert(option);
    if (!var->options.empty()) {
      EXPECT_EQ(labelled, std::set<int32_t>(var->options.begin(), var->options.end()));
      EXPECT_GE(std::count(var->options.begin(), var->options.end(), varkel::Stoi(var->default_val)), 1);
    }
    if (var->range_min != 0 || var->range_max != 0) {
      const int value = static_cast<int>(varkel::Stof(var->default_val) * var->set_coefficient);
      EXPECT_TRUE(var->range_min < var->range_max && value >= var->range_min && value <= var->range_max)
          << var->range_min << "~" << var->range_max << " default " << value;
    }
  }

  // Positions are laid out by the loader; what the table must get right is that no two
  // fields of one get reply share an index, all ask with the same sub-command payload,
  // and set indexes run 1..n without gaps or ties.
  for (const auto& [cmd, vars] : parser.get_cmd_map) {
    std::set<int32_t> indexes;
    for (const VarInfo* var : vars) {
      EXPECT_EQ(var->get_cmd_payload_bytes, vars.front()->get_cmd_payload_bytes) << "get " << cmd;
      EXPECT_TRUE(indexes.insert(var->index).second) << "get " << cmd << ": index " << var->index << " twice";
    }
  }
  for (const auto& [cmd, vars] : parser.set_cmd_map) {
    EXPECT_EQ(parser.cmd_kind_map.at(cmd), "set") << cmd << " is also a get command";
    for (size_t i = 0; i < vars.size(); ++i)
      EXPECT_EQ(vars[i]->set_index, static_cast<int32_t>(i + 1)) << "set " << cmd;
  }
}

}  // namespace

TEST(ConfigTables, EveryShippedTableLoadsCleanlyWithAConsistentLayout) {
  std::map<std::string, std::vector<std::vector<std::string>>> pages;
  for (const auto& entry : std::filesystem::directory_iterator(kTableDir)) {
    if (entry.path().extension() != ".csv") continue;
    ConfigParser parser;
    CheckTable(entry.path().stem().string(), parser);
    pages[entry.path().stem().string()] = parser.module_titles;
  }
  for (const char* required : {"Quenta", "Quenta-Lite", "Zelto", "Zelto-KTC", "Marvo-KTC"})
    EXPECT_EQ(pages.count(required), 1u) << required;
  // The second network model has pages of its own, so that switching models shows.
  EXPECT_NE(pages["Quenta"], pages["Quenta-Lite"]);
}

TEST(ConfigTables, DefaultModelCoversWhatThePagesAndTheControllerUse) {
  ConfigParser parser;
  testing::internal::CaptureStdout();
  parser.Load(kTableDir + "/Quenta.csv");
  testing::internal::GetCapturedStdout();
  EXPECT_GE(parser.var_map.size(), 60u);
  EXPECT_GE(parser.module_titles.size(), 5u);
  // Every component kind, and every type the codecs and the reader know.
  std::set<int32_t> kinds;
  std::set<std::string> types, known;
  for (const auto& [type, width] : kTypeWidths) known.insert(type);
  for (const VarInfo* var : parser.records()) kinds.insert(var->component_type), types.insert(var->var_type);
  EXPECT_EQ(kinds, (std::set<int32_t>{0, 1, 2, 3, 4, 5, 6}));
  EXPECT_EQ(types, known);
  for (const char* name : {"SN", "PN", "Shared Secret Key", "Restart", "Reset", "Operation Log", "Fault Log"})
    ASSERT_NE(parser.FindByName(name), nullptr) << name;
  // The log rows and restart/reset are kept off the pages.
  for (const char* name : {"Restart", "Reset", "Operation Log", "Fault Log"})
    EXPECT_EQ(parser.FindByName(name)->component_type, 6) << name;
  // 0x21 carries the network settings, address first.
  std::vector<std::string> network;
  for (const VarInfo* var : parser.set_cmd_map.at("0x21")) network.push_back(var->var_type);
  EXPECT_EQ(network, (std::vector<std::string>{"IP", "IP", "IP", "MAC"}));
  // The field-of-view pair is one kind-5 variable read with 0x23 and written with 0x22.
  const VarInfo* fov = parser.get_cmd_map.at("0x23").front();
  EXPECT_EQ(std::make_pair(fov->set_cmd, fov->component_type), std::make_pair(std::string("0x22"), 5));
}
