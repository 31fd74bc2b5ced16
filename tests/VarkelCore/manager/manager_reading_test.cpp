// Reading variables against the virtual lidar: one query per command group, the refresh
// of timer-marked values on the shown page only, every conversion type end to end, and
// the faults that leave a value alone.

#include <QDateTime>
#include <QtGlobal>

#include <gtest/gtest.h>

#include <algorithm>

#include "log_capture.h"
#include "logger.h"
#include "manager_test_support.h"

namespace {

class ManagerReading : public vktest::ManagerTest {
 protected:
  void SetUp() override {
    ManagerTest::SetUp();
    Load("Testa", vktest::TestaTable());
  }
};

std::vector<std::string> g_debug_lines;
void CaptureDebug(QtMsgType, const QMessageLogContext&, const QString& msg) {
  g_debug_lines.push_back(msg.toStdString());
}

}  // namespace

TEST_F(ManagerReading, APageIsReadWithOneQueryPerCommandAndPayload) {
  ASSERT_TRUE(Connect());
  // No such page: nothing is sent, nobody is told.
  m_->GetLidarModuleInfo(2);
  m_->GetLidarModuleInfo(-1);
  EXPECT_EQ(sim_->CommandCount(0x01) + sim_->CommandCount(0x02), 0u);
  m_->GetLidarModuleInfo(0);
  EXPECT_EQ(sim_->CommandCount(0x01), 1u);  // SN, PN and both versions in one reply
  EXPECT_EQ(sim_->CommandCount(0x02), 1u);
  EXPECT_EQ(sim_->CommandCount(0x05), 2u);  // one per get payload
  EXPECT_EQ(sim_->CommandCount(0x06), 1u);
  EXPECT_EQ(sim_->CommandCount(0x09), 1u);
  EXPECT_EQ(sim_->CommandCount(0x03), 0u);  // the other page
  log_->Flush();
  EXPECT_EQ(log_->Trace(), (std::vector<std::string>{"myMapChanged"}));
  for (const char* name : {"SN", "PN", "Hardware Version", "Software Version", "IP Address", "MAC Address", "Port",
                           "Mode", "Level", "Enable", "Threshold"})
    EXPECT_EQ(Value(name), sim_->Value(name)) << name;

  sim_->ResetCounters();
  m_->GetLidarModuleInfo(1);
  EXPECT_EQ(sim_->CommandCount(0x03), 1u);
  EXPECT_EQ(sim_->ExtendedCount(0x1A05), 1u);  // extended: 0xFF with the code ahead
  EXPECT_EQ(sim_->CommandCount(0xFF), 1u);
}

TEST_F(ManagerReading, EveryTypeReachesThePageAsText) {
  ASSERT_TRUE(Connect());
  const struct {
    const char* name;
    int page, group, row;
    const char* text;
  } rows[] = {
      {"SN", 0, 0, 0, "VK123456"},
      {"Hardware Version", 0, 0, 2, "2.1.0 (REV-C)"},
      {"Software Version", 0, 0, 3, "1.4.2 (2026-03-18)"},
      {"IP Address", 0, 1, 0, "192.168.1.201"},
      {"MAC Address", 0, 1, 1, "00:010:1A:FF:05:A0"},
      {"Port", 0, 1, 2, "258"},
      {"Temperature", 1, 0, 0, "-20.00"},  // int16 with coefficient 0.1
      {"Run Time", 1, 0, 1, "1 h 0 min 1 s"},
      {"Voltage", 1, 0, 2, "12.50"},
      {"Counter", 1, 0, 3, "4000000000"},  // behind the four code bytes
      {"Ratio", 1, 0, 4, "-0.25"},
  };
  for (const auto& r : rows) ASSERT_TRUE(sim_->SetValue(r.name, r.text)) << r.name;
  m_->GetLidarModuleInfo(0);
  m_->GetLidarModuleInfo(1);
  for (const auto& r : rows) EXPECT_EQ(Shown(r.page, r.group, r.row), r.text) << r.name;
  EXPECT_EQ(m_->getLidarSN(), "VK123456");
}

