// Connecting and disconnecting by each connection type against the virtual lidar, the
// failures the user is told about, and ending cleanly while work is under way.

#include <QFile>
#include <QSignalSpy>

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <memory>

#include "manager_test_support.h"
#include "virtual_lidar.h"

using varkel::sim::SimOptions;
using varkel::sim::VirtualLidar;
using vktest::SignalLog;
using vktest::TestManager;

namespace {

const char kNetworkFailure[] = "Connection Failed. Please check your network settings.";

class ManagerConnection : public ::testing::Test {
 protected:
  void SetUp() override {
    vktest::EnsureApp();
    root_ = vktest::MakeInstallRoot();
    for (const char* model : {"Testa", "Zelto", "Zelto-KTC"}) vktest::WriteTable(root_, model, vktest::TestaTable());
  }

  std::unique_ptr<VirtualLidar> StartSim(const std::string& model, bool serial = false) {
    SimOptions options;
    options.model = model;
    options.config_dir = root_ + "/Config/varID";
    options.port = 0;
    options.serial = serial;
    options.live_values = false;
    auto sim = std::make_unique<VirtualLidar>(options);
    std::string error;
    EXPECT_TRUE(sim->Start(&error)) << error;
    return sim;
  }

  // Points the controller at the simulator's KTC port.
  static void Aim(VarkelManager& m, const VirtualLidar& sim) {
    m.setProperty("ip_address", "127.0.0.1");
    m.setProperty("port", QString::number(sim.port()));
  }

  static bool WaitConnected(SignalLog& log, VarkelManager& m) {
    return log.Wait([&] { return m.getIsConnected() && !m.GetIsConnectingLidar() && log.Count("isConnectedChanged"); });
  }

  static bool WaitAttemptOver(SignalLog& log, VarkelManager& m) {
    return log.Wait([&] { return log.Count("errorMessageChanged") > 0 && !m.GetIsConnectingLidar(); });
  }

  std::string root_;
};

// A loopback port nobody listens on.
uint16_t ClosedPort() {
  int fd = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr);
  socklen_t len = sizeof addr;
  getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len);
  close(fd);
  return ntohs(addr.sin_port);
}

}  // namespace

TEST_F(ManagerConnection, NetworkConnectProbeAndStop) {
  auto sim = StartSim("Testa");
  TestManager m;
  m.InitConfigFileParser("Testa");
  Aim(m, *sim);
  SignalLog log(&m);
  ASSERT_TRUE(m.ConnectLidar());
  ASSERT_TRUE(WaitConnected(log, m));
  EXPECT_TRUE(log.HasLog("INFO", "Lidar connected"));
  const auto names = log.Names();
  const auto map_at = std::find(names.begin(), names.end(), "myMapChanged");
  const auto connected_at = std::find(names.begin(), names.end(), "isConnectedChanged");
  EXPECT_LT(map_at, connected_at);
  EXPECT_EQ(sim->CommandCount(7), 1u);
  EXPECT_EQ(sim->CommandCount(8), 0u);  // 7 answered

  EXPECT_TRUE(m.CheckLidarConnection());
  EXPECT_EQ(sim->CommandCount(7), 2u);

  m.GetLidarModuleInfo(0);
  ASSERT_FALSE(sim->Value("SN").empty());
  EXPECT_EQ(m.getLidarSN().toStdString(), sim->Value("SN"));

  // Stop on the UI thread: signals in order, stale serial number hidden, client gone.
  std::vector<std::string> order;
  QObject::connect(&m, &VarkelManager::isConnectedChanged, [&] { order.push_back("isConnectedChanged"); });
  QObject::connect(&m, &VarkelManager::myMapChanged, [&] { order.push_back("myMapChanged"); });
  QObject::connect(&m, &VarkelManager::sendLogMessage,
                   [&](QString msg, QString) { order.push_back(msg.toStdString()); });
  m.Stop();
  EXPECT_EQ(order, (std::vector<std::string>{"isConnectedChanged", "myMapChanged", "Lidar disconnected"}));
  EXPECT_FALSE(m.getIsConnected());
  EXPECT_EQ(m.getLidarSN(), "xxxxxxxx");
  sim->ResetCounters();
  EXPECT_FALSE(m.CheckLidarConnection());
  EXPECT_EQ(sim->CommandCount(7) + sim->CommandCount(8), 0u);
}

TEST_F(ManagerConnection, ALidarAnsweringOnlyCommand8IsConnected) {
  auto sim = StartSim("Testa");
  sim->SetSilent(7, true);
  TestManager m;
  m.InitConfigFileParser("Testa");
  Aim(m, *sim);
  SignalLog log(&m);
  m.SetLogBytesFlowStatus(true);
  ASSERT_TRUE(m.ConnectLidar());
  ASSERT_TRUE(WaitConnected(log, m));
  EXPECT_EQ(sim->CommandCount(7), 1u);
  EXPECT_EQ(sim->CommandCount(8), 1u);
  // The probe leaves no byte log, and the flag is back afterwards.
  for (const std::string& line : log.LogLines()) EXPECT_EQ(line.rfind("BYTES", 0), std::string::npos) << line;
  ASSERT_TRUE(m.UpdateSingleVarInfo("SN"));
  log.Flush();
  bool send = false, recv = false;
  for (const std::string& line : log.LogLines()) {
    send = send || line.rfind("BYTES: SEND: 47 74 ", 0) == 0;
    recv = recv || line.rfind("BYTES: RECV: ", 0) == 0;
  }
  EXPECT_TRUE(send && recv);
}

