#include "config_parser.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>

namespace {

using Strings = std::vector<std::string>;
using Places = std::map<std::pair<int32_t, int32_t>, int32_t>;

const Strings kColumns = {
    "GroupID",           "Index",          "Get",          "Set",         "SetIndex",       "VarName",
    "Permission",        "VarType",        "DefaultValue", "Options",     "Unit",           "Coefficient",
    "OptionDescription", "FunctionModule", "VarLen",       "TimerUpdate", "SetCoefficient", "GetCmdPayload"};

const std::string kHeader = [] {
  std::string line;
  for (const std::string& column : kColumns) line += "," + column;
  return line.substr(1) + "\n";
}();

// A table row written as "id=1-2;Get=0x20;VarName=IP": cells by column name, "id"
// standing for GroupID and Index.
std::string Row(const std::string& text) {
  std::map<std::string, std::string> named;
  std::istringstream items(text);
  for (std::string item; std::getline(items, item, ';');)
    named[item.substr(0, item.find('='))] = item.substr(item.find('=') + 1);
  if (const std::string id = named["id"]; !id.empty()) {
    named["GroupID"] = id.substr(0, id.find('-'));
    named["Index"] = id.substr(id.find('-') + 1);
  }
  std::string line;
  for (const std::string& column : kColumns) {
    const std::string& cell = named[column];
    line += "," + (cell.find_first_of(",\n") == std::string::npos ? cell : "\"" + cell + "\"");
  }
  return line.substr(1) + "\n";
}

// What a load printed, or "error: " and the message of the error it ended with.
std::string Outcome(const std::function<void()>& load) {
  testing::internal::CaptureStdout();
  try {
    load();
  } catch (const ConfigLoadError& e) {
    testing::internal::GetCapturedStdout();
    return "error: " + std::string(e.what());
  }
  return testing::internal::GetCapturedStdout();
}

std::string Load(ConfigParser& parser, const std::string& text, const std::string& name = "T.csv") {
  return Outcome([&] { parser.LoadText(text, name); });
}

Strings Names(const std::vector<VarInfo*>& vars) {
  Strings names;
  for (const VarInfo* v : vars) names.push_back(v->var_name);
  return names;
}

// The names shown on each page, group by group.
std::vector<std::vector<Strings>> Pages(const ConfigParser& parser) {
  std::vector<std::vector<Strings>> pages(parser.module_vars.size());
  for (size_t m = 0; m < pages.size(); ++m)
    for (const auto& group : parser.module_vars[m]) pages[m].push_back(Names(group));
  return pages;
}

}  // namespace

TEST(ConfigParser, ModuleRowsPagesGroupsAndPlaces) {
  ConfigParser parser;
  EXPECT_EQ(
      Load(parser, kHeader + "0,Network,Address,Time\n" + Row("id=1-1;Get=0x20;VarName=IP;FunctionModule=1_1_1_1") +
                       Row("id=1-2;Get=0x20;VarName=Zone;FunctionModule=1_3_1_0") +
                       Row("id=1-3;Get=0x20;VarName=Early;FunctionModule=2_1_1_1") + "0,Status,Health\n" +
                       Row("id=1-4;Get=0x20;VarName=Temp;FunctionModule=2_1_2_0|1_2_1_3") +
                       Row("id=1-5;Get=0x20;VarName=Short;FunctionModule=1_1_1|")),
      "");
  EXPECT_EQ(parser.module_titles, (std::vector<Strings>{{"Network", "Address", "Time"}, {"Status", "Health"}}));
  // 1_3_1_0 names a third group that does not exist; 2_1_1_1 came before page 2 existed.
  EXPECT_EQ(Pages(parser), (std::vector<std::vector<Strings>>{{{"IP"}, {"Temp"}}, {{"Temp"}}}));
  const VarInfo* temp = parser.FindByName("Temp");  // of kind 3, that of its last place
  EXPECT_EQ(std::make_pair(temp->component_type, temp->module_places),
            std::make_pair(3, Places{{{1, 0}, 2}, {{0, 1}, 1}}));
  EXPECT_EQ(parser.FindByName("Zone")->module_places.at({0, 2}), 1);  // recorded, though shown nowhere
  const VarInfo* short_place = parser.FindByName("Short");            // fewer than four numbers: no place
  EXPECT_TRUE(short_place->module_places.empty() && short_place->component_type == -1);

  // When GroupID is not the first column, the module row's cells around it still count.
  EXPECT_EQ(Load(parser, "Note," + kHeader + "Scan,0,Rate,,Mode\n"), "");
  EXPECT_EQ(parser.module_titles, (std::vector<Strings>{{"Scan", "Rate", "Mode"}}));
}

