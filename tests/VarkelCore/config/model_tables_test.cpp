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

std::vector<std::string> ShippedTables() {
  std::vector<std::string> names;
  for (const auto& entry : std::filesystem::directory_iterator(kTableDir))
    if (entry.path().extension() == ".csv") names.push_back(entry.path().stem().string());
  std::sort(names.begin(), names.end());
  return names;
}

// Bytes a field of the type takes; 0 when any length is allowed.
size_t TypeWidth(const std::string& type) {
  static const std::map<std::string, size_t> widths = {
      {"IP", 4},     {"MAC", 6},        {"uint8", 1}, {"uint16", 2}, {"uint32", 4},  {"uint64", 8},
      {"int8", 1},   {"int16", 2},      {"int32", 4}, {"int64", 8},  {"float32", 4}, {"double", 8},
      {"HWVER", 16}, {"SWVER_YMD", 16}, {"raw", 0},   {"string", 0}, {"DT", 0}};
  auto it = widths.find(type);
  return it == widths.end() ? SIZE_MAX : it->second;
}

void CheckTable(const std::string& model) {
  SCOPED_TRACE(model);
  ConfigParser parser;
  testing::internal::CaptureStdout();
  ASSERT_NO_THROW(parser.Load(kTableDir + "/" + model + ".csv"));
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "") << "loading printed warnings";
  ASSERT_FALSE(parser.var_map.empty());
  ASSERT_FALSE(parser.module_titles.empty());

  for (const VarInfo* var : parser.records()) {
    SCOPED_TRACE(var->var_id + " " + var->var_name);
    const size_t width = TypeWidth(var->var_type);
    ASSERT_NE(width, SIZE_MAX) << "unknown type " << var->var_type;
    if (width != 0) EXPECT_EQ(var->var_len, width);
    if (var->var_type == "DT") EXPECT_LE(var->var_len, 8u);
    if (var->var_type == "string") EXPECT_GT(var->var_len, 0u);
    EXPECT_GE(var->component_type, 0) << "shown nowhere";
    EXPECT_LE(var->component_type, 6);
    if (var->component_type == 2) EXPECT_NE(var->switch_var, nullptr) << "kind 2 without a switch";
    // Every place names a page and group that exist (kind 6 places are not on pages).
    if (var->component_type != 6)
      for (const auto& [place, position] : var->module_places) {
        ASSERT_LT(place.first, static_cast<int>(parser.module_vars.size()));
        EXPECT_LT(place.second, static_cast<int>(parser.module_vars[place.first].size()));
      }
    // The writer refuses set-only variables that are not raw.
    if (!var->set_cmd.empty() && var->get_cmd.empty()) EXPECT_EQ(var->var_type, "raw");
    // A settable default must survive the codec, into exactly its field.
    if (!var->set_cmd.empty() && var->var_type != "raw") {
      auto codec = MakeStrParser(var->var_type);
      ASSERT_NE(codec, nullptr);
      std::vector<uint8_t> bytes;
      EXPECT_NO_THROW(bytes = codec->ParseToBytes(var->default_val, var->set_coefficient));
      EXPECT_EQ(bytes.size(), var->var_len);
    }
    // Option lists have a label per option and hold the default; ranges hold it too.
    if (!var->options.empty()) {
      EXPECT_EQ(var->option_labels.size(), var->options.size());
      for (int32_t option : var->options) EXPECT_EQ(var->option_labels.count(option), 1u) << option;
      EXPECT_NE(std::find(var->options.begin(), var->options.end(), varkel::Stoi(var->default_val)),
                var->options.end());
    }
    if (var->range_min != 0 || var->range_max != 0) {
      EXPECT_LT(var->range_min, var->range_max);
      const int value = static_cast<int>(varkel::Stof(var->default_val) * var->set_coefficient);
      EXPECT_GE(value, var->range_min);
      EXPECT_LE(value, var->range_max);
    }
  }

  // Get replies: one sub-command payload per command (positions are laid out per
  // command), distinct indexes, fields back to back from 0 (or 4 for extended ones).
  for (const auto& [cmd, vars] : parser.get_cmd_map) {
    SCOPED_TRACE("get " + cmd);
    std::set<int32_t> indexes;
    uint32_t expected = cmd.size() >= 5 ? 4 : 0;
    for (const VarInfo* var : vars) {
      EXPECT_EQ(var->get_cmd_payload_bytes, vars.front()->get_cmd_payload_bytes);
      EXPECT_TRUE(indexes.insert(var->index).second) << "index " << var->index << " twice";
      EXPECT_EQ(var->get_start_pos, expected);
      expected += var->var_len;
    }
  }
  // Set payloads: set indexes 1..n without gaps or ties, fields back to back.
  for (const auto& [cmd, vars] : parser.set_cmd_map) {
    SCOPED_TRACE("set " + cmd);
    EXPECT_EQ(parser.cmd_kind_map.at(cmd), "set") << "also used as a get command";
    uint32_t expected = 0;
    for (size_t i = 0; i < vars.size(); ++i) {
      EXPECT_EQ(vars[i]->set_index, static_cast<int32_t>(i + 1));
      EXPECT_EQ(vars[i]->set_start_pos, expected);
      expected += vars[i]->var_len;
    }
  }
}

}  // namespace

