// The small serial sensors' functions against the virtual lidar, over the serial lines
// (connection type 1) and over KTC (type 2). Request bytes are written out by hand.

#include <QDir>
#include <QFile>

#include <gtest/gtest.h>

#include <sys/resource.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "manager_test_support.h"
#include "param_name.h"

using Bytes = std::vector<uint8_t>;

namespace {

// Descriptors of this process that lead to `path`.
int OpenDescriptorsTo(const std::string& path) {
  std::error_code ec;
  const std::filesystem::path target = std::filesystem::canonical(path, ec);
  if (ec) return -1;
  int count = 0;
  for (const auto& fd : std::filesystem::directory_iterator("/proc/self/fd", ec))
    count += std::filesystem::read_symlink(fd.path(), ec) == target ? 1 : 0;
  return count;
}

QStringList Texts(const QVariantList& list) {
  return QVariant(list).toStringList();
}

class SmallSensorTest : public vktest::ManagerTest {
 protected:
  bool serial_ = false;

  void Open(const std::string& model, bool serial) {
    serial_ = serial;
    Load(model, vktest::TestaTable(), serial);
    ASSERT_EQ(m_->getConnectType(), serial ? 1 : 2);
  }

  bool ConnectSmall() { return ConnectSmallSensor(serial_); }

  // The last get (2) or set (3) request as the sensor received it, whichever link.
  Bytes Last(uint8_t type) { return serial_ ? sim_->LastSerialPayload(type) : sim_->LastPayload(type); }
  uint64_t Count(uint8_t type) { return serial_ ? sim_->SerialCommandCount(type) : sim_->CommandCount(type); }
};

class BothLinks : public SmallSensorTest, public ::testing::WithParamInterface<bool> {
 protected:
  void SetUp() override {
    SmallSensorTest::SetUp();
    Open(GetParam() ? "Zelto" : "Zelto-KTC", GetParam());
    ASSERT_TRUE(ConnectSmall());
    ASSERT_TRUE(SmallSensorInfoRead());
    log_->Clear();
  }
};

class SilentSensor : public SmallSensorTest, public ::testing::WithParamInterface<bool> {};

}  // namespace

// A sensor silent from the start: the disconnect (on the window's thread) cuts the
// exchange in flight short and the information thread asks nothing more, instead of
// waiting out its serial number and four version queries (up to 5 s each over KTC).
TEST_P(SilentSensor, StopDoesNotWaitOutTheInformationRound) {
  Open(GetParam() ? "Zelto" : "Zelto-KTC", GetParam());
  if (serial_)
    sim_->SetLinkLost(true);
  else
    sim_->SetFailure(varkel::sim::FailureMode::kNoReply, 2);  // every get request
  ASSERT_TRUE(ConnectSmall());
  // In flight: the serial number (KTC), the first version (serial: 1 s each, quickly there).
  ASSERT_TRUE(log_->Wait([&] { return Count(2) >= (serial_ ? 2u : 1u); }));
  const auto start = std::chrono::steady_clock::now();
  m_->Stop();
  // Far below one exchange's time-out (1 s serial, 5 s KTC) and a slow machine's slack.
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(serial_ ? 2 : 4));
  EXPECT_FALSE(m_->getIsConnected());
  const uint64_t asked = Count(2);
  log_->Flush();
  EXPECT_EQ(Count(2), asked);
  EXPECT_EQ(Texts(m_->getZeltoLidarInfo()), (QStringList{"xx.xx.xx.xx", "xxxxxxxx", "xxxxxxxx", "xxxxxxxx"}));

  // Connected to a sensor that stays silent, the round gives up after the first silent
  // version query: the line stays free for the user's requests.
  if (serial_) return;
  sim_->ResetCounters();
  ASSERT_TRUE(ConnectSmall());
  ASSERT_TRUE(log_->Wait([&] { return m_->getZeltoLidarVersionInfo().size() == 4; }, std::chrono::seconds(30)));
  EXPECT_EQ(Count(2), 2u);  // the serial number and the first version
  for (const QVariant& v : m_->getZeltoLidarVersionInfo()) EXPECT_EQ(v.toList()[1].toString(), "xxxxxxxx");
  m_->Stop();
}

INSTANTIATE_TEST_SUITE_P(Links, SilentSensor, ::testing::Values(true, false), vktest::LinkName);