TEST_F(ManagerReading, RefreshReadsTimerMarkedValuesOfTheShownPageOnly) {
  ASSERT_TRUE(Connect());
  m_->GetLidarModuleInfo(1);
  const std::string voltage = Shown(1, 0, 2);

  // Page 0 has no timer-marked variables: rounds send nothing and announce nothing.
  log_->Wait([] { return false; }, std::chrono::milliseconds(400));
  EXPECT_FALSE(log_->Has("myTimerMapChanged"));
  EXPECT_EQ(sim_->CommandCount(0x01) + sim_->CommandCount(0x03), 1u);  // the one page read above

  ASSERT_TRUE(sim_->SetValue("Temperature", "30.00"));
  ASSERT_TRUE(sim_->SetValue("Counter", "77"));
  ASSERT_TRUE(sim_->SetValue("Voltage", "3.00"));
  m_->setModuleIndexUse(1);
  ASSERT_TRUE(log_->Wait([&] { return Shown(1, 0, 0) == "30.00" && Shown(1, 0, 3) == "77"; }));
  ASSERT_TRUE(log_->Wait([&] { return log_->Count("myTimerMapChanged") >= 3; }));
  EXPECT_EQ(Shown(1, 0, 2), voltage);  // not timer-marked: untouched
  EXPECT_EQ(sim_->CommandCount(0x01), 0u);
  // Both groups every round, never one query per variable.
  const uint64_t rounds = sim_->ExtendedCount(0x1A05);
  EXPECT_GE(rounds, 3u);
  EXPECT_LE(sim_->CommandCount(0x03), rounds + 1);

  m_->setModuleIndexUse(0);
  m_->Stop();
  const uint64_t after_stop = sim_->CommandCount(0x03);
  log_->Wait([] { return false; }, std::chrono::milliseconds(300));
  m_->GetLidarModuleInfo(1);  // disconnected: a page read sends nothing either
  EXPECT_EQ(sim_->CommandCount(0x03), after_stop);
}

TEST_F(ManagerReading, AValueCountsAsReadOnlyOverTheConnectionThatReadIt) {
  auto note = [&](int page, int group, int row) {
    return m_->getMyMap()[page].toList()[group].toList()[row].toMap()["read_note"].toString().toStdString();
  };
  const std::string unread = "not read from the sensor";
  EXPECT_EQ(note(0, 1, 0), unread);  // the table's default
  ASSERT_TRUE(Connect());
  EXPECT_EQ(note(0, 1, 0), unread);
  const QDateTime before = QDateTime::currentDateTime().addSecs(-1);
  m_->GetLidarModuleInfo(0);
  const QDateTime after = QDateTime::currentDateTime().addSecs(1);
  ASSERT_TRUE(sim_->SetValue("IP Address", "10.9.8.7"));
  EXPECT_EQ(note(0, 1, 0), "");
  EXPECT_EQ(note(0, 0, 0), "");
  EXPECT_EQ(note(1, 0, 2), unread);  // the other page

  // Disconnected: the last values stay, each with the time it was read; the serial number
  // is never kept, so it was not read either.
  const std::string ip = Shown(0, 1, 0);
  m_->Stop();
  EXPECT_EQ(Shown(0, 1, 0), ip);
  const std::string stale = note(0, 1, 0);
  const std::string prefix = "last read from the sensor at ";
  ASSERT_EQ(stale.rfind(prefix, 0), 0u) << stale;
  const QTime at = QTime::fromString(QString::fromStdString(stale.substr(prefix.size())), "HH:mm:ss");
  ASSERT_TRUE(at.isValid()) << stale;
  EXPECT_TRUE(at >= before.time() && at <= after.time()) << stale;
  EXPECT_EQ(Shown(0, 0, 0), "xxxxxxxx");
  EXPECT_EQ(note(0, 0, 0), unread);

  // A new connection starts with nothing read; so does another table.
  ASSERT_TRUE(Connect());
  EXPECT_EQ(note(0, 1, 0), unread);
  m_->GetLidarModuleInfo(0);
  EXPECT_EQ(note(0, 1, 0), "");
  EXPECT_EQ(Shown(0, 1, 0), "10.9.8.7");
  m_->InitConfigFileParser("Testa");
  EXPECT_EQ(note(0, 1, 0), unread);
  m_->Stop();
}

TEST_F(ManagerReading, AFailedQueryKeepsTheOldTextsAndSaysSo) {
  ASSERT_TRUE(Connect());
  m_->GetLidarModuleInfo(0);
  const std::string ip = Shown(0, 1, 0);
  ASSERT_TRUE(sim_->SetValue("IP Address", "10.9.8.7"));
  ASSERT_TRUE(sim_->SetValue("SN", "NEWSN001"));
  sim_->SetFailure(varkel::sim::FailureMode::kReturnCode, 0x02, 5);
  g_debug_lines.clear();
  QtMessageHandler previous = qInstallMessageHandler(CaptureDebug);
  m_->GetLidarModuleInfo(0);
  qInstallMessageHandler(previous);

  EXPECT_EQ(Shown(0, 1, 0), ip);
  EXPECT_EQ(Shown(0, 0, 0), "NEWSN001");  // other groups still read
  const std::string expected =
      "VarkelManager::GetInfoFromLidarWithSameCmd(): try get IP Address FAILED, cmd sent = 0x02 -- QueryCommand()'s "
      "ret = -1";
  EXPECT_NE(std::find(g_debug_lines.begin(), g_debug_lines.end(), expected), g_debug_lines.end());

  EXPECT_TRUE(m_->UpdateSingleVarInfo("SN"));
  EXPECT_FALSE(m_->UpdateSingleVarInfo("IP Address"));
  EXPECT_FALSE(m_->UpdateSingleVarInfo("No Such Name"));
  EXPECT_FALSE(m_->UpdateSingleVarInfo("Restart"));  // nothing to read it with
}

