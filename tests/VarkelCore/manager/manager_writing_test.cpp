// Writing variables against the virtual lidar: what one set query carries, the order of
// the commands, what a failure leaves written, and every refusal reaching the user.

#include <gtest/gtest.h>

#include <memory>
#include <sstream>

#include "manager_test_support.h"
#include "var_info.h"
#include "virtual_lidar.h"

using varkel::sim::FailureMode;
using varkel::sim::SimOptions;
using varkel::sim::VirtualLidar;
using vktest::SignalLog;

namespace {

class WriteManager : public vktest::TestManager {
 public:
  using VarkelManager::SetUpgrading;
};

// Page 0: Network (0x21: IP, Port), Motor (0x25: Speed, Gain, Offset; 0x26: Mode, Enable,
// Level; Orphan without a switch), View (the FOV channel). Page 1: rows no write can use.
std::string WritaTable() {
  return "GroupID,Index,Get,Set,SetIndex,VarName,Permission,VarType,DefaultValue,Options,Unit,Coefficient,"
         "OptionDescription,FunctionModule,VarLen,TimerUpdate,SetCoefficient,GetCmdPayload\n"
         "0,Settings,Network,Motor,View,,,,,,,,,,,,,\n"
         "0,Odd,Rows,,,,,,,,,,,,,,,\n"
         "1,1,0x20,0x21,0,IP Address,1,IP,192.168.1.201,,,,,1_1_1_1,4,0,,\n"
         "1,2,0x20,0x21,1,Port,1,uint16,9347,,,,,1_1_2_1,2,0,,\n"
         "2,1,0x02,0x25,0,Speed,1,uint16,10,,,,,1_2_1_1,2,0,,\n"
         "2,2,0x02,0x25,1,Gain,1,uint8,3,,,,,1_2_2_1,1,0,,\n"
         "2,3,0x02,0x25,2,Offset,1,int16,-2,,,,,1_2_3_1,2,0,,\n"
         "3,1,0x05,0x26,0,Mode,1,uint8,0,0|1|2,,,,1_2_4_3,1,0,,\n"
         "3,2,0x05,0x26,1,Enable,1,uint8,0,,,,,1_2_5_2_5,1,0,,\n"
         "3,3,0x05,0x26,2,Level,1,uint16,0,,,,,1_2_5_2,2,0,,\n"
         "3,4,0x05,,,Orphan,1,uint8,0,,,,,1_2_7_2,1,0,,\n"
         "4,1,0x23,0x22,0,FOV Channel,1,uint8,0,0|1|2|3|4,,,,1_3_1_5,1,0,,\n"
         "5,1,0x07,0x27,0,Flag,1,bool,0,,,,,2_1_1_1,1,0,,\n"
         "5,2,,0x28,0,Key,1,uint8,0,,,,,2_1_2_1,1,0,,\n";
}

// SetText levels of the rows above.
struct Place {
  int group, row;
};
constexpr Place kPort{0, 1}, kIp{0, 0}, kSpeed{1, 0}, kGain{1, 1}, kOffset{1, 2}, kMode{1, 3}, kLevel{1, 5},
    kOrphan{1, 6}, kFov{2, 0};

class ManagerWriting : public ::testing::Test {
 protected:
  void SetUp() override {
    vktest::EnsureApp();
    root_ = vktest::MakeInstallRoot();
    vktest::WriteTable(root_, "Writa", WritaTable());
    SimOptions options;
    options.model = "Writa";
    options.config_dir = root_ + "/Config/varID";
    options.port = 0;
    options.live_values = false;
    sim_ = std::make_unique<VirtualLidar>(options);
    std::string error;
    ASSERT_TRUE(sim_->Start(&error)) << error;
    m_ = std::make_unique<WriteManager>();
    m_->InitConfigFileParser("Writa");
    log_ = std::make_unique<SignalLog>(m_.get());
  }

  void Connect() {
    m_->setProperty("ip_address", "127.0.0.1");
    m_->setProperty("port", QString::number(sim_->port()));
    ASSERT_TRUE(m_->ConnectLidar());
    ASSERT_TRUE(log_->Wait([&] { return m_->getIsConnected() && !m_->GetIsConnectingLidar(); }));
    sim_->ResetCounters();
    log_->Clear();
  }

  void TearDown() override {
    log_.reset();
    m_.reset();
    sim_.reset();
  }

