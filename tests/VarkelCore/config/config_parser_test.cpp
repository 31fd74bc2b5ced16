#include "config_parser.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <string>

#include "table_text.h"

using table_text::Header;
using table_text::Module;
using table_text::Row;

namespace {

// Loads table text and returns what the load printed; a failed load gives its error.
std::string Load(ConfigParser& parser, const std::string& text, const std::string& name = "T.csv") {
  testing::internal::CaptureStdout();
  std::string error;
  try {
    parser.LoadText(text, name);
  } catch (const ConfigLoadError& e) {
    error = e.what();
  }
  const std::string out = testing::internal::GetCapturedStdout();
  return error.empty() ? out : "error: " + error;
}

std::string LoadError(const std::string& text) {
  ConfigParser parser;
  const std::string result = Load(parser, text);
  EXPECT_TRUE(parser.var_map.empty() && parser.module_vars.empty()) << "a failed load left a half-built catalogue";
  return result;
}

std::vector<std::string> Names(const std::vector<VarInfo*>& vars) {
  std::vector<std::string> names;
  for (const VarInfo* v : vars) names.push_back(v->var_name);
  return names;
}
using Strings = std::vector<std::string>;

}  // namespace

TEST(ConfigParser, ModuleRowsPagesGroupsAndPlaces) {
  ConfigParser parser;
  EXPECT_EQ(Load(parser, Header() + Module("Network,Address,Time") +  //
                             Row("id=1-1;Get=0x20;VarName=IP;FunctionModule=1_1_1_1") +
                             Row("id=1-2;Get=0x20;VarName=Zone;FunctionModule=1_3_1_0") +
                             Row("id=1-3;Get=0x20;VarName=Early;FunctionModule=2_1_1_1") + Module("Status,Health") +  //
                             Row("id=1-4;Get=0x20;VarName=Temp;FunctionModule=2_1_2_0|1_2_1_3") +
                             Row("id=1-5;Get=0x20;VarName=Short;FunctionModule=1_1_1|")),
            "");
  EXPECT_EQ(parser.module_titles, (std::vector<Strings>{{"Network", "Address", "Time"}, {"Status", "Health"}}));
  ASSERT_EQ(parser.module_vars.size(), 2u);
  ASSERT_EQ(parser.module_vars[0].size(), 2u);
  ASSERT_EQ(parser.module_vars[1].size(), 1u);
  // 1_3_1_0 names a third group that does not exist; 2_1_1_1 came before page 2 existed.
  EXPECT_EQ(Names(parser.module_vars[0][0]), Strings{"IP"});
  EXPECT_EQ(Names(parser.module_vars[0][1]), Strings{"Temp"});
  EXPECT_EQ(Names(parser.module_vars[1][0]), Strings{"Temp"});
  const VarInfo* temp = parser.FindByName("Temp");
  EXPECT_EQ(temp->component_type, 3);  // the kind of the last place
  EXPECT_EQ(temp->module_places, (std::map<std::pair<int32_t, int32_t>, int32_t>{{{1, 0}, 2}, {{0, 1}, 1}}));
  EXPECT_EQ(parser.FindByName("Zone")->module_places.at({0, 2}), 1);  // recorded, though shown nowhere
  EXPECT_TRUE(parser.FindByName("Short")->module_places.empty());     // fewer than four numbers
  EXPECT_EQ(parser.FindByName("Short")->component_type, -1);

  // When GroupID is not the first column, the module row's cells around it still count.
  const Strings columns = {
      "VarName", "GroupID",      "Index",          "Get",          "Set",         "SetIndex",          "Permission",
      "VarType", "DefaultValue", "Options",        "Unit",         "Coefficient", "OptionDescription", "FunctionModule",
      "VarLen",  "TimerUpdate",  "SetCoefficient", "GetCmdPayload"};
  EXPECT_EQ(Load(parser, Header(columns) + "Scan,0,Rate,,Mode\n" +
                             Row("id=1-1;Get=0x30;VarName=Spin;FunctionModule=1_2_1_3", columns)),
            "");
  EXPECT_EQ(parser.module_titles, (std::vector<Strings>{{"Scan", "Rate", "Mode"}}));
  EXPECT_EQ(Names(parser.module_vars[0][1]), Strings{"Spin"});
}