TEST_P(BothLinks, SetRequestsCarryTheirItems) {
  const char standby[] = "Set standby successfully";
  const char spin[] = "Set spin rate successfully";
  const struct {
    std::function<void()> call;
    Bytes request;
    std::string notice;
  } cases[] = {
      {[&] { m_->ZeltoSetStandby(5); }, {11, 0}, standby}, {[&] { m_->ZeltoSetStandby(-1); }, {11, 0}, standby},
      {[&] { m_->ZeltoSetStandby(0); }, {0, 0}, standby},  {[&] { m_->ZeltoSetSpinRate(300); }, {10, 44}, spin},
      {[&] { m_->ZeltoSetReturnMode(7); }, {9, 0}, ""},    {[&] { m_->ZeltoSetReturnMode(0); }, {8, 0}, ""},
  };
  for (const auto& c : cases) {
    m_->setSuccessMsg("");
    c.call();
    EXPECT_EQ(Last(3), c.request);
    EXPECT_EQ(m_->getSuccessMessage().toStdString(), c.notice);
  }
  m_->setSuccessMsg("");
  const auto state = sim_->SmallSensor();
  EXPECT_EQ(state.mode, 0);
  EXPECT_EQ(state.spin_rate, 44);
  EXPECT_EQ(state.return_mode, 8);
  EXPECT_EQ(Error(), "");

  if (!serial_) {
    sim_->SetFailure(varkel::sim::FailureMode::kReturnCode, 3, 9);
    m_->ZeltoSetSpinRate(10);
    EXPECT_EQ(Error(), "set lidar spin rate error, ret:9");
    log_->Flush();
    EXPECT_TRUE(log_->Has("ERROR: set lidar spin rate error, ret:9"));
  } else {
    sim_->SetLinkLost(true);
    m_->ZeltoSetReturnMode(1);
    EXPECT_EQ(Error(), "set lidar return mode error, ret:-2");
    m_->ZeltoSetStandby(1);
    EXPECT_EQ(Error(), "set lidar mode error, ret:-2");
  }
  EXPECT_EQ(m_->getSuccessMessage(), "");  // failures give no notice
}

TEST_P(BothLinks, InformationThreadFillsInfoAndVersions) {
  const QVariantList info = m_->getZeltoLidarInfo();
  ASSERT_EQ(info.size(), 4);
  EXPECT_EQ(info[1].toString(), "ZT2411000123");
  EXPECT_EQ(info[0].toString(), serial_ ? "xx.xx.xx.xx" : "192.168.1.201");
  EXPECT_EQ(info[2].toString(), serial_ ? "xxxxxxxx" : "3000000");
  EXPECT_EQ(info[3].toString(), "Normal");
  const QVariantList versions = m_->getZeltoLidarVersionInfo();
  EXPECT_EQ(versions[0].toList()[0].toString(), "BMB FPGA Version");
  EXPECT_EQ(versions[0].toList()[1].toString(), "BMB-FPGA V1.3.7");
  EXPECT_EQ(versions[2].toList()[0].toString(), "PBL Version");
  EXPECT_EQ(versions[2].toList()[1].toString(), "PBL V1.0.1");

  // Versions go out once; afterwards the thread reads only the safety state (item 8).
  ASSERT_TRUE(log_->Wait([&] { return Last(2) == Bytes{8}; }));
  const uint64_t gets = Count(2);
  m_->ZeltoGetLidarFunctionSafety();
  EXPECT_EQ(Count(2), gets + 1);

  // A disconnect puts the placeholders back.
  m_->Stop();
  EXPECT_EQ(Texts(m_->getZeltoLidarInfo()), (QStringList{"xx.xx.xx.xx", "xxxxxxxx", "xxxxxxxx", "xxxxxxxx"}));
  EXPECT_TRUE(m_->getZeltoLidarVersionInfo().isEmpty());
}