TEST(ConfigParser, CellConversionsDefaultsOptionsAndLabels) {
  ConfigParser parser;
  EXPECT_EQ(Load(parser, kHeader +
                             Row("id=3-12;Get=0x2A;Set=0x2B;SetIndex=2;VarName=Max;Permission=1;VarType=uint16;"
                                 "DefaultValue=200.0;Unit=m;Coefficient=0.1;VarLen=2;TimerUpdate=1;"
                                 "SetCoefficient=0.5;GetCmdPayload=0x0102A;Options=0|1|2;"
                                 "OptionDescription= 0 _ Strongest \r\n1_Last\n\n2_Dual_Return\n1_Latest\n") +
                             Row("id=3-13;Get=0x2A;VarName=Bare;TimerUpdate=2;GetCmdPayload=12AB;Options=-6~100") +
                             Row("id=3-14;Get=0x2C;VarName=One;GetCmdPayload=0X0aFf;Options=5;OptionDescription=7")),
            "");
  const VarInfo* full = parser.FindById("3-12");
  EXPECT_EQ(std::make_tuple(full->index, full->set_index, full->unit, full->permission, full->coefficient,
                            full->set_coefficient, full->var_len, full->timer_update, full->current_val),
            std::make_tuple(12, 2, std::string(" (m)"), 1, 0.1f, 0.5f, 2u, true, std::string("200.0")));
  // An odd last payload digit is dropped.
  EXPECT_EQ(std::make_tuple(full->get_cmd_payload, full->get_cmd_payload_bytes, full->options, full->option_num),
            std::make_tuple(std::string("0102A"), std::vector<uint8_t>{1, 2}, std::vector<int32_t>{0, 1, 2}, 3));
  // Trimmed on both sides; a later line with the same value replaces the label.
  EXPECT_EQ(full->option_labels, (std::map<int32_t, std::string>{{0, "Strongest"}, {1, "Latest"}, {2, "Dual_Return"}}));

  // Empty cells take their defaults; a payload without "0x" is ignored.
  const VarInfo* bare = parser.FindById("3-13");
  EXPECT_EQ(std::make_tuple(bare->set_index, bare->unit, bare->permission, bare->coefficient, bare->set_coefficient,
                            bare->var_len, bare->timer_update, bare->range_min, bare->range_max),
            std::make_tuple(-1, std::string(), 0, 1.0f, 1.0f, 0u, false, -6, 100));
  EXPECT_TRUE(bare->get_cmd_payload_bytes.empty() && bare->options.empty());
  // One option; a label line without "_" labels its value with nothing.
  const VarInfo* one = parser.FindById("3-14");
  EXPECT_EQ(
      std::make_tuple(one->get_cmd_payload_bytes, one->options, one->option_labels),
      std::make_tuple(std::vector<uint8_t>{10, 255}, std::vector<int32_t>{5}, std::map<int32_t, std::string>{{7, ""}}));
}