TEST(ConfigParser, CellConversionsDefaultsOptionsAndLabels) {
  ConfigParser parser;
  EXPECT_EQ(Load(parser, Header() +
                             Row("id=3-12;Get=0x2A;Set=0x2B;SetIndex=2;VarName=Max;Permission=1;VarType=uint16;"
                                 "DefaultValue=200.0;Unit=m;Coefficient=0.1;VarLen=2;TimerUpdate=1;"
                                 "SetCoefficient=0.5;GetCmdPayload=0x0102A;Options=0|1|2;"
                                 "OptionDescription= 0 _ Strongest \r\n1_Last\n\n2_Dual_Return\n1_Latest\n") +
                             Row("id=3-13;Get=0x2A;VarName=Bare;TimerUpdate=2;GetCmdPayload=0x1;Options=1~100") +
                             Row("id=3-14;Get=0x2C;VarName=One;GetCmdPayload=12AB;Options=5;OptionDescription=7") +
                             Row("id=3-15;Get=0x2D;VarName=Neg;GetCmdPayload=0X0aFf;Options=-6~6")),
            "");
  const VarInfo* full = parser.FindById("3-12");
  ASSERT_NE(full, nullptr);
  EXPECT_EQ(full->index, 12);
  EXPECT_EQ(full->set_index, 2);
  EXPECT_EQ(full->unit, " (m)");
  EXPECT_EQ(full->permission, 1);
  EXPECT_FLOAT_EQ(full->coefficient, 0.1f);
  EXPECT_FLOAT_EQ(full->set_coefficient, 0.5f);
  EXPECT_EQ(full->var_len, 2u);
  EXPECT_TRUE(full->timer_update);
  EXPECT_EQ(full->current_val, "200.0");
  EXPECT_EQ(full->get_cmd_payload, "0102A");
  EXPECT_EQ(full->get_cmd_payload_bytes, (std::vector<uint8_t>{0x01, 0x02}));  // odd last digit dropped
  EXPECT_EQ(full->options, (std::vector<int32_t>{0, 1, 2}));
  EXPECT_EQ(full->option_num, 3);
  // Trimmed on both sides; a later line with the same value replaces the label.
  EXPECT_EQ(full->option_labels, (std::map<int32_t, std::string>{{0, "Strongest"}, {1, "Latest"}, {2, "Dual_Return"}}));

  const VarInfo* bare = parser.FindById("3-13");
  EXPECT_EQ(bare->set_index, -1);
  EXPECT_EQ(bare->unit, "");
  EXPECT_EQ(bare->permission, 0);
  EXPECT_FLOAT_EQ(bare->coefficient, 1.0f);
  EXPECT_FLOAT_EQ(bare->set_coefficient, 1.0f);
  EXPECT_EQ(bare->var_len, 0u);
  EXPECT_FALSE(bare->timer_update);
  EXPECT_TRUE(bare->get_cmd_payload_bytes.empty());
  EXPECT_TRUE(bare->options.empty());
  EXPECT_EQ(std::make_pair(bare->range_min, bare->range_max), std::make_pair(1, 100));

  const VarInfo* one = parser.FindById("3-14");
  EXPECT_TRUE(one->get_cmd_payload_bytes.empty());  // no 0x prefix
  EXPECT_EQ(one->options, (std::vector<int32_t>{5}));
  EXPECT_EQ(one->option_labels, (std::map<int32_t, std::string>{{7, ""}}));
  EXPECT_EQ(parser.FindById("3-15")->get_cmd_payload_bytes, (std::vector<uint8_t>{0x0A, 0xFF}));
  EXPECT_EQ(parser.FindById("3-15")->range_min, -6);
}