TEST_P(BothLinks, CorrectionFileArrivesWholeInPieces) {
  const std::string path = root_ + "/correction.bin";
  ASSERT_EQ(m_->ZeltoGetCorrection(QString::fromStdString("file://" + path)), 0);
  QFile file(QString::fromStdString(path));
  ASSERT_TRUE(file.open(QIODevice::ReadOnly));
  const QByteArray got = file.readAll();
  const auto want = sim_->SmallSensor().correction;
  ASSERT_EQ(static_cast<size_t>(got.size()), want.size());
  EXPECT_TRUE(std::equal(want.begin(), want.end(), reinterpret_cast<const uint8_t*>(got.constData())));
  EXPECT_EQ(Last(2), (Bytes{7, 12}));  // 3 KiB in 240-byte pieces: 0 to 12

  EXPECT_NE(m_->ZeltoGetCorrection(QString::fromStdString(root_ + "/no-such-dir/c.bin")), 0);
  EXPECT_EQ(Error(), "create calibration file fail, save correction file error");
  // A write cut off part-way (a size limit holds for root too) keeps the earlier file whole.
  std::signal(SIGXFSZ, SIG_IGN);
  rlimit saved{};
  ASSERT_EQ(::getrlimit(RLIMIT_FSIZE, &saved), 0);
  rlimit small = saved;
  small.rlim_cur = 1024;
  ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &small), 0);
  const int cut = m_->ZeltoGetCorrection(QString::fromStdString(path));
  ::setrlimit(RLIMIT_FSIZE, &saved);
  EXPECT_EQ(cut, -1);
  EXPECT_EQ(QFile(QString::fromStdString(path)).size(), static_cast<qint64>(want.size()));

  // A failed piece leaves the file as it was.
  sim_->SetLinkLost(true);
  m_->setErrorMsg("");
  EXPECT_EQ(m_->ZeltoGetCorrection(QString::fromStdString(path)), -2);
  EXPECT_EQ(Error(), "get calibration error, ret:-2");
  EXPECT_EQ(QFile(QString::fromStdString(path)).size(), static_cast<qint64>(want.size()));
}

TEST_P(BothLinks, FunctionSafetyStatesAndFaultCodes) {
  auto state = sim_->SmallSensor();
  state.fault_codes = {0, 0};
  sim_->SetSmallSensor(state);
  EXPECT_EQ(Texts(m_->ZeltoGetLidarFunctionSafety()), (QStringList{"Normal"}));
  EXPECT_EQ(Last(2), (Bytes{8}));
  state.safety_state = 1;
  state.fault_codes = {0x0102, 0, 0x000A};
  sim_->SetSmallSensor(state);
  EXPECT_EQ(Texts(m_->ZeltoGetLidarFunctionSafety()), (QStringList{"Warning", "0x102", "0x0A"}));
  EXPECT_EQ(m_->getZeltoLidarInfo()[3].toString(), "Warning");
  state.safety_state = 7;
  sim_->SetSmallSensor(state);
  EXPECT_EQ(m_->ZeltoGetLidarFunctionSafety()[0].toString(), "7");
  state.safety_state = 2;
  sim_->SetSmallSensor(state);
  EXPECT_EQ(m_->ZeltoGetLidarFunctionSafety()[0].toString(), "Shutdown");
}

INSTANTIATE_TEST_SUITE_P(Links, BothLinks, ::testing::Values(true, false), vktest::LinkName);

TEST_F(SmallSensorTest, SerialConnectionRefusesTheKtcOnlyOperations) {
  Open("Zelto", true);
  // Not connected yet: the two wordings of the common precondition.
  m_->ZeltoGetBaudRate();
  EXPECT_EQ(Error(), "GetBaudRate is only supported in KTC serial mode");
  m_->ZeltoSetBaudRateFromUI("9600");
  EXPECT_EQ(Error(), "SetBaudRate is only supported in KTC serial mode");
  EXPECT_TRUE(m_->ZeltoGetDestinationConfig().isEmpty());
  EXPECT_EQ(Error(), "GetDestinationConfig is only supported in KTC serial mode");
  EXPECT_FALSE(m_->ZeltoSetDestinationIPandPort("10.0.0.1", 1));
  EXPECT_EQ(Error(), "SetDestinationIPandPort is only supported in KTC serial mode");
  m_->MarvoSetIMURange(0, 0);
  EXPECT_EQ(Error(), "Marvo IMU range setting is only supported in KTC_SERIAL mode");

  m_->ZeltoSetStandby(1);
  EXPECT_EQ(Error(), "lidar is not connected, or lidar is upgrade");
  EXPECT_EQ(m_->getConnectType(), 2);  // switched before the check, on purpose
  m_->ZeltoGetBaudRate();
  EXPECT_EQ(Error(), "lidar is not connected, or lidar is upgrading");
  EXPECT_EQ(sim_->SerialCommandCount(3), 0u);
}