TEST(ConfigParser, PayloadLayoutAndGetVarPosOffset) {
  ConfigParser parser;
  EXPECT_EQ(Load(parser,
                 kHeader + Row("id=1-7;Get=0x30;Set=0x31;SetIndex=1;VarName=A;VarLen=4") +
                     Row("id=1-3;Get=0x30;Set=0x31;SetIndex=2;VarName=B;VarLen=2") +
                     Row("id=1-5;Get=0x30;VarName=ReadOnly;VarLen=1") + Row("id=2-7;Get=0x1A05;VarName=C;VarLen=4") +
                     Row("id=2-3;Get=0x1A05;VarName=D;VarLen=2") +
                     Row("id=6-3;Set=0x28;SetIndex=1;VarName=Shared Secret Key;VarType=raw;VarLen=32") +
                     Row("id=6-4;Set=0x30;VarName=Both;VarLen=2"),
                 "Config/varID/Q.csv"),
            "");
  EXPECT_EQ(Names(parser.get_cmd_map.at("0x30")), (Strings{"B", "ReadOnly", "A"}));
  // An extended command's reply carries four leading bytes.
  auto get_pos = [&](const char* name) { return parser.FindByName(name)->get_start_pos; };
  EXPECT_EQ((std::vector<uint32_t>{get_pos("B"), get_pos("ReadOnly"), get_pos("A"), get_pos("D"), get_pos("C")}),
            (std::vector<uint32_t>{0, 2, 3, 4, 6}));

  using Pos = std::pair<uint32_t, uint32_t>;
  auto pos = [&](const char* cmd, const char* id, uint32_t payload_length = 0) {
    Pos found{99, 99};
    return parser.GetVarPosOffset(cmd, id, payload_length, found) ? found : Pos{0xDEAD, 0xDEAD};
  };
  EXPECT_EQ(pos("0x31", "1-3"), Pos(4, 2));
  EXPECT_EQ(pos("0x30", "1-3"), Pos(0, 2));
  // 0x30 keeps the kind of its first use, so the set-only "Both" is placed by its get position.
  parser.FindByName("Both")->get_start_pos = 9;
  EXPECT_EQ(pos("0x30", "6-4"), Pos(9, 2));

  // The secret key spans whatever payload it is sent in, and keeps that length.
  VarInfo* key = parser.FindByName("Shared Secret Key");
  EXPECT_EQ(key->var_len, 0u);
  EXPECT_EQ(pos("0x28", "6-3", 20), Pos(0, 20));
  EXPECT_EQ(key->var_len, 20u);

  testing::internal::CaptureStdout();
  EXPECT_EQ(pos("0x31", "9-9"), Pos(0xDEAD, 0xDEAD));
  EXPECT_EQ(pos("0x99", "1-3"), Pos(0xDEAD, 0xDEAD));
  parser.FindById("1-3")->get_cmd.clear();
  parser.FindById("1-3")->set_cmd.clear();
  EXPECT_EQ(pos("0x31", "1-3"), Pos(0xDEAD, 0xDEAD));
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            "ConfigParser::GetVarPosOffset(): ERROR. This var_id does not exist. Detail: var_id = 9-9, file_path = "
            "Config/varID/Q.csv\n"
            "ConfigParser::GetVarPosOffset(): don't have this command\n"
            "ConfigParser::GetVarPosOffset(): this var not supported. var_name = B\n");
}