  void Edit(Place p, const std::string& text, int module = 0, int type = 1) {
    m_->SetText(type, module, p.group, p.row, QString::fromStdString(text));
  }
  std::string Value(const char* name) { return m_->searchVarPtr(name, "var_name")->current_val; }
  std::vector<std::string> Fov() {
    std::vector<std::string> texts;
    for (const QVariant& v : m_->getFovList()) texts.push_back(v.toString().toStdString());
    return texts;
  }
  std::string Error() { return m_->getErrorMessage().toStdString(); }

  // The command bytes of the frames the client sent, in order (from the byte-flow lines).
  std::vector<int> SentCommands() {
    log_->Flush();
    std::vector<int> cmds;
    for (const std::string& line : log_->LogLines()) {
      if (line.rfind("BYTES: SEND: ", 0) != 0) continue;
      std::istringstream in(line.substr(13));
      std::string id0, id1, cmd;
      in >> id0 >> id1 >> cmd;
      cmds.push_back(std::stoi(cmd, nullptr, 16));
    }
    return cmds;
  }

  std::string root_;
  std::unique_ptr<VirtualLidar> sim_;
  std::unique_ptr<WriteManager> m_;
  std::unique_ptr<SignalLog> log_;
};

const char kSuccess[] =
    "Set Lidar Successfully\nNote that if you have changed the TCP-related settings, you will need to restart the "
    "lidar for it to work.";

}  // namespace

TEST_F(ManagerWriting, TwoEditsTravelInOneQueryWithThePresentValuesOfTheOtherFields) {
  Connect();
  // The lidar's offset moved since the table was loaded: the write must carry -7, not -2.
  ASSERT_TRUE(sim_->SetValue("Offset", "-7"));
  Edit(kSpeed, "300");
  Edit(kGain, "9");
  EXPECT_EQ(m_->getSetMapSize(), 1);

  m_->Run(0);
  EXPECT_EQ(sim_->CommandCount(0x02), 1u);  // one refresh read of the command's fields
  EXPECT_EQ(sim_->CommandCount(0x25), 1u);
  EXPECT_EQ(sim_->LastPayload(0x25), (std::vector<uint8_t>{0x01, 0x2C, 0x09, 0xFF, 0xF9}));
  EXPECT_EQ(sim_->CommandCount(0x26) + sim_->CommandCount(0x21), 0u);
  EXPECT_EQ(sim_->Value("Speed"), "300");
  EXPECT_EQ(Value("Offset"), "-7");
  EXPECT_EQ(m_->getSetMapSize(), 0);
  EXPECT_EQ(m_->getSuccessMessage().toStdString(), kSuccess);
  log_->Flush();
  EXPECT_TRUE(log_->HasLog("INFO", "Send KTC command [0x25] to set Speed, Gain, Offset success."));
}

TEST_F(ManagerWriting, AnEditOutlivesReadsUntilAppliedOrCleared) {
  Connect();
  Edit(kSpeed, "300");
  ASSERT_TRUE(sim_->SetValue("Speed", "20"));
  ASSERT_TRUE(sim_->SetValue("Gain", "4"));
  m_->GetLidarModuleInfo(0);
  EXPECT_EQ(Value("Speed"), "300");  // the edit stands
  EXPECT_EQ(Value("Gain"), "4");     // untouched: the lidar's value
  m_->ClearSetMap();
  EXPECT_EQ(m_->getSetMapSize(), 0);
  m_->GetLidarModuleInfo(0);
  EXPECT_EQ(Value("Speed"), "20");
  EXPECT_EQ(sim_->CommandCount(0x25), 0u);
}

TEST_F(ManagerWriting, SetTextMarksRealChangesOnlyAndNamesBadRows) {
  // Equal to the present value: nothing is pending, whichever way the value comes.
  Edit(kSpeed, "10");
  Edit(kMode, "0", 0, 3);   // option index 0 is the value 0
  Edit(kLevel, "0", 0, 2);  // Level's switch is Enable, which holds 0
  EXPECT_EQ(m_->getSetMapSize(), 0);
  EXPECT_EQ(m_->getErrorMessage(), "");

  Edit(kMode, "2", 0, 3);
  EXPECT_EQ(Value("Mode"), "2");
  Edit(kLevel, "1", 0, 2);
  EXPECT_EQ(Value("Enable"), "1");
  EXPECT_EQ(Value("Level"), "0");
  EXPECT_EQ(m_->getSetMapSize(), 1);  // both on 0x26

  const struct {
    Place place;
    int type;
    const char* text;
    const char* message;
  } cases[] = {
      {kMode, 3, "3", "Invalid switch value of type 3, please check the config file! name: Mode"},
      {kMode, 3, "x", "Invalid switch value of type 3, please check the config file! name: Mode"},
      {kSpeed, 7, "1", "Invalid switch value of type , please check the config file! name: Speed"},
      {kOrphan, 2, "1", "config file error, Please check the configuration of type 2 of Orphan"},
  };
  for (const auto& c : cases) {
    m_->setErrorMsg("");
    Edit(c.place, c.text, 0, c.type);
    EXPECT_EQ(Error(), c.message) << c.text;
  }
  EXPECT_EQ(Value("Mode"), "2");
  EXPECT_EQ(m_->getSetMapSize(), 1);
}