// The connection check probes the serial line itself; switched to type 2 by a small-sensor
// call, the lines still close on Stop.
TEST_F(SmallSensorTest, SerialLinesAreProbedAndStillCloseOnStopOnceSwitchedToType2) {
  Open("Zelto", true);
  // The simulator holds its own end of each line open; the program's come on top.
  const int sim_data = OpenDescriptorsTo(sim_->data_port_path());
  const int sim_command = OpenDescriptorsTo(sim_->command_port_path());
  ASSERT_TRUE(ConnectSmall());
  ASSERT_TRUE(SmallSensorInfoRead());
  const uint64_t before = sim_->SerialCommandCount(2);
  EXPECT_TRUE(m_->CheckLidarConnection());
  EXPECT_EQ(sim_->SerialCommandCount(2), before + 1);
  EXPECT_EQ(sim_->LastSerialPayload(2), (Bytes{10, 1}));
  EXPECT_GT(OpenDescriptorsTo(sim_->data_port_path()), sim_data);
  EXPECT_GT(OpenDescriptorsTo(sim_->command_port_path()), sim_command);

  log_->Clear();
  m_->ZeltoSetReturnMode(1);
  EXPECT_EQ(m_->getConnectType(), 2);
  log_->Flush();
  EXPECT_TRUE(log_->Has("connectTypeChanged"));
  EXPECT_EQ(sim_->LastSerialPayload(3), (Bytes{9, 0}));  // still over the serial lines
  sim_->SetLinkLost(true);
  EXPECT_FALSE(m_->CheckLidarConnection());

  m_->Stop();
  EXPECT_FALSE(m_->getIsConnected());
  EXPECT_EQ(OpenDescriptorsTo(sim_->data_port_path()), sim_data);
  EXPECT_EQ(OpenDescriptorsTo(sim_->command_port_path()), sim_command);
}

TEST_F(SmallSensorTest, BaudRateAndDestinationOverKtc) {
  Open("Zelto-KTC", false);
  ASSERT_TRUE(ConnectSmall());
  ASSERT_TRUE(SmallSensorInfoRead());
  EXPECT_EQ(m_->ZeltoGetBaudRate(), "3000000");
  EXPECT_EQ(sim_->LastPayload(0xFF), (Bytes{0x00, 0x01}));

  const uint64_t sent = sim_->CommandCount(0xFF);
  for (const char* text : {"abc", "0", ""}) {
    m_->setErrorMsg("");
    m_->ZeltoSetBaudRateFromUI(text);
    EXPECT_EQ(Error(), "invalid baud rate value") << text;
  }
  EXPECT_EQ(sim_->CommandCount(0xFF), sent);
  m_->ZeltoSetBaudRateFromUI("921600");
  EXPECT_EQ(sim_->LastPayload(0xFF), (Bytes{0x00, 0x01, 0x39, 0x00, 0x0E, 0x10, 0x00}));
  EXPECT_EQ(m_->getSuccessMessage(), "set baud rate successful");
  EXPECT_EQ(sim_->BaudRate(), 921600u);
  EXPECT_EQ(m_->ZeltoGetBaudRate(), "921600");

  EXPECT_EQ(Texts(m_->ZeltoGetDestinationConfig(true)), (QStringList{"192.168.1.100", "2368"}));
  EXPECT_TRUE(sim_->LastPayload(0x08).empty());
  EXPECT_TRUE(m_->ZeltoSetDestinationIPandPort("10.1.2.3", 4000));
  EXPECT_EQ(sim_->LastPayload(0x20), (Bytes{10, 1, 2, 3, 0x0F, 0xA0}));
  EXPECT_EQ(m_->getSuccessMessage(), "set destination IP and port successful");
  EXPECT_EQ(Texts(m_->ZeltoGetDestinationConfig()), (QStringList{"10.1.2.3", "4000"}));

  const uint64_t dest_sent = sim_->CommandCount(0x20);
  for (const auto& bad : std::vector<std::pair<QString, int>>{
           {"10.1.2", 1}, {"10.1.2.256", 1}, {"10.1.2.3.4", 1}, {"a.b.c.d", 1}, {"10.1.2.3", 70000}}) {
    EXPECT_FALSE(m_->ZeltoSetDestinationIPandPort(bad.first, bad.second));
    EXPECT_EQ(Error(), "invalid destination IP or port");
  }
  EXPECT_EQ(sim_->CommandCount(0x20), dest_sent);

  sim_->SetFailure(varkel::sim::FailureMode::kReturnCode, 0x08, 5);
  EXPECT_TRUE(m_->ZeltoGetDestinationConfig().isEmpty());
  EXPECT_EQ(Error(), "get destination config error, ret:5");
  sim_->SetFailure(varkel::sim::FailureMode::kReturnCode, 0xFF, 6);
  EXPECT_EQ(m_->ZeltoGetBaudRate(), "");
  EXPECT_EQ(Error(), "get baud rate error, ret:6");
  m_->Stop();
}