TEST(ConfigParser, PayloadLayoutAndGetVarPosOffset) {
  ConfigParser parser;
  EXPECT_EQ(Load(parser,
                 Header() +  //
                     Row("id=1-7;Get=0x30;Set=0x31;SetIndex=1;VarName=A;VarLen=4") +
                     Row("id=1-3;Get=0x30;Set=0x31;SetIndex=2;VarName=B;VarLen=2") +
                     Row("id=1-5;Get=0x30;VarName=ReadOnly;VarLen=1") + Row("id=2-7;Get=0x1A05;VarName=C;VarLen=4") +
                     Row("id=2-3;Get=0x1A05;VarName=D;VarLen=2") +
                     Row("id=6-3;Set=0x28;SetIndex=1;VarName=Shared Secret Key;VarType=raw;VarLen=32") +
                     Row("id=6-4;Set=0x30;VarName=Both;VarLen=2"),
                 "Config/varID/Q.csv"),
            "");
  EXPECT_EQ(Names(parser.get_cmd_map.at("0x30")), (Strings{"B", "ReadOnly", "A"}));
  EXPECT_EQ(parser.FindByName("ReadOnly")->get_start_pos, 2u);
  EXPECT_EQ(parser.FindByName("A")->get_start_pos, 3u);
  EXPECT_EQ(Names(parser.set_cmd_map.at("0x31")), (Strings{"A", "B"}));
  // An extended command's reply carries four leading bytes.
  EXPECT_EQ(parser.FindByName("D")->get_start_pos, 4u);
  EXPECT_EQ(parser.FindByName("C")->get_start_pos, 6u);

  std::pair<uint32_t, uint32_t> pos;
  ASSERT_TRUE(parser.GetVarPosOffset("0x31", "1-3", 0, pos));
  EXPECT_EQ(pos, std::make_pair(4u, 2u));
  ASSERT_TRUE(parser.GetVarPosOffset("0x30", "1-3", 0, pos));
  EXPECT_EQ(pos, std::make_pair(0u, 2u));
  // 0x30 keeps the kind of its first use, so the set-only "Both" is placed by its get position.
  EXPECT_EQ(parser.cmd_kind_map,
            (std::map<std::string, std::string>{{"0x30", "get"}, {"0x31", "set"}, {"0x1A05", "get"}, {"0x28", "set"}}));
  parser.FindByName("Both")->get_start_pos = 9;
  ASSERT_TRUE(parser.GetVarPosOffset("0x30", "6-4", 0, pos));
  EXPECT_EQ(pos, std::make_pair(9u, 2u));

  // The secret key spans whatever payload it is sent in, and keeps that length.
  VarInfo* key = parser.FindByName("Shared Secret Key");
  EXPECT_EQ(key->var_len, 0u);
  ASSERT_TRUE(parser.GetVarPosOffset("0x28", "6-3", 20, pos));
  EXPECT_EQ(pos, std::make_pair(0u, 20u));
  EXPECT_EQ(key->var_len, 20u);

  testing::internal::CaptureStdout();
  EXPECT_FALSE(parser.GetVarPosOffset("0x31", "9-9", 0, pos));
  EXPECT_FALSE(parser.GetVarPosOffset("0x99", "1-3", 0, pos));
  parser.FindById("1-3")->get_cmd.clear();
  parser.FindById("1-3")->set_cmd.clear();
  EXPECT_FALSE(parser.GetVarPosOffset("0x31", "1-3", 0, pos));
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            "ConfigParser::GetVarPosOffset(): ERROR. This var_id does not exist. Detail: var_id = 9-9, file_path = "
            "Config/varID/Q.csv\n"
            "ConfigParser::GetVarPosOffset(): don't have this command\n"
            "ConfigParser::GetVarPosOffset(): this var not supported. var_name = B\n");
}

TEST(ConfigParser, SwitchesStandaloneVariablesAndSetOnlyNameClashes) {
  ConfigParser parser;
  EXPECT_EQ(Load(parser, Header() + Module("Operation,Phase Lock,Other") +
                             Row("id=9-1;Get=0x32;Set=0x33;VarName=Lock;FunctionModule=1_1_1_2_1") +
                             Row("id=9-2;Get=0x32;Set=0x33;VarName=Angle;FunctionModule=1_1_1_2") +
                             Row("id=9-3;Get=0x32;VarName=Status;FunctionModule=1_1_2_0") +
                             Row("id=9-4;Get=0x32;VarName=Off;FunctionModule=1_2_1_2_-1") +
                             Row("id=9-5;Get=0x32;VarName=Nowhere;FunctionModule=4_4_1_2_1") +
                             Row("id=18-1;Set=0x40;VarName=Restart;VarType=raw;FunctionModule=1_1_9_6") +
                             Row("id=18-2;Set=0x21;VarName=Mode;VarType=raw") +
                             Row("id=18-3;Set=0x22;VarName=Mode;VarType=raw") +
                             Row("id=18-4;Get=0x23;Set=0x24;VarName=Mode")),
            "ConfigParser::ExtractConfigInfo(): Mode_0x22 is used in other cmd\n");
  EXPECT_EQ(parser.FindById("18-3")->var_name, "Mode_0x22");
  EXPECT_EQ(parser.FindById("18-4")->var_name, "Mode");  // not set-only: no clash
  EXPECT_EQ(parser.FindByName("Mode"), parser.FindById("18-2"));

  VarInfo* lock = parser.FindByName("Lock");
  ASSERT_EQ(parser.switch_map.count(lock), 1u);
  const SwitchPlace place = parser.switch_map.at(lock);
  EXPECT_EQ(std::make_tuple(place.module, place.group, place.value), std::make_tuple(0, 0, 1));
  EXPECT_TRUE(lock->has_switch);
  EXPECT_FALSE(parser.FindByName("Angle")->has_switch);
  // Everything at the switch's position in its group is switched by it, itself included.
  EXPECT_EQ(lock->switch_var, lock);
  EXPECT_EQ(parser.FindByName("Angle")->switch_var, lock);
  EXPECT_EQ(parser.FindByName("Status")->switch_var, nullptr);
  // A negative fifth number links nothing; a switch on an undefined page is harmless.
  EXPECT_EQ(parser.FindByName("Off")->switch_var, nullptr);
  EXPECT_EQ(parser.switch_map.size(), 3u);

  VarInfo* restart = parser.FindByName("Restart");
  EXPECT_EQ(parser.standalone_vars, std::vector<VarInfo*>{restart});
  EXPECT_EQ(Names(parser.module_vars[0][0]), (Strings{"Lock", "Angle", "Status"}));
}