TEST_F(ManagerWriting, NetworkSettingsGoLastAndALostReplyStillSucceeds) {
  Connect();
  m_->SetLogBytesFlowStatus(true);
  Edit(kPort, "9350");  // the page meets 0x21 first
  Edit(kMode, "1", 0, 3);
  Edit(kGain, "5");
  // A new address answers from elsewhere: the reply is cut off (last return code -2).
  sim_->SetFailure(FailureMode::kResetMidReply, 0x21);
  m_->Run(0);

  std::vector<int> sets;
  for (int cmd : SentCommands())
    if (cmd == 0x21 || cmd == 0x25 || cmd == 0x26) sets.push_back(cmd);
  EXPECT_EQ(sets, (std::vector<int>{0x25, 0x26, 0x21}));
  EXPECT_EQ(m_->getSuccessMessage().toStdString(), kSuccess);
  EXPECT_EQ(Error(), "");
  EXPECT_EQ(m_->getSetMapSize(), 0);
  EXPECT_EQ(sim_->Value("Port"), "9350");
}

TEST_F(ManagerWriting, AFailedCommandStopsTheWriteAndKeepsWhatWasWritten) {
  Connect();
  Edit(kIp, "192.168.1.50");
  Edit(kGain, "5");
  Edit(kMode, "2", 0, 3);
  sim_->SetFailure(FailureMode::kReturnCode, 0x26, 5);
  m_->Run(0);

  EXPECT_EQ(sim_->Value("Gain"), "5");  // 0x25 went first and stays written
  EXPECT_EQ(sim_->CommandCount(0x26), 1u);
  EXPECT_EQ(sim_->CommandCount(0x21), 0u);  // never reached
  EXPECT_EQ(Error(), "Set Failed: 0x26 SET  ret_code: 5");
  EXPECT_EQ(m_->getSuccessMessage(), "");
  EXPECT_EQ(m_->getSetMapSize(), 3);  // still pending, edits still shown
  EXPECT_EQ(Value("Mode"), "2");
  log_->Flush();
  EXPECT_TRUE(log_->HasLog("WARNING", "SET [0x26] FAILED"));
  EXPECT_TRUE(log_->HasLog("INFO", "Send KTC command [0x25] to set Speed, Gain, Offset success."));

  sim_->ClearFailures();
  m_->Run(0);
  EXPECT_EQ(sim_->Value("Mode"), "2");
  EXPECT_EQ(sim_->Value("IP Address"), "192.168.1.50");
  EXPECT_EQ(m_->getSetMapSize(), 0);
}

TEST_F(ManagerWriting, RunRefusesWhileBusyOrDisconnectedAndSendsNothing) {
  Edit(kGain, "5");
  m_->Run(0);
  EXPECT_EQ(Error(), "Please connect to lidar first");
  Connect();
  m_->SetUpgrading(true);
  m_->setIsDownloadLog(true);
  m_->Run(0);
  EXPECT_EQ(Error(), "Please wait for the lidar to upgrade completely");
  m_->SetUpgrading(false);
  m_->Run(0);
  EXPECT_EQ(Error(), "Please wait for the operation log to download completely");
  m_->setIsDownloadLog(false);
  m_->setErrorMsg("");
  m_->Run(2);  // no such page: silent
  EXPECT_EQ(Error(), "");
  EXPECT_EQ(sim_->CommandCount(0x02) + sim_->CommandCount(0x25), 0u);
  EXPECT_EQ(m_->getSetMapSize(), 1);
}

