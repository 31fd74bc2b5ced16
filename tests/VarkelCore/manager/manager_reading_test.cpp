// Reading variables against the virtual lidar: one query per command group, the refresh
// of timer-marked values on the shown page only, every conversion type end to end, and
// the faults that leave a value alone.

#include <QtGlobal>

#include <gtest/gtest.h>

#include <memory>
#include <mutex>

#include "logger.h"
#include "manager_test_support.h"
#include "var_info.h"
#include "virtual_lidar.h"

using varkel::sim::SimOptions;
using varkel::sim::VirtualLidar;
using vktest::SignalLog;
using vktest::TestManager;

namespace {

class ManagerReading : public ::testing::Test {
 protected:
  void SetUp() override {
    vktest::EnsureApp();
    root_ = vktest::MakeInstallRoot();
    vktest::WriteTable(root_, "Testa", vktest::TestaTable());
  }

  void Connect() {
    SimOptions options;
    options.model = "Testa";
    options.config_dir = root_ + "/Config/varID";
    options.port = 0;
    options.live_values = false;
    sim_ = std::make_unique<VirtualLidar>(options);
    std::string error;
    ASSERT_TRUE(sim_->Start(&error)) << error;
    m_ = std::make_unique<TestManager>();
    m_->InitConfigFileParser("Testa");
    m_->setProperty("ip_address", "127.0.0.1");
    m_->setProperty("port", QString::number(sim_->port()));
    log_ = std::make_unique<SignalLog>(m_.get());
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

  // The text the page shows for the variable at page, group, row.
  std::string Shown(int page, int group, int row) {
    return m_->getMyMap()[page].toList()[group].toList()[row].toMap()["current_val"].toString().toStdString();
  }

  std::string root_;
  std::unique_ptr<VirtualLidar> sim_;
  std::unique_ptr<TestManager> m_;
  std::unique_ptr<SignalLog> log_;
};

// Collects the error-level records of the logging facade.
class ErrorRecords {
 public:
  ErrorRecords() {
    id_ = Logger::GetInstance().AddObserver([this](const LogRecord& r) {
      std::lock_guard<std::mutex> lock(mu_);
      if (r.level == kLogError) records_.push_back(r);
    });
  }
  ~ErrorRecords() { Logger::GetInstance().RemoveObserver(id_); }
  std::vector<LogRecord> Take() {
    Logger::GetInstance().Flush();
    std::lock_guard<std::mutex> lock(mu_);
    return records_;
  }