TEST(ConfigParser, SkippedRowsAndDuplicateIds) {
  ConfigParser parser;
  EXPECT_EQ(Load(parser,
                 Header() + Module("Page,Group") + Row("GroupID=1;Get=0x10;VarName=No Index") +
                     Row("Index=1;Get=0x10;VarName=No Group") + ",,,,,\n" + Row("id=1-1;VarName=No Command") +
                     Row("id=1-2;Get=0x10;Set=0x11;VarName=First;VarLen=4;FunctionModule=1_1_1_2_1") +
                     Row("id=1-3;Get=0x10;VarName=Other;VarLen=2") +
                     Row("id=1-2;Get=0x12;VarName=Second;VarLen=1;FunctionModule=1_1_5_0"),
                 "X.csv"),
            "ConfigParser::ExtractConfigInfo(): WARNING: something with config file - Some var lacks \"GroupID\" or "
            "\"Index\"\n"
            "---Detailed Infomation: file path = X.csv, var name = No Index\n"
            "ConfigParser::ExtractConfigInfo(): WARNING: something with config file - Some var lacks \"GroupID\" or "
            "\"Index\"\n"
            "---Detailed Infomation: file path = X.csv, var name = No Group\n"
            "ConfigParser::ExtractConfigInfo(): ERROR with config file. There are vars with the same var_id. Some of "
            "them will be overwritten\n"
            "ConfigParser::ExtractConfigInfo(): --- Details: file path = X.csv, var_id =1-2, var_name = Second\n");
  EXPECT_EQ(parser.FindById("1-1"), nullptr);  // a row without commands defines nothing
  // The later of two equal ids wins wholly: the earlier row's entries are gone.
  const VarInfo* second = parser.FindById("1-2");
  EXPECT_EQ(second->var_name, "Second");
  EXPECT_FALSE(second->has_switch);
  EXPECT_EQ(parser.records().size(), 2u);
  EXPECT_EQ(Names(parser.get_cmd_map.at("0x10")), Strings{"Other"});
  EXPECT_EQ(parser.FindByName("Other")->get_start_pos, 0u);
  EXPECT_EQ(parser.set_cmd_map.count("0x11"), 0u);
  EXPECT_TRUE(parser.switch_map.empty());
  EXPECT_EQ(Names(parser.module_vars[0][0]), Strings{"Second"});
}