TEST(ConfigTables, EveryShippedTableLoadsCleanlyWithAConsistentLayout) {
  const std::vector<std::string> models = ShippedTables();
  for (const char* required : {"Quenta", "Zelto", "Zelto-KTC", "Marvo-KTC"})
    EXPECT_NE(std::find(models.begin(), models.end(), required), models.end()) << required;
  EXPECT_GE(models.size(), 5u) << "a second network model is missing";
  for (const std::string& model : models) CheckTable(model);
}

TEST(ConfigTables, DefaultModelCoversWhatThePagesAndTheControllerUse) {
  ConfigParser parser;
  testing::internal::CaptureStdout();
  parser.Load(kTableDir + "/Quenta.csv");
  testing::internal::GetCapturedStdout();

  EXPECT_GE(parser.var_map.size(), 60u);
  ASSERT_GE(parser.module_titles.size(), 5u);
  for (const auto& titles : parser.module_titles) EXPECT_GE(titles.size(), 2u) << titles.front();

  std::set<int32_t> kinds;
  std::set<std::string> types;
  bool timer = false, unit = false, coefficient = false, set_coefficient = false, labels = false, range = false;
  for (const VarInfo* var : parser.records()) {
    kinds.insert(var->component_type);
    types.insert(var->var_type);
    timer |= var->timer_update;
    unit |= !var->unit.empty();
    coefficient |= var->coefficient != 1.0f;
    set_coefficient |= var->set_coefficient != 1.0f;
    labels |= !var->option_labels.empty();
    range |= var->range_min != 0 && var->range_max != 0;
  }
  EXPECT_EQ(kinds, (std::set<int32_t>{0, 1, 2, 3, 4, 5, 6}));
  EXPECT_EQ(types, (std::set<std::string>{"IP", "MAC", "uint8", "uint16", "uint32", "uint64", "int8", "int16", "int32",
                                          "int64", "float32", "double", "raw", "string", "HWVER", "SWVER_YMD", "DT"}));
  EXPECT_TRUE(timer && unit && coefficient && set_coefficient && labels && range);
  EXPECT_FALSE(parser.switch_map.empty());

  for (const char* name : {"SN", "PN", "Restart", "Reset", "Operation Log", "Fault Log", "Shared Secret Key"})
    EXPECT_NE(parser.FindByName(name), nullptr) << name;
  // The log rows and restart/reset are kept off the pages.
  for (const char* name : {"Restart", "Reset", "Operation Log", "Fault Log"})
    EXPECT_EQ(parser.FindByName(name)->component_type, 6) << name;

  // 0x21 carries the network settings, address first.
  std::vector<std::string> network;
  for (const VarInfo* var : parser.set_cmd_map.at("0x21")) network.push_back(var->var_type);
  EXPECT_EQ(network, (std::vector<std::string>{"IP", "IP", "IP", "MAC"}));
  // The field-of-view pair is one kind-5 variable read with 0x23 and written with 0x22.
  const VarInfo* fov = parser.get_cmd_map.at("0x23").front();
  EXPECT_EQ(fov->set_cmd, "0x22");
  EXPECT_EQ(fov->component_type, 5);

  bool extended = false, with_payload = false, without_payload = false, several = false;
  for (const auto& [cmd, vars] : parser.get_cmd_map) {
    extended |= cmd.size() >= 5 && vars.front()->get_start_pos == 4;
    with_payload |= !vars.front()->get_cmd_payload_bytes.empty();
    without_payload |= vars.front()->get_cmd_payload_bytes.empty();
    several |= vars.size() > 1;
  }
  EXPECT_TRUE(extended && with_payload && without_payload && several);
}

TEST(ConfigTables, SecondNetworkModelHasItsOwnPages) {
  ConfigParser quenta, lite;
  testing::internal::CaptureStdout();
  quenta.Load(kTableDir + "/Quenta.csv");
  lite.Load(kTableDir + "/Quenta-Lite.csv");
  testing::internal::GetCapturedStdout();
  EXPECT_NE(quenta.module_titles, lite.module_titles);
  EXPECT_NE(lite.FindByName("SN"), nullptr);
  EXPECT_EQ(lite.set_cmd_map.count("0x21"), 1u);
}