TEST_F(ManagerConnection, ALidarAnsweringNothingFailsAndBlocksASecondAttempt) {
  auto sim = StartSim("Testa");
  sim->SetSilent(7, true);
  sim->SetSilent(8, true);
  TestManager m;
  Aim(m, *sim);
  SignalLog log(&m);
  testing::internal::CaptureStdout();
  ASSERT_TRUE(m.ConnectLidar());
  ASSERT_TRUE(log.Wait([&] { return m.GetIsConnectingLidar(); }));
  QFile::remove(VarkelManager::SettingsFilePath());
  EXPECT_FALSE(m.ConnectLidar());  // an attempt runs: refused, nothing written
  EXPECT_FALSE(QFile::exists(VarkelManager::SettingsFilePath()));

  ASSERT_TRUE(WaitAttemptOver(log, m));
  const std::string out = testing::internal::GetCapturedStdout();
  EXPECT_EQ(m.getErrorMessage(), kNetworkFailure);
  EXPECT_TRUE(log.HasLog("ERROR", "Connection Error: Lidar has No KTC reply."));
  EXPECT_NE(out.find("VarkelManager::Init(): try to connect to lidar with TCP connection.\n"), std::string::npos);
  EXPECT_NE(out.find("DEBUG: heckLidarConnection() == false\n"), std::string::npos);
  EXPECT_NE(out.find("VarkelManager::Init(): init lidar error\n"), std::string::npos);
  EXPECT_FALSE(m.getIsConnected());
  EXPECT_EQ(log.Count("isConnectedChanged"), 0);
}

TEST_F(ManagerConnection, ClosedAndNonNumericPortsFail) {
  TestManager m;
  SignalLog log(&m);
  m.setProperty("ip_address", "127.0.0.1");
  m.setProperty("port", QString::number(ClosedPort()));
  ASSERT_TRUE(m.ConnectLidar());
  ASSERT_TRUE(WaitAttemptOver(log, m));
  EXPECT_TRUE(log.HasLog("ERROR", "Connection Error: TCP connection failed."));
  EXPECT_EQ(m.getErrorMessage(), kNetworkFailure);

  log.Clear();
  m.setErrorMsg("");
  m.setProperty("port", "ktc");
  ASSERT_TRUE(m.ConnectLidar());
  ASSERT_TRUE(WaitAttemptOver(log, m));
  EXPECT_TRUE(log.HasLog("ERROR", "Connection Error: invalid stoi argument"));
  EXPECT_EQ(m.getErrorMessage(), kNetworkFailure);
  EXPECT_FALSE(m.getIsConnected());
}

TEST_F(ManagerConnection, KtcToASmallSensorSendsTheBaudRateWithoutProbe) {
  auto sim = StartSim("Zelto-KTC");
  TestManager m;
  m.InitConfigFileParser("Zelto-KTC");
  ASSERT_EQ(m.getConnectType(), 2);
  Aim(m, *sim);
  m.setProperty("baud_rate", "3125000");
  SignalLog log(&m);
  ASSERT_TRUE(m.ConnectLidar());
  ASSERT_TRUE(WaitConnected(log, m));
  EXPECT_EQ(sim->CommandCount(7) + sim->CommandCount(8), 0u);
  EXPECT_EQ(sim->CommandCount(0xFF), 1u);
  EXPECT_EQ(sim->LastPayload(0xFF), (std::vector<uint8_t>{0x00, 0x01, 0x39, 0x00, 0x2F, 0xAF, 0x08}));
  EXPECT_EQ(log.Count("myMapChanged"), 0);

  std::vector<std::string> order;
  QObject::connect(&m, &VarkelManager::isConnectedChanged, [&] { order.push_back("isConnectedChanged"); });
  QObject::connect(&m, &VarkelManager::zeltoLidarInfoChanged, [&] { order.push_back("zeltoLidarInfoChanged"); });
  QObject::connect(&m, &VarkelManager::sendLogMessage,
                   [&](QString msg, QString) { order.push_back(msg.toStdString()); });
  m.Stop();
  EXPECT_EQ(order, (std::vector<std::string>{"isConnectedChanged", "zeltoLidarInfoChanged", "Lidar disconnected"}));
  EXPECT_FALSE(m.getIsConnected());
  EXPECT_EQ(m.getLidarSN(), "xxxxxxxx");
  EXPECT_FALSE(m.CheckLidarConnection());
}