TEST(ConfigParser, MalformedTablesNameFileAndRowAndLeaveNothing) {
  const std::string h = Header();
  EXPECT_EQ(LoadError(h + Module("P,G") + Row("id=1-1;Get=0x10;VarLen=four")),
            "error: T.csv, data row 2: invalid stoi argument");
  EXPECT_EQ(LoadError(h + Row("id=1-x;Get=0x10")), "error: T.csv, data row 1: invalid stoi argument");
  EXPECT_EQ(LoadError(h + Row("id=1-1;Get=0x10;Coefficient=abc")), "error: T.csv, data row 1: invalid stof argument");
  EXPECT_EQ(LoadError(h + Row("id=1-1;Get=0x10;Permission=99999999999")),
            "error: T.csv, data row 1: stoi argument out of range");
  for (const char* bad : {"Options=1|2|", "FunctionModule=1_a_1_1", "OptionDescription=a_b", "GetCmdPayload=0xZZ"})
    EXPECT_EQ(LoadError(h + Row(std::string("id=1-1;Get=0x10;") + bad)),
              "error: T.csv, data row 1: invalid stoi argument")
        << bad;
  EXPECT_EQ(LoadError(h + Row("id=1-1;Get=0x10;VarLen=-1")),
            "error: T.csv, data row 1: VarLen must lie between 0 and 1048576");
  // Missing columns: the first one asked for is named.
  EXPECT_EQ(LoadError("Index,Get\n1,0x10\n"), "error: T.csv, data row 1: Can't find a column named GroupID");
  EXPECT_EQ(LoadError("GroupID,Index,Get,Set,SetIndex,VarName\n1,1,0x10,,,A\n"),
            "error: T.csv, data row 1: Can't find a column named Permission");
  EXPECT_EQ(LoadError(""), "error: T.csv: the file has no header row");

  // Without the wrapper the standard exception comes through unchanged.
  ConfigParser parser;
  ASSERT_TRUE(parser.OpenText(h + Row("id=1-1;Get=0x10;SetIndex=?"), "T"));
  try {
    parser.ExtractConfigInfo();
    ADD_FAILURE() << "no error";
  } catch (const std::invalid_argument& e) {
    EXPECT_STREQ(e.what(), "invalid stoi argument");
  }
  // Header only: an empty catalogue and success, silently.
  EXPECT_EQ(Load(parser, h), "");
  EXPECT_TRUE(parser.var_map.empty());
  // No reader open.
  ConfigParser unopened;
  unopened.file_path = "None.csv";
  testing::internal::CaptureStdout();
  EXPECT_FALSE(unopened.ExtractConfigInfo());
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            "ConfigParser::ExtractConfigInfo(): error with csv_reader_, loc = None.csv\n");
}

TEST(ConfigParser, FileLoadsRebuildFromScratch) {
  const std::string dir = std::string(VARKEL_BINARY_DIR) + "/test-tmp-reload";
  std::filesystem::create_directories(dir);
  std::ofstream(dir + "/A.csv") << Header() << Module("P,G")
                                << Row("id=1-1;Get=0x10;VarName=SN;FunctionModule=1_1_1_0");
  std::ofstream(dir + "/B.csv") << Header() << Row("id=2-1;Get=0x11;VarName=PN");
  std::ofstream(dir + "/Bad.csv") << Header() << Row("id=2-1;Get=0x11;VarLen=?");
  ConfigParser parser;
  parser.Load(dir + "/A.csv");
  EXPECT_EQ(parser.file_path, dir + "/A.csv");
  ASSERT_NE(parser.FindByName("SN"), nullptr);
  parser.Load(dir + "/B.csv");
  EXPECT_EQ(parser.FindByName("SN"), nullptr);
  EXPECT_TRUE(parser.module_vars.empty());
  EXPECT_EQ(parser.get_cmd_map.count("0x10"), 0u);
  try {
    parser.Load(dir + "/Bad.csv");
    ADD_FAILURE() << "no error";
  } catch (const ConfigLoadError& e) {
    EXPECT_EQ(std::make_tuple(e.file(), e.row(), e.reason()),
              std::make_tuple(dir + "/Bad.csv", 1, std::string("invalid stoi argument")));
  }
  EXPECT_EQ(parser.FindByName("PN"), nullptr);
  try {
    parser.Load(dir + "/missing.csv");
    ADD_FAILURE() << "no error";
  } catch (const ConfigLoadError& e) {
    EXPECT_EQ(std::string(e.what()), dir + "/missing.csv: can't open the file");
  }
  std::filesystem::remove_all(dir);
}

TEST(ConfigParser, ModelListFromFolder) {
  const std::string dir = std::string(VARKEL_BINARY_DIR) + "/test-tmp-models";
  std::filesystem::remove_all(dir);
  std::filesystem::create_directories(dir + "/sub.csv");
  for (const char* name : {"beta.csv", "Alpha.csv", "Marvo-KTC.csv", "Gamma.old.csv", "alpha.bak", "Zeta"})
    std::ofstream(dir + "/" + name) << "x";
  EXPECT_EQ(ConfigParser::ListModels(dir), (Strings{"Alpha", "alpha", "beta", "Gamma", "Zeta"}));
  EXPECT_TRUE(ConfigParser::ListModels(dir + "/missing").empty());
  std::filesystem::remove_all(dir);
}