TEST(ConfigParser, SwitchesStandaloneVariablesAndSetOnlyNameClashes) {
  ConfigParser parser;
  EXPECT_EQ(Load(parser,
                 kHeader + "0,Operation,Phase Lock,Other\n" +
                     Row("id=9-1;Get=0x32;Set=0x33;VarName=Lock;FunctionModule=1_1_1_2_1") +
                     Row("id=9-2;Get=0x32;Set=0x33;VarName=Angle;FunctionModule=1_1_1_2") +
                     Row("id=9-3;Get=0x32;VarName=Status;FunctionModule=1_1_2_0") +
                     Row("id=9-4;Get=0x32;VarName=Off;FunctionModule=1_2_1_2_-1") +
                     Row("id=9-5;Get=0x32;VarName=Nowhere;FunctionModule=4_4_1_2_1") +
                     // Page and group numbers below 1, down to the smallest int: placed nowhere.
                     Row("id=9-6;Get=0x32;VarName=Low;FunctionModule=-2147483648_1_1_2_1|1_-2147483648_1_1|0_1_1_1") +
                     Row("id=18-1;Set=0x40;VarName=Restart;VarType=raw;FunctionModule=1_1_9_6") +
                     Row("id=18-2;Set=0x21;VarName=Mode;VarType=raw") +
                     Row("id=18-3;Set=0x22;VarName=Mode;VarType=raw") + Row("id=18-4;Get=0x23;Set=0x24;VarName=Mode")),
            "ConfigParser::ExtractConfigInfo(): Mode_0x22 is used in other cmd\n");
  // 18-4 is not set-only: no clash.
  EXPECT_EQ(parser.FindById("18-3")->var_name + "," + parser.FindById("18-4")->var_name, "Mode_0x22,Mode");
  EXPECT_EQ(parser.FindByName("Mode"), parser.FindById("18-2"));

  VarInfo* lock = parser.FindByName("Lock");
  ASSERT_EQ(parser.switch_map.count(lock), 1u);
  const SwitchPlace place = parser.switch_map.at(lock);
  EXPECT_EQ(
      std::make_tuple(place.module, place.group, place.value, lock->has_switch, parser.FindByName("Angle")->has_switch),
      std::make_tuple(0, 0, 1, true, false));
  // Everything at the switch's position in its group is switched by it, itself included;
  // a negative fifth number links nothing; a switch on an undefined page is harmless.
  EXPECT_EQ((std::vector<VarInfo*>{lock->switch_var, parser.FindByName("Angle")->switch_var,
                                   parser.FindByName("Status")->switch_var, parser.FindByName("Off")->switch_var}),
            (std::vector<VarInfo*>{lock, lock, nullptr, nullptr}));
  EXPECT_EQ(parser.switch_map.size(), 3u);
  EXPECT_TRUE(parser.FindByName("Low")->module_places.empty());

  EXPECT_EQ(Names(parser.standalone_vars), Strings{"Restart"});
  EXPECT_EQ(Pages(parser), (std::vector<std::vector<Strings>>{{{"Lock", "Angle", "Status"}, {"Off"}}}));
}

TEST(ConfigParser, SkippedRowsAndDuplicateIds) {
  const std::string lacks =
      "ConfigParser::ExtractConfigInfo(): WARNING: something with config file - Some var lacks \"GroupID\" or "
      "\"Index\"\n---Detailed Infomation: file path = X.csv, var name = ";
  ConfigParser parser;
  EXPECT_EQ(
      Load(parser,
           kHeader + "0,Page,Group\n" + Row("GroupID=1;Get=0x10;VarName=No Index") +
               Row("Index=1;Get=0x10;VarName=No Group") + ",,,,,\n" + Row("id=1-1;VarName=No Command") +
               Row("id=1-2;Get=0x10;Set=0x11;VarName=First;VarLen=4;FunctionModule=1_1_1_2_1") +
               Row("id=1-3;Get=0x10;VarName=Other;VarLen=2") +
               Row("id=1-2;Get=0x12;VarName=Second;VarLen=1;FunctionModule=1_1_5_0"),
           "X.csv"),
      lacks + "No Index\n" + lacks + "No Group\n" +
          "ConfigParser::ExtractConfigInfo(): ERROR with config file. There are vars with the same var_id. Some of "
          "them will be overwritten\n"
          "ConfigParser::ExtractConfigInfo(): --- Details: file path = X.csv, var_id =1-2, var_name = Second\n");
  // A row without commands defines nothing; the later of two equal ids wins wholly.
  EXPECT_EQ(Names(parser.records()), (Strings{"Second", "Other"}));
  EXPECT_EQ(Names(parser.get_cmd_map.at("0x10")), Strings{"Other"});
  EXPECT_EQ(parser.FindByName("Other")->get_start_pos, 0u);
  EXPECT_TRUE(parser.set_cmd_map.empty() && parser.switch_map.empty());
  EXPECT_EQ(Pages(parser), (std::vector<std::vector<Strings>>{{{"Second"}}}));
}