TEST_F(SmallSensorTest, MarvoImuRangeCodesAndVersionsBeforeTheAnnouncement) {
  Open("Marvo-KTC", false);
  // The versions are there by the time the connection is announced.
  std::atomic<int> versions_at_announcement{-1};
  QObject::connect(
      m_.get(), &VarkelManager::isConnectedChanged, m_.get(),
      [&] { versions_at_announcement = m_->getZeltoLidarVersionInfo().size(); }, Qt::DirectConnection);
  ASSERT_TRUE(ConnectSmall());
  EXPECT_EQ(versions_at_announcement, 4);
  // The safety read comes after the announcement, on the same command: let it pass first.
  ASSERT_TRUE(SmallSensorInfoRead());

  m_->MarvoSetIMURange(5, 3);
  EXPECT_EQ(sim_->LastPayload(2), (Bytes{11, 8, 3}));
  EXPECT_EQ(m_->getSuccessMessage(), "IMU range set successfully");
  EXPECT_EQ(sim_->SmallSensor().imu_angular_code, 8);
  EXPECT_EQ(sim_->SmallSensor().imu_accel_code, 3);

  const uint64_t sent = sim_->CommandCount(2);
  m_->MarvoSetIMURange(-1, 0);
  EXPECT_EQ(Error(), "Invalid angular range index");
  m_->MarvoSetIMURange(6, 0);
  EXPECT_EQ(Error(), "Invalid angular range index");
  m_->MarvoSetIMURange(0, 4);
  EXPECT_EQ(Error(), "Invalid acceleration range index");
  EXPECT_EQ(sim_->CommandCount(2), sent);

  m_->Stop();
}

TEST_F(SmallSensorTest, UnreadableIdentityAndVersionsShowPlaceholders) {
  Open("Zelto-KTC", false);
  sim_->SetFailure(varkel::sim::FailureMode::kReturnCode, 2, 7);
  std::atomic<bool> pbl_raised{false};
  QObject::connect(
      m_.get(), &VarkelManager::isGetPBLVersionChanged, m_.get(),
      [&] {
        if (m_->getIsGetPBLVersion()) pbl_raised.store(true);
      },
      Qt::DirectConnection);
  ASSERT_TRUE(ConnectSmall());
  ASSERT_TRUE(SmallSensorInfoRead(false));
  ASSERT_TRUE(log_->WaitFor("ERROR: get pbl version error, ret:7"));
  EXPECT_TRUE(log_->Has("ERROR: Zelto-KTC get SN failed, ret:7"));
  EXPECT_TRUE(log_->Has("ERROR: Failed to get BMB FPGA version, ret:7"));
  EXPECT_TRUE(log_->Has("ERROR: get pbl version error, ret:7"));
  EXPECT_TRUE(pbl_raised);
  EXPECT_FALSE(m_->getIsGetPBLVersion());
  EXPECT_EQ(m_->getZeltoLidarInfo()[1].toString(), "xxxxxxxx");
  for (const QVariant& v : m_->getZeltoLidarVersionInfo()) EXPECT_EQ(v.toList()[1].toString(), "xxxxxxxx");
  m_->Stop();

  // A serial number that is not printable text is refused, not shown.
  sim_->ClearFailures();
  auto state = sim_->SmallSensor();
  state.serial_number = "ZT 24\x01";
  sim_->SetSmallSensor(state);
  log_->Clear();
  ASSERT_TRUE(ConnectSmall());
  ASSERT_TRUE(log_->Wait([&] { return log_->Has("ERROR: Zelto-KTC SN invalid after validation"); }));
  EXPECT_EQ(m_->getZeltoLidarInfo()[1].toString(), "xxxxxxxx");
  m_->Stop();
}

TEST_F(SmallSensorTest, ANetworkConnectionIsSwitchedToType2ByTheSmallSensorCalls) {
  Load("Testa", vktest::TestaTable());
  ASSERT_TRUE(Connect());
  EXPECT_EQ(m_->getConnectType(), 0);
  m_->ZeltoSetReturnMode(1);
  EXPECT_EQ(m_->getConnectType(), 2);
  // A table-driven lidar does not know the request: its return code is reported.
  EXPECT_EQ(Error(), "set lidar return mode error, ret:4");  // a known command, a payload it refuses
  EXPECT_EQ(sim_->LastPayload(3), (Bytes{9, 0}));
  m_->Stop();
  EXPECT_FALSE(m_->CheckLidarConnection());
}