TEST_F(ManagerConnection, SerialLinesOverPseudoTerminals) {
  auto sim = StartSim("Zelto", true);
  ASSERT_FALSE(sim->command_port_path().empty());
  TestManager m;
  m.InitConfigFileParser("Zelto");
  ASSERT_EQ(m.getConnectType(), 1);
  SignalLog log(&m);

  m.setProperty("serial_port_485", QString::fromStdString(root_ + "/no-such-485"));
  m.setProperty("serial_port_232", QString::fromStdString(sim->command_port_path()));
  ASSERT_TRUE(m.ConnectLidar());
  ASSERT_TRUE(WaitAttemptOver(log, m));
  EXPECT_EQ(m.getErrorMessage(), "Connection Failed. Please check your RS485 serial port.");
  EXPECT_TRUE(log.HasLog("ERROR", "Connection Error: RS485 serial open fail"));

  log.Clear();
  m.setProperty("serial_port_485", QString::fromStdString(sim->data_port_path()));
  m.setProperty("serial_port_232", QString::fromStdString(root_ + "/no-such-232"));
  ASSERT_TRUE(m.ConnectLidar());
  ASSERT_TRUE(WaitAttemptOver(log, m));
  EXPECT_EQ(m.getErrorMessage(), "Connection Failed. Please check your UART serial port.");
  EXPECT_TRUE(log.HasLog("ERROR", "Connection Error: UART serial open fail"));

  log.Clear();
  m.setProperty("serial_port_232", QString::fromStdString(sim->command_port_path()));
  ASSERT_TRUE(m.ConnectLidar());
  ASSERT_TRUE(WaitConnected(log, m));
  EXPECT_TRUE(log.HasLog("INFO", "Lidar connected"));
  EXPECT_FALSE(m.CheckLidarConnection());  // no KTC client on serial lines

  std::vector<std::string> order;
  QObject::connect(&m, &VarkelManager::isConnectedChanged, [&] { order.push_back("isConnectedChanged"); });
  QObject::connect(&m, &VarkelManager::zeltoLidarInfoChanged, [&] { order.push_back("zeltoLidarInfoChanged"); });
  m.Stop();
  EXPECT_EQ(order, (std::vector<std::string>{"isConnectedChanged", "zeltoLidarInfoChanged"}));
  EXPECT_FALSE(m.getIsConnected());

  // The lines are free again: a second connection opens them.
  log.Clear();
  ASSERT_TRUE(m.ConnectLidar());
  ASSERT_TRUE(WaitConnected(log, m));
  m.Stop();
}

TEST_F(ManagerConnection, DestroyingTheControllerEndsItsWorkCleanly) {
  auto sim = StartSim("Testa");
  {
    auto m = std::make_unique<TestManager>();
    m->InitConfigFileParser("Testa");
    m->setModuleIndexUse(1);  // the refresh thread has work to do
    Aim(*m, *sim);
    SignalLog log(m.get());
    ASSERT_TRUE(m->ConnectLidar());
    ASSERT_TRUE(WaitConnected(log, *m));
    ASSERT_TRUE(log.WaitFor("myTimerMapChanged"));
    m.reset();  // joins the refresh thread while it reads
  }
  {
    // Destroyed in the middle of a connect attempt: the worker finishes, starts nothing.
    sim->SetFailure(varkel::sim::FailureMode::kDelay, 7, 1500);
    auto m = std::make_unique<TestManager>();
    Aim(*m, *sim);
    SignalLog log(m.get());
    ASSERT_TRUE(m->ConnectLidar());
    ASSERT_TRUE(log.Wait([&] { return m->GetIsConnectingLidar(); }));
    m.reset();
  }
}

TEST_F(ManagerConnection, ConfigFileRequestReportsItsResultInverted) {
  // A table with command 0x74 makes the simulator answer it with code 0.
  vktest::WriteTable(root_, "Cfg", vktest::TestaTable() + "8,1,0x74,,,Config File,0,raw,,,,,,1_1_4_6,0,0,,\n");
  auto sim = StartSim("Cfg");
  for (bool refused : {false, true}) {
    if (refused) sim->SetFailure(varkel::sim::FailureMode::kReturnCode, 0x74, 3);
    sim->ResetCounters();
    auto m = std::make_unique<TestManager>();
    m->InitConfigFileParser("Cfg");
    Aim(*m, *sim);
    SignalLog log(m.get());
    ASSERT_TRUE(m->ConnectLidar());
    ASSERT_TRUE(WaitConnected(log, *m));
    testing::internal::CaptureStdout();
    m->StartGetConfigFile();
    m.reset();  // waits for the request
    const std::string out = testing::internal::GetCapturedStdout();
    EXPECT_EQ(sim->CommandCount(0x74), 1u);
    EXPECT_EQ(sim->LastPayload(0x74), std::vector<uint8_t>{});
    // 0 is success, yet the texts say the opposite; kept so on purpose.
    const char* expected = refused ? "[SUCCESS]: Get config file from lidar success! \n"
                                   : "[FAILED]: Get config file from lidar failed! \n";
    EXPECT_NE(out.find(expected), std::string::npos) << out;
  }
}