TEST(ConfigParser, MalformedTablesNameFileAndRowAndLeaveNothing) {
  const std::string row1 = "error: T.csv, data row 1: ", stoi = "invalid stoi argument";
  const std::vector<std::pair<std::string, std::string>> cases = {
      {kHeader + "0,P,G\n" + Row("id=1-1;Get=0x10;VarLen=four"), "error: T.csv, data row 2: " + stoi},
      {kHeader + Row("id=1-x;Get=0x10"), row1 + stoi},
      {kHeader + Row("id=1-1;Get=0x10;Options=1|2|"), row1 + stoi},
      {kHeader + Row("id=1-1;Get=0x10;FunctionModule=1_a_1_1"), row1 + stoi},
      {kHeader + Row("id=1-1;Get=0x10;OptionDescription=a_b"), row1 + stoi},
      {kHeader + Row("id=1-1;Get=0x10;GetCmdPayload=0xZZ"), row1 + stoi},
      {kHeader + Row("id=1-1;Get=0x10;Coefficient=abc"), row1 + "invalid stof argument"},
      {kHeader + Row("id=1-1;Get=0x10;Permission=99999999999"), row1 + "stoi argument out of range"},
      {kHeader + Row("id=1-1;Get=0x10;VarLen=-1"), row1 + "VarLen must lie between 0 and 1048576"},
      // Missing columns: the first one asked for is named.
      {"Index,Get\n1,0x10\n", row1 + "Can't find a column named GroupID"},
      {"GroupID,Index,Get,Set,SetIndex,VarName\n1,1,0x10,,,A\n", row1 + "Can't find a column named Permission"},
      {"", "error: T.csv: the file has no header row"},
      {kHeader, ""}};  // header only: an empty catalogue and success, silently
  ConfigParser parser;
  for (const auto& [text, outcome] : cases) {
    SCOPED_TRACE(text);
    EXPECT_EQ(Load(parser, text), outcome);
    EXPECT_TRUE(parser.var_map.empty() && parser.module_vars.empty()) << "a failed load left a half-built catalogue";
  }
}

TEST(ConfigParser, FileLoadsRebuildFromScratchAndListModels) {
  const std::string dir = std::string(VARKEL_BINARY_DIR) + "/test-tmp-config-files";
  std::filesystem::remove_all(dir);
  std::filesystem::create_directories(dir + "/sub.csv");
  std::ofstream(dir + "/A.csv") << kHeader << "0,P,G\n" << Row("id=1-1;Get=0x10;VarName=SN;FunctionModule=1_1_1_0");
  std::ofstream(dir + "/b.csv") << kHeader << Row("id=2-1;Get=0x11;VarName=PN");
  std::ofstream(dir + "/Bad.old.csv") << kHeader << Row("id=2-1;Get=0x11;VarLen=?");
  for (const char* name : {"a.bak", "Marvo-KTC.csv", "Zeta"}) std::ofstream(dir + "/" + name) << "x";
  // Base names up to the first dot, sorted without regard to case; no folders, no Marvo-KTC.
  EXPECT_EQ(ConfigParser::ListModels(dir), (Strings{"A", "a", "b", "Bad", "Zeta"}));
  EXPECT_TRUE(ConfigParser::ListModels(dir + "/missing").empty());

  ConfigParser parser;
  auto load = [&](const std::string& file) { return Outcome([&] { parser.Load(dir + "/" + file); }); };
  EXPECT_EQ(load("A.csv"), "");
  ASSERT_NE(parser.FindByName("SN"), nullptr);
  EXPECT_EQ(load("b.csv"), "");
  EXPECT_TRUE(parser.FindByName("SN") == nullptr && parser.module_vars.empty() && !parser.get_cmd_map.count("0x10"));
  EXPECT_EQ(load("Bad.old.csv"), "error: " + dir + "/Bad.old.csv, data row 1: invalid stoi argument");
  EXPECT_TRUE(parser.var_map.empty());
  EXPECT_EQ(load("missing.csv"), "error: " + dir + "/missing.csv: can't open the file");
  std::filesystem::remove_all(dir);
}
