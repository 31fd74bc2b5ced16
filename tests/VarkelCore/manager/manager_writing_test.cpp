// Writing variables against the virtual lidar: what one set query carries, the order of
// the commands, what a failure leaves written, and every refusal reaching the user.

#include <gtest/gtest.h>

#include <filesystem>

#include "config_parser.h"
#include "file_text.h"
#include "journal.h"
#include "journal_history.h"
#include "manager_test_support.h"
#include "variable_io.h"

using varkel::sim::FailureMode;

namespace {

// Page 0: Network (0x21: IP, Port), Motor (0x25: Speed, Gain, Offset; 0x26: Mode, Enable,
// Level; Orphan without a switch), View (the FOV channel). Page 1: rows no write can use.
const std::string kWrita = vktest::kTableHeader +
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

// SetText levels of the rows above.
struct Place {
  int group, row;
};
constexpr Place kIp{0, 0}, kSpeed{1, 0}, kGain{1, 1}, kMode{1, 3}, kLevel{1, 5}, kOrphan{1, 6}, kFov{2, 0};

class ManagerWriting : public vktest::ManagerTest {
 protected:
  void SetUp() override {
    ManagerTest::SetUp();
    Load("Writa", kWrita);
  }

  void Edit(Place p, const std::string& text, int module = 0, int type = 1) {
    m_->SetText(type, module, p.group, p.row, QString::fromStdString(text));
  }
  std::string Fov() { return QVariant(m_->getFovList()).toStringList().join(' ').toStdString(); }
  // The ten boxes' read notes joined by blanks: all blanks when every box is fresh.
  std::string Notes() { return QVariant(m_->getFovReadNotes()).toStringList().join(' ').toStdString(); }
};

const char kSetWithoutGet[] =
    "There are undefined cases in the csv config file where there is a line with 'set' and no 'get', but the var_type "
    "is not 'raw'.";
using vktest::kSetSuccess;

}  // namespace