TEST_F(ManagerWriting, EveryRefusedValueReachesTheUserAndNothingIsSent) {
  Connect();
  const struct {
    Place place;
    int module;
    const char* text;
    uint8_t set_cmd;
    const char* reason;
  } cases[] = {
      {kSpeed, 0, "", 0x25, "Unknown error with this var: It has no current_val. var_name = Speed"},
      {kSpeed, 0, "fast", 0x25, "UintParser: contains an illegal number, error:fast"},
      {kGain, 0, "300.5", 0x25, "UintParser: contains an illegal number, error:300.5"},
      {kSpeed, 0, "1e40", 0x25, "UintParser: stof() failed, error:stof argument out of range"},
      {kOffset, 0, "40000", 0x25, "IntParser: contains an illegal number, error:40000"},
      {kIp, 0, "192.168.1", 0x21, "IPv4Parser: ip address, wrong format."},
      {kIp, 0, "192.168.1.256", 0x21, "IPv4Parser: contains an illegal number"},
      {{0, 0}, 1, "1", 0x27, "Error with var type"},
      {{0, 1},
       1,
       "5",
       0x28,
       "There are undefined cases in the csv config file where there is a line with 'set' and no 'get', but the "
       "var_type is not 'raw'."},
  };
  for (const auto& c : cases) {
    // A valid edit on another command of the page: it must not go out either.
    Edit(kMode, "1", 0, 3);
    Edit(c.place, c.text, c.module);
    m_->Run(c.module);
    EXPECT_EQ(Error(), std::string("Set Failed: ") + c.reason) << c.text;
    EXPECT_EQ(sim_->CommandCount(c.set_cmd), 0u) << c.text;
    EXPECT_EQ(sim_->CommandCount(0x26), 0u) << c.text;
    m_->ClearSetMap();
    m_->GetLidarModuleInfo(0);  // the lidar's values back on the page
    m_->setErrorMsg("");
  }
}
TEST_F(ManagerWriting, APageReadFillsTheFovValuesAndEditsAreChecked) {
  Connect();
  sim_->SetFov({1000, 2000, 3000, 4000, 4550}, {9000, 18000, 27000, 36000, 5});
  ASSERT_TRUE(sim_->SetValue("FOV Channel", "2"));
  m_->GetLidarModuleInfo(0);
  EXPECT_EQ(sim_->CommandCount(0x23), 1u);
  const std::vector<std::string> read{"10.0", "20.0", "30.0", "40.0", "45.5", "90.0", "180.0", "270.0", "360.0", "0.1"};
  EXPECT_EQ(Fov(), read);
  EXPECT_EQ(Value("FOV Channel"), "2");
  log_->Flush();
  EXPECT_EQ(log_->Count("fovConfigChanged"), 1);
  sim_->SetFailure(FailureMode::kReturnCode, 0x23, 4);
  m_->GetLidarModuleInfo(0);  // a refused read leaves the values
  EXPECT_EQ(Fov(), read);
  log_->Flush();

  for (const char* bad : {"", "abc", "-0.1", "360.1", "1e40", "12abc", "nan"}) {
    m_->setErrorMsg("");
    log_->Clear();
    m_->SetMultiFovConfig(1, bad);
    EXPECT_EQ(Error(), "Input value of fov is invalid") << bad;
    log_->Flush();
    EXPECT_EQ(log_->Names(), (std::vector<std::string>{"errorMessageChanged", "fovConfigChanged"})) << bad;
  }
  m_->SetMultiFovConfig(10, "5");  // beyond the ten values: ignored
  EXPECT_EQ(Fov(), read);
  EXPECT_EQ(m_->getSetMapSize(), 0);
}

TEST_F(ManagerWriting, RunWritesTheFovChannelAndTheFirstFiveValues) {
  Connect();
  m_->SetMultiFovConfig(0, "12.5");
  m_->SetMultiFovConfig(4, "300");
  m_->SetMultiFovConfig(9, "200");  // an end angle: kept, not sent
  EXPECT_EQ(m_->getSetMapSize(), 1);
  sim_->SetFailure(FailureMode::kReturnCode, 0x22, 4);
  m_->Run(0);
  EXPECT_EQ(Error(), "Set Failed: set channel fov failed");
  Edit(kFov, "256");  // no channel byte: never sent
  m_->Run(0);
  EXPECT_EQ(Error(), "Set Failed: set channel fov failed");
  EXPECT_EQ(sim_->CommandCount(0x22), 1u);

  sim_->ClearFailures();
  Edit(kFov, "3");
  m_->Run(0);
  EXPECT_EQ(sim_->LastPayload(0x22),
            (std::vector<uint8_t>{0x03, 0x04, 0xE2, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x75, 0x30}));
  EXPECT_EQ(sim_->Value("FOV Channel"), "3");
  EXPECT_EQ(m_->getSetMapSize(), 0);
  log_->Flush();
  EXPECT_TRUE(log_->HasLog("INFO", "Send KTC command [0x22] to set FOV Channel success."));
  m_->GetLidarModuleInfo(0);  // the lidar reports what was written
  EXPECT_EQ(Fov(), (std::vector<std::string>{"12.5", "0.0", "0.0", "0.0", "300.0", "360.0", "360.0", "360.0", "360.0",
                                             "360.0"}));
}