TEST_F(ManagerReading, CuttingFaultsLeaveTheValue) {
  std::string table = vktest::TestaTable();
  table.replace(table.find("1_2_2_0,6"), 9, "1_2_2_0,5");
  table.replace(table.find("Level,0,uint8"), 13, "Level,0,int9");
  vktest::WriteTable(root_, "Faulty", table);
  m_->InitConfigFileParser("Faulty");
  VarInfo* ip = m_->searchVarPtr("IP Address", "var_name");
  VarInfo* mac = m_->searchVarPtr("MAC Address", "var_name");
  VarInfo* level = m_->searchVarPtr("Level", "var_name");
  ASSERT_TRUE(ip && mac && level);
  std::vector<uint8_t> slice;
  const std::vector<uint8_t> reply{10, 0, 0, 1, 1, 2, 3, 4, 5, 0x23, 0x28};

  vktest::LogCapture errors;  // the logging facade's records
  EXPECT_TRUE(m_->updateSingleVarFromOutput(ip, "0x02", reply, slice, false));
  EXPECT_EQ(ip->current_val, "10.0.0.1");
  EXPECT_FALSE(m_->updateSingleVarFromOutput(mac, "0x02", reply, slice, false));
  EXPECT_EQ(mac->current_val, "");
  EXPECT_FALSE(m_->updateSingleVarFromOutput(level, "0x05", {0, 7}, slice, false));  // Level lies behind Mode
  Logger::GetInstance().Flush();
  std::vector<LogRecord> records = errors.Records();
  records.erase(std::remove_if(records.begin(), records.end(), [](const LogRecord& r) { return r.level != kLogError; }),
                records.end());
  ASSERT_EQ(records.size(), 2u);
  EXPECT_EQ(records[0].message, "MAC address size is less than 6, please check your config file");
  EXPECT_NE(records[0].function.find("VarkelManager::updateSingleVarFromOutput"), std::string::npos);
  EXPECT_EQ(records[0].file.rfind("varkel_manager", 0), 0u) << records[0].file;
  EXPECT_EQ(records[1].message, "var_type not support: int9");

  // A reply too short for the field, and a command the table does not know.
  EXPECT_FALSE(m_->updateSingleVarFromOutput(ip, "0x02", {1, 2, 3}, slice, false));
  EXPECT_FALSE(m_->updateSingleVarFromOutput(ip, "0x77", reply, slice, false));
  EXPECT_EQ(ip->current_val, "10.0.0.1");
  // In refresh rounds a variable's fault reaches the log pane once.
  EXPECT_FALSE(m_->updateSingleVarFromOutput(ip, "0x02", {1, 2, 3}, slice, true));
  EXPECT_FALSE(m_->updateSingleVarFromOutput(ip, "0x02", {1, 2, 3}, slice, true));
  log_->Flush();
  EXPECT_EQ(log_->Count("ERROR: get var pos offset failed!"), 2);
  EXPECT_TRUE(log_->Has("ERROR: get <start_pos, offset> failed!"));

  EXPECT_EQ(vktest::WhatOf([&] { m_->updateSingleVarFromOutput(ip, "0x02", {}, slice, false); }),
            "VarkelManager::updateSingleVarFromOutput(): Error with the input 'output'");
  EXPECT_EQ(vktest::WhatOf([&] { m_->GetInfoFromLidarWithSameCmd({}, false); }),
            "VarkelManager::GetInfoFromLidarWithSameCmd(): ERROR with the input v_p_vars -- size == 0");
  EXPECT_EQ(vktest::WhatOf([&] {
              m_->GetInfoFromLidarWithSameCmd({ip, level}, false);
            }),
            "VarkelManager::GetInfoFromLidarWithSameCmd(): ERROR with the input v_p_vars -- They must use the same "
            "get cmd.");
}

TEST_F(ManagerReading, SwitchingModelWhileRefreshingKeepsTheConnection) {
  ASSERT_TRUE(Connect());
  m_->setModuleIndexUse(1);
  ASSERT_TRUE(log_->WaitFor("myTimerMapChanged"));
  // The old table goes while a round may hold its records; the new one refreshes on.
  for (int i = 0; i < 5; ++i) m_->InitConfigFileParser("Testa");
  EXPECT_TRUE(m_->getIsConnected());
  ASSERT_TRUE(sim_->SetValue("Temperature", "41.50"));
  ASSERT_TRUE(log_->Wait([&] { return Shown(1, 0, 0) == "41.50"; }));
  m_->Stop();
}