 private:
  int id_;
  std::mutex mu_;
  std::vector<LogRecord> records_;
};

std::vector<std::string>* g_debug_lines = nullptr;
void CaptureDebug(QtMsgType, const QMessageLogContext&, const QString& msg) {
  if (g_debug_lines) g_debug_lines->push_back(msg.toStdString());
}

}  // namespace

TEST_F(ManagerReading, APageIsReadWithOneQueryPerCommandAndPayload) {
  Connect();
  m_->GetLidarModuleInfo(0);
  EXPECT_EQ(sim_->CommandCount(0x01), 1u);  // SN, PN and both versions in one reply
  EXPECT_EQ(sim_->CommandCount(0x02), 1u);
  EXPECT_EQ(sim_->CommandCount(0x05), 2u);  // one per get payload
  EXPECT_EQ(sim_->CommandCount(0x06), 1u);
  EXPECT_EQ(sim_->CommandCount(0x09), 1u);
  EXPECT_EQ(sim_->CommandCount(0x03), 0u);  // the other page
  log_->Flush();
  EXPECT_EQ(log_->Count("myMapChanged"), 1);

  for (const char* name : {"SN", "PN", "Hardware Version", "Software Version", "IP Address", "MAC Address", "Port",
                           "Mode", "Level", "Enable", "Threshold"}) {
    VarInfo* var = m_->searchVarPtr(name, "var_name");
    ASSERT_NE(var, nullptr) << name;
    EXPECT_EQ(var->current_val, sim_->Value(name)) << name;
  }

  sim_->ResetCounters();
  m_->GetLidarModuleInfo(1);
  EXPECT_EQ(sim_->CommandCount(0x03), 1u);
  EXPECT_EQ(sim_->ExtendedCount(0x1A05), 1u);  // extended: 0xFF with the code ahead
  EXPECT_EQ(sim_->CommandCount(0xFF), 1u);
  for (const char* name : {"Temperature", "Run Time", "Voltage", "Counter", "Ratio"})
    EXPECT_EQ(m_->searchVarPtr(name, "var_name")->current_val, sim_->Value(name)) << name;
}

TEST_F(ManagerReading, GuardsStopAPageReadSilently) {
  Connect();
  m_->GetLidarModuleInfo(2);  // no such page
  m_->GetLidarModuleInfo(-1);
  m_->setIsDownloadLog(true);
  m_->GetLidarModuleInfo(0);
  m_->setIsDownloadLog(false);
  m_->Stop();
  m_->GetLidarModuleInfo(0);
  EXPECT_EQ(sim_->CommandCount(0x01) + sim_->CommandCount(0x02), 0u);
  log_->Flush();
  EXPECT_EQ(log_->Count("errorMessageChanged"), 0);
}

TEST_F(ManagerReading, EveryTypeReachesThePageAsText) {
  Connect();
  ASSERT_TRUE(sim_->SetValue("SN", "VK123456"));
  ASSERT_TRUE(sim_->SetValue("Hardware Version", "2.1.0 (REV-C)"));
  ASSERT_TRUE(sim_->SetValue("Software Version", "1.4.2 (2026-03-18)"));
  ASSERT_TRUE(sim_->SetValue("IP Address", "192.168.1.201"));
  ASSERT_TRUE(sim_->SetValue("MAC Address", "00:010:1A:FF:05:A0"));
  ASSERT_TRUE(sim_->SetValue("Port", "258"));
  ASSERT_TRUE(sim_->SetValue("Temperature", "-20.00"));
  ASSERT_TRUE(sim_->SetValue("Run Time", "1 h 0 min 1 s"));
  ASSERT_TRUE(sim_->SetValue("Voltage", "12.50"));
  ASSERT_TRUE(sim_->SetValue("Counter", "4000000000"));
  ASSERT_TRUE(sim_->SetValue("Ratio", "-0.25"));
  m_->GetLidarModuleInfo(0);
  m_->GetLidarModuleInfo(1);
  EXPECT_EQ(Shown(0, 0, 0), "VK123456");
  EXPECT_EQ(Shown(0, 0, 2), "2.1.0 (REV-C)");
  EXPECT_EQ(Shown(0, 0, 3), "1.4.2 (2026-03-18)");
  EXPECT_EQ(Shown(0, 1, 0), "192.168.1.201");
  EXPECT_EQ(Shown(0, 1, 1), "00:010:1A:FF:05:A0");
  EXPECT_EQ(Shown(0, 1, 2), "258");
  EXPECT_EQ(Shown(1, 0, 0), "-20.00");  // int16 with coefficient 0.1
  EXPECT_EQ(Shown(1, 0, 1), "1 h 0 min 1 s");
  EXPECT_EQ(Shown(1, 0, 2), "12.50");
  EXPECT_EQ(Shown(1, 0, 3), "4000000000");  // behind the four code bytes
  EXPECT_EQ(Shown(1, 0, 4), "-0.25");
  EXPECT_EQ(m_->getLidarSN(), "VK123456");
}

TEST_F(ManagerReading, RefreshReadsTimerMarkedValuesOfTheShownPageOnly) {
  Connect();
  m_->GetLidarModuleInfo(1);
  const std::string voltage = Shown(1, 0, 2);

  // Page 0 has no timer-marked variables: rounds send nothing and announce nothing.
  log_->Wait([] { return false; }, std::chrono::milliseconds(400));
  EXPECT_EQ(log_->Count("myTimerMapChanged"), 0);
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
  EXPECT_EQ(sim_->CommandCount(0x03), after_stop);
}

TEST_F(ManagerReading, AFailedQueryKeepsTheOldTextsAndSaysSo) {
  Connect();
  m_->GetLidarModuleInfo(0);
  const std::string ip = Shown(0, 1, 0);
  ASSERT_TRUE(sim_->SetValue("IP Address", "10.9.8.7"));
  ASSERT_TRUE(sim_->SetValue("SN", "NEWSN001"));
  sim_->SetFailure(varkel::sim::FailureMode::kReturnCode, 0x02, 5);

  std::vector<std::string> lines;
  g_debug_lines = &lines;
  QtMessageHandler previous = qInstallMessageHandler(CaptureDebug);
  m_->GetLidarModuleInfo(0);
  qInstallMessageHandler(previous);
  g_debug_lines = nullptr;

  EXPECT_EQ(Shown(0, 1, 0), ip);
  EXPECT_EQ(Shown(0, 0, 0), "NEWSN001");  // other groups still read
  const std::string expected =
      "VarkelManager::GetInfoFromLidarWithSameCmd(): try get IP Address FAILED, cmd sent = 0x02 -- QueryCommand()'s "
      "ret "
      "= -1";
  EXPECT_NE(std::find(lines.begin(), lines.end(), expected), lines.end());

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
  TestManager m;
  SignalLog log(&m);
  m.InitConfigFileParser("Faulty");
  VarInfo* ip = m.searchVarPtr("IP Address", "var_name");
  VarInfo* mac = m.searchVarPtr("MAC Address", "var_name");
  VarInfo* level = m.searchVarPtr("Level", "var_name");
  ASSERT_TRUE(ip && mac && level);
  std::vector<uint8_t> slice;
  const std::vector<uint8_t> reply{10, 0, 0, 1, 1, 2, 3, 4, 5, 0x23, 0x28};

  ErrorRecords errors;
  EXPECT_TRUE(m.updateSingleVarFromOutput(ip, "0x02", reply, slice, false));
  EXPECT_EQ(ip->current_val, "10.0.0.1");
  EXPECT_FALSE(m.updateSingleVarFromOutput(mac, "0x02", reply, slice, false));
  EXPECT_EQ(mac->current_val, "");
  EXPECT_FALSE(m.updateSingleVarFromOutput(level, "0x05", {0, 7}, slice, false));  // Level lies behind Mode
  const auto records = errors.Take();
  ASSERT_EQ(records.size(), 2u);
  EXPECT_EQ(records[0].message, "MAC address size is less than 6, please check your config file");
  EXPECT_NE(records[0].function.find("VarkelManager::updateSingleVarFromOutput"), std::string::npos);
  EXPECT_EQ(records[0].file.rfind("varkel_manager", 0), 0u) << records[0].file;
  EXPECT_EQ(records[1].message, "var_type not support: int9");

  // A reply too short for the field, and a command the table does not know.
  EXPECT_FALSE(m.updateSingleVarFromOutput(ip, "0x02", {1, 2, 3}, slice, false));
  EXPECT_FALSE(m.updateSingleVarFromOutput(ip, "0x77", reply, slice, false));
  EXPECT_EQ(ip->current_val, "10.0.0.1");
  // In refresh rounds a variable's fault reaches the log pane once.
  EXPECT_FALSE(m.updateSingleVarFromOutput(ip, "0x02", {1, 2, 3}, slice, true));
  EXPECT_FALSE(m.updateSingleVarFromOutput(ip, "0x02", {1, 2, 3}, slice, true));
  log.Flush();
  int short_reply = 0;
  for (const std::string& line : log.LogLines()) short_reply += line == "ERROR: get var pos offset failed!";
  EXPECT_EQ(short_reply, 2);
  EXPECT_TRUE(log.HasLog("ERROR", "get <start_pos, offset> failed!"));

  try {
    m.updateSingleVarFromOutput(ip, "0x02", {}, slice, false);
    FAIL();
  } catch (const std::invalid_argument& e) {
    EXPECT_STREQ(e.what(), "VarkelManager::updateSingleVarFromOutput(): Error with the input 'output'");
  }
  try {
    m.GetInfoFromLidarWithSameCmd({}, false);
    FAIL();
  } catch (const std::invalid_argument& e) {
    EXPECT_STREQ(e.what(), "VarkelManager::GetInfoFromLidarWithSameCmd(): ERROR with the input v_p_vars -- size == 0");
  }
  try {
    m.GetInfoFromLidarWithSameCmd({ip, level}, false);
    FAIL();
  } catch (const std::invalid_argument& e) {
    EXPECT_STREQ(
        e.what(),
        "VarkelManager::GetInfoFromLidarWithSameCmd(): ERROR with the input v_p_vars -- They must use the same "
        "get cmd.");
  }
}

TEST_F(ManagerReading, SwitchingModelWhileRefreshingKeepsTheConnection) {
  Connect();
  m_->setModuleIndexUse(1);
  ASSERT_TRUE(log_->WaitFor("myTimerMapChanged"));
  // The old table goes while a round may hold its records; the new one refreshes on.
  for (int i = 0; i < 5; ++i) m_->InitConfigFileParser("Testa");
  EXPECT_TRUE(m_->getIsConnected());
  ASSERT_TRUE(sim_->SetValue("Temperature", "41.50"));
  ASSERT_TRUE(log_->Wait([&] { return Shown(1, 0, 0) == "41.50"; }));
  m_->Stop();
}