TEST_F(ManagerWriting, TwoEditsTravelInOneQueryWithThePresentValuesOfTheOtherFields) {
  ASSERT_TRUE(Connect());
  Edit(kSpeed, "300");
  Edit(kGain, "9");
  EXPECT_EQ(m_->getSetMapSize(), 1);
  // The lidar's offset and gain moved since: a page read shows the new offset, keeps the edits.
  ASSERT_TRUE(sim_->SetValue("Offset", "-5"));
  ASSERT_TRUE(sim_->SetValue("Gain", "4"));
  m_->GetLidarModuleInfo(0);
  EXPECT_EQ(Value("Speed") + " " + Value("Gain") + " " + Value("Offset"), "300 9 -5");
  // And before writing: the query carries -7, not -5 or the table's -2.
  ASSERT_TRUE(sim_->SetValue("Offset", "-7"));
  sim_->ResetCounters();
  m_->Run(0);
  EXPECT_EQ(sim_->CommandCount(0x02), 1u);  // one refresh read of the command's fields
  EXPECT_EQ(sim_->CommandCount(0x25), 1u);
  EXPECT_EQ(sim_->LastPayload(0x25), (std::vector<uint8_t>{0x01, 0x2C, 0x09, 0xFF, 0xF9}));
  EXPECT_EQ(sim_->CommandCount(0x26) + sim_->CommandCount(0x21), 0u);
  EXPECT_EQ(Value("Offset"), "-7");
  EXPECT_EQ(m_->getSetMapSize(), 0);
  EXPECT_EQ(m_->getSuccessMessage().toStdString(), kSetSuccess);
  log_->Flush();
  EXPECT_TRUE(log_->Has("INFO: Send KTC command [0x25] to set Speed, Gain, Offset success."));
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

TEST_F(ManagerWriting, AFailedCommandStopsTheWriteAndNetworkSettingsGoLast) {
  ASSERT_TRUE(Connect());
  Edit(kIp, "192.168.1.50");  // the page meets 0x21 first
  Edit(kGain, "5");
  Edit(kMode, "2", 0, 3);
  sim_->SetFailure(FailureMode::kReturnCode, 0x26, 5);
  m_->Run(0);
  EXPECT_EQ(sim_->Value("Gain"), "5");  // 0x25 went first and stays written
  EXPECT_EQ(sim_->CommandCount(0x26), 1u);
  EXPECT_EQ(sim_->CommandCount(0x21), 0u);  // last: never reached
  EXPECT_EQ(Error(), "Set Failed: 0x26 SET  ret_code: 5");
  EXPECT_EQ(m_->getSuccessMessage(), "");
  EXPECT_EQ(m_->getSetMapSize(), 3);  // still pending, edits still shown
  EXPECT_EQ(Value("Mode"), "2");
  log_->Flush();
  EXPECT_TRUE(log_->Has("WARNING: SET [0x26] FAILED"));
  EXPECT_TRUE(log_->Has("INFO: Send KTC command [0x25] to set Speed, Gain, Offset success."));

  // A new address answers from elsewhere: the reply is cut off (last return code -2).
  sim_->ClearFailures();
  sim_->SetFailure(FailureMode::kResetMidReply, 0x21);
  m_->setErrorMsg("");
  m_->Run(0);
  EXPECT_EQ(sim_->Value("Mode") + " " + sim_->Value("IP Address"), "2 192.168.1.50");
  EXPECT_EQ(m_->getSuccessMessage().toStdString(), kSetSuccess);
  EXPECT_EQ(Error(), "");
  EXPECT_EQ(m_->getSetMapSize(), 0);

  // The present values cannot be read: nothing goes out, the edit stays.
  Edit(kGain, "6");
  sim_->SetFailure(FailureMode::kReturnCode, 0x02, 5);
  sim_->ResetCounters();
  m_->Run(0);
  EXPECT_EQ(Error(), "Set Failed: could not read the present values for 0x02 before writing");
  EXPECT_EQ(sim_->CommandCount(0x25), 0u);
  EXPECT_EQ(m_->getSetMapSize(), 1);
}

TEST_F(ManagerWriting, RunRefusesWhileBusyOrDisconnectedAndSendsNothing) {
  Edit(kGain, "5");
  ASSERT_TRUE(Connect());
  // Both busy: the upgrade is what the user is told about.
  m_->setIsDownloadLog(true);
  m_->SetUpgrading(true);
  m_->Run(0);
  EXPECT_EQ(Error(), "Please wait for the lidar to upgrade completely");
  m_->SetUpgrading(false);
  m_->setIsDownloadLog(false);
  m_->setErrorMsg("");
  m_->Run(2);  // no such page: silent
  EXPECT_EQ(Error(), "");
  EXPECT_EQ(sim_->CommandCount(0x02) + sim_->CommandCount(0x25), 0u);
  EXPECT_EQ(m_->getSetMapSize(), 1);
}

TEST_F(ManagerWriting, EveryRefusedValueReachesTheUserAndNothingIsSent) {
  ASSERT_TRUE(Connect());
  // One row per way a value is refused; each codec's own refusals are the codec tests'.
  const struct {
    Place place;
    int module;
    const char* text;
    uint8_t set_cmd;
    const char* reason;
  } cases[] = {
      {kSpeed, 0, "", 0x25, "Unknown error with this var: It has no current_val. var_name = Speed"},
      {kSpeed, 0, "fast", 0x25, "UintParser: contains an illegal number, error:fast"},
      {kSpeed, 0, "1e40", 0x25, "UintParser: stof() failed, error:stof argument out of range"},
      {kIp, 0, "192.168.1", 0x21, "IPv4Parser: ip address, wrong format."},
      {{0, 0}, 1, "1", 0x27, "Error with var type"},
      {{0, 1}, 1, "5", 0x28, kSetWithoutGet},
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
    EXPECT_EQ(Value("Mode"), "0");
    m_->setErrorMsg("");
  }
}

TEST_F(ManagerWriting, ThePageReadShowsTheSensorsAnglesInEveryBoxNotEditedSinceTheLastWrite) {
  ASSERT_TRUE(Connect());
  sim_->SetFov({1000, 2000, 3000, 4000, 4550}, {9000, 18000, 27000, 36000, 5});
  ASSERT_TRUE(sim_->SetValue("FOV Channel", "2"));
  m_->GetLidarModuleInfo(0);
  EXPECT_EQ(sim_->CommandCount(0x23), 1u);  // channel and angles in one read
  EXPECT_EQ(Value("FOV Channel"), "2");
  EXPECT_EQ(Fov(), "10.0 20.0 30.0 40.0 45.5 90.0 180.0 270.0 360.0 0.1");
  EXPECT_EQ(Notes(), std::string(9, ' '));

  // Two boxes edited, the sensor changes, the window re-reads the page (a tab switch):
  // the edited boxes keep the user's numbers, their neighbours take the sensor's.
  m_->SetMultiFovConfig(1, "15");
  m_->SetMultiFovConfig(8, "300");
  sim_->SetFov({500, 600, 700, 800, 900}, {1000, 1100, 1200, 1300, 1400});
  m_->GetLidarModuleInfo(0);
  EXPECT_EQ(Fov(), "5.0 15.0 7.0 8.0 9.0 10.0 11.0 12.0 300.0 14.0");
  sim_->SetFailure(FailureMode::kReturnCode, 0x23, 4);
  m_->GetLidarModuleInfo(0);  // a refused read leaves every box
  EXPECT_EQ(Fov(), "5.0 15.0 7.0 8.0 9.0 10.0 11.0 12.0 300.0 14.0");
  sim_->ClearFailures();

  // The write reads the angles afresh: the boxes the user left carry what the sensor holds
  // now, the edited one the user's number. Afterwards every box follows the sensor again
  // (the end angles are never written, so the sensor's own end comes back).
  sim_->SetFov({510, 600, 710, 810, 910}, {1000, 1100, 1200, 1300, 1400});
  m_->Run(0);
  EXPECT_EQ(sim_->LastPayload(0x22),
            (std::vector<uint8_t>{0x02, 0x01, 0xFE, 0x05, 0xDC, 0x02, 0xC6, 0x03, 0x2A, 0x03, 0x8E}));
  sim_->SetFov({100, 1500, 700, 800, 900}, {1000, 1100, 1200, 1300, 1400});
  m_->GetLidarModuleInfo(0);
  EXPECT_EQ(Fov(), "1.0 15.0 7.0 8.0 9.0 10.0 11.0 12.0 13.0 14.0");

  // Cancel drops the edit as well: the read brings the sensor's angle back.
  m_->SetMultiFovConfig(0, "33");
  m_->ClearSetMap();
  m_->GetLidarModuleInfo(0);
  EXPECT_EQ(Fov(), "1.0 15.0 7.0 8.0 9.0 10.0 11.0 12.0 13.0 14.0");

  // Disconnected: the first four go back to 0 and are no sensor's; the rest are dimmed
  // with the time they were read.
  m_->SetMultiFovConfig(9, "20");
  m_->Stop();
  EXPECT_EQ(Fov(), "0.0 0.0 0.0 0.0 9.0 10.0 11.0 12.0 13.0 20.0");
  const QStringList notes = QVariant(m_->getFovReadNotes()).toStringList();
  ASSERT_EQ(notes.size(), 10);
  for (int i = 0; i < 10; ++i) {
    if (i < 4 || i == 9)
      EXPECT_EQ(notes[i].toStdString(), "not read from the sensor") << i;
    else
      EXPECT_TRUE(notes[i].startsWith("last read from the sensor at ")) << i << notes[i].toStdString();
  }
}

TEST_F(ManagerWriting, BadFovValuesAreRefusedAndShowTheStoredValueAgain) {
  ASSERT_TRUE(Connect());
  const std::string read = Fov();
  for (const char* bad : {"", "abc", "-0.1", "360.1", "1e40", "12abc", "nan"}) {
    m_->setErrorMsg("");
    log_->Clear();
    m_->SetMultiFovConfig(1, bad);
    EXPECT_EQ(Error(), "Input value of fov is invalid") << bad;
    log_->Flush();
    EXPECT_EQ(log_->Trace(), (std::vector<std::string>{"errorMessageChanged", "fovConfigChanged"})) << bad;
  }
  m_->SetMultiFovConfig(10, "5");  // beyond the ten values: ignored
  EXPECT_EQ(Fov(), read);
  EXPECT_EQ(m_->getSetMapSize(), 0);
}

TEST_F(ManagerWriting, RunWritesTheFovChannelAndTheFirstFiveValues) {
  std::filesystem::remove_all(quarn::journal::DefaultDirectory());
  ASSERT_TRUE(Connect());
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
  EXPECT_TRUE(log_->Has("INFO: Send KTC command [0x22] to set FOV Channel success."));
  EXPECT_EQ(sim_->FovStart(), (varkel::sim::FovBlock::Angles{1250, 0, 0, 0, 30000}));

  // The History page: newest first, the write that never went out left no line. Filters
  // given in quick succession show the last one's entries alone, read off the window's thread.
  auto* history = qobject_cast<JournalHistory*>(m_->history());
  ASSERT_NE(history, nullptr);
  int shown = 0;
  QObject::connect(history, &JournalHistory::entriesChanged, [&] { ++shown; });
  for (const char* host : {"127.0.0.9", "", "127.0.0.1"}) {
    history->setHost(host);
    history->refresh();
    EXPECT_TRUE(history->loading());
  }
  ASSERT_TRUE(log_->Wait([&] { return !history->loading(); }));
  EXPECT_EQ(shown, 1);
  const QVariantList rows = history->entries();
  ASSERT_EQ(rows.size(), 2);
  EXPECT_EQ(rows[0].toMap()["what"].toString(), "fov");
  EXPECT_EQ(rows[0].toMap()["new"].toString(), "channel 3: 12.50, 0.00, 0.00, 0.00, 300.00");
  EXPECT_EQ(rows[0].toMap()["host"].toString(), "127.0.0.1");
  EXPECT_EQ(rows[1].toMap()["outcome"].toString(), "refused (4)");
  // A filter that does not parse answers at once, and the read before it never shows.
  history->setHost("127.0.0.9");
  history->refresh();
  history->setSince("tomorrow");
  history->refresh();
  EXPECT_FALSE(history->loading());
  EXPECT_FALSE(history->filterError().isEmpty());
  EXPECT_TRUE(history->entries().isEmpty());
  history->setSince("");
  history->refresh();
  ASSERT_TRUE(log_->Wait([&] { return !history->loading(); }));
  EXPECT_TRUE(history->entries().isEmpty());  // 127.0.0.9 had no change
}

TEST_F(ManagerWriting, TableCommandTextsAreReadWithAutomaticBase) {
  // "21" is decimal (0x15) and "010" octal (8): reads and writes go out on those bytes.
  Load("Bases", vktest::kTableHeader +
                    "0,Codes,Numbers,,,,,,,,,,,,,,,\n"
                    "1,1,21,22,0,Decimal,1,uint8,5,,,,,1_1_1_1,1,0,,\n"
                    "2,1,010,011,0,Octal,1,uint8,6,,,,,1_1_2_1,1,0,,\n");
  ASSERT_TRUE(Connect());
  m_->GetLidarModuleInfo(0);
  EXPECT_EQ(sim_->CommandCount(21), 1u);
  EXPECT_EQ(sim_->CommandCount(8), 1u);
  EXPECT_EQ(Value("Decimal"), "5");
  EXPECT_EQ(Value("Octal"), "6");
  m_->SetText(1, 0, 0, 0, "7");
  m_->SetText(1, 0, 0, 1, "9");
  m_->Run(0);
  EXPECT_EQ(Error(), "");
  EXPECT_EQ(sim_->LastPayload(22), std::vector<uint8_t>{7});
  EXPECT_EQ(sim_->LastPayload(9), std::vector<uint8_t>{9});
  EXPECT_EQ(sim_->CommandCount(0x22) + sim_->CommandCount(0x11), 0u);
  EXPECT_EQ(sim_->Value("Octal"), "9");
}

TEST_F(ManagerWriting, AnAddressChangeCarriesTheSensorsMacByteForByte) {
  // The MAC is shown in hexadecimal and typed in decimal: through its text, a MAC with
  // digits only would be rewritten and one with letters refused.
  Load("Quenta", vktest::FileText(VARKEL_SOURCE_DIR "/Config/varID/Quenta.csv"));
  ASSERT_TRUE(Connect());
  const Place gateway{0, 2}, password{2, 3};
  const struct {
    const char* mac;
    std::vector<uint8_t> mac_bytes;
  } sensors[] = {{"00:25:90:12:34:56", {0x00, 0x25, 0x90, 0x12, 0x34, 0x56}},
                 {"00:0E:C6:12:34:56", {0x00, 0x0E, 0xC6, 0x12, 0x34, 0x56}}};
  uint8_t last = 9;
  for (const auto& sensor : sensors) {
    ASSERT_TRUE(sim_->SetValue("MAC Address", sensor.mac));
    m_->GetLidarModuleInfo(1);
    ASSERT_EQ(Shown(1, 0, 2), "192.168.1.1");  // the Gateway row
    const std::string address = "127.0.0." + std::to_string(last);
    Edit(gateway, address, 1);
    m_->Run(1);
    EXPECT_EQ(Error(), "") << sensor.mac;
    // Address, mask, the new gateway, then the MAC as the sensor holds it.
    std::vector<uint8_t> expected{0xC0, 0xA8, 0x01, 0xC9, 0xFF, 0xFF, 0xFF, 0x00, 0x7F, 0x00, 0x00, last};
    expected.insert(expected.end(), sensor.mac_bytes.begin(), sensor.mac_bytes.end());
    EXPECT_EQ(sim_->LastPayload(0x21), expected) << sensor.mac;
    EXPECT_EQ(sim_->Value("MAC Address"), sensor.mac);
    EXPECT_EQ(sim_->Value("Gateway"), address);
    ASSERT_TRUE(sim_->SetValue("Gateway", "192.168.1.1"));
    ++last;
  }

  // A secret the table gives no bytes for is never sent as zeros.
  m_->setErrorMsg("");
  Edit(password, "hunter2", 1);
  m_->Run(1);
  EXPECT_EQ(Error(), "Set Failed: Access Password cannot be written: its bytes are not defined for this model");
  EXPECT_EQ(sim_->CommandCount(0x29), 0u);
  EXPECT_EQ(m_->getSetMapSize(), 1);
}

TEST_F(ManagerWriting, TheJournalAsksForTheSerialNumberOnlyWhenThisConnectionDidNotReadIt) {
  std::filesystem::remove_all(quarn::journal::DefaultDirectory());
  Load("Quenta", vktest::FileText(VARKEL_SOURCE_DIR "/Config/varID/Quenta.csv"));
  ASSERT_TRUE(sim_->SetValue("SN", "QT26J00417"));  // not the table's default
  const auto change = [&](const std::string& gateway) {
    Edit({0, 2}, gateway, 1);
    m_->Run(1);
    EXPECT_EQ(Error(), "") << gateway;
  };
  ASSERT_TRUE(Connect());
  change("127.0.0.9");  // nothing read it yet: asked once
  change("127.0.0.10");
  EXPECT_EQ(sim_->CommandCount(0x13), 1u);
  m_->GetLidarModuleInfo(0);  // the page that shows it
  change("127.0.0.11");
  EXPECT_EQ(sim_->CommandCount(0x13), 2u);
  // Another connection may reach another unit: asked again.
  m_->Stop();
  ASSERT_TRUE(sim_->SetValue("SN", "QT26J00418"));
  ASSERT_TRUE(Connect());
  change("127.0.0.12");
  EXPECT_EQ(sim_->CommandCount(0x13), 1u);
  std::string serials;
  for (const auto& line : quarn::journal::Read(quarn::journal::DefaultDirectory(), {}))
    serials += line["serial"].get<std::string>() + " ";
  EXPECT_EQ(serials, "QT26J00417 QT26J00417 QT26J00417 QT26J00418 ");
}

TEST_F(ManagerWriting, AFieldTheReplyDoesNotReachFailsTheWriteBeforeAnythingIsSent) {
  // The sensor's firmware answers 0x02 without the last field the program's table knows.
  const std::string sensor_table = vktest::kTableHeader +
                                   "0,Settings,Mixed,,,,,,,,,,,,,,,\n"
                                   "1,1,0x02,0x25,0,Code,1,MAC,00:0E:C6:01:02:03,,,,,1_1_1_1,6,0,,\n"
                                   "1,2,0x02,0x25,1,Scale,1,uint16,1.00,,,0.1,,1_1_2_1,2,0,0.01,\n"
                                   "1,3,0x02,0x25,2,Level,1,uint8,3,,,,,1_1_3_1,1,0,,\n";
  Load("Mixa", sensor_table);
  vktest::WriteTable(root_, "Mixa", sensor_table + "1,4,0x02,0x25,3,Extra,1,uint16,7,,,,,1_1_4_1,2,0,,\n");
  m_->InitConfigFileParser("Mixa");
  ASSERT_TRUE(Connect());
  Edit({0, 2}, "7");
  m_->Run(0);
  EXPECT_EQ(Error(), "Set Failed: could not read Extra from the reply to 0x02 before writing");
  EXPECT_EQ(sim_->CommandCount(0x25), 0u);
  EXPECT_EQ(m_->getSetMapSize(), 1);

  // With the sensor's own table: Code goes back as read, Scale (read and written with
  // different coefficients) through its text, Level as edited.
  vktest::WriteTable(root_, "Mixa", sensor_table);
  m_->InitConfigFileParser("Mixa");
  Edit({0, 2}, "7");
  m_->setErrorMsg("");
  m_->Run(0);
  EXPECT_EQ(Error(), "");
  EXPECT_EQ(sim_->LastPayload(0x25), (std::vector<uint8_t>{0x00, 0x0E, 0xC6, 0x01, 0x02, 0x03, 0x00, 0x64, 0x07}));
}

TEST_F(ManagerWriting, AValueNarrowerThanItsFieldKeepsTheLeadingBytesZero) {
  // A table may give a one-byte type a wider field; the value is big-endian in it.
  ConfigParser table;
  table.LoadText(vktest::kTableHeader +
                     "1,1,0x02,0x25,0,Wide,1,uint8,5,,,,,,2,0,,\n"
                     "1,2,0x02,0x25,1,Next,1,uint8,7,,,,,,1,0,,\n",
                 "Wide");
  struct EveryFieldEdited : varkel::TableHost {
    std::string Value(const VarInfo& var) override { return var.current_val; }
    bool Edited(const VarInfo&) override { return true; }
    void StoreRead(VarInfo&, const std::string&) override {}
    std::array<float, quarn::lidar::kFovRanges> FovValues() override { return {}; }
  } host;
  EXPECT_EQ(varkel::PrepareSet(host, table, "0x25", {}).payload, (std::vector<uint8_t>{0x00, 0x05, 0x07}));
}
