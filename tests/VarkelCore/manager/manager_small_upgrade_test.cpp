// The small sensors' upgrades against the virtual lidar: the Zelto image over the serial
// OTA frames (connection type 1) and over KTC (type 2), the junction box, and the Marvo's
// component package, with the sensor's refusals, silence and dropped lines.
#include <QCryptographicHash>
#include <QFile>
#include <QUrl>

#include <chrono>
#include <thread>

#include "ktc_client.h"
#include "manager_test_support.h"
#include "param_name.h"

namespace {

using Bytes = std::vector<uint8_t>;
using Clock = std::chrono::steady_clock;
using varkel::sim::FailureMode;

const char kOtaDone[] = "Upgrade package transmitted successfully. The lidar will automatically reboot.";
const char kZeltoRefusal[] = "lidar is not connected, or lidar is upgrade";
const char kMarvoRefusal[] = "lidar is not connected, or lidar is upgrading";
constexpr uint8_t kOtaCmd = 0x84;

std::string Sha256(const Bytes& b) {
  return QCryptographicHash::hash(QByteArray(reinterpret_cast<const char*>(b.data()), static_cast<int>(b.size())),
                                  QCryptographicHash::Sha256)
      .toHex()
      .toStdString();
}

// `size` bytes starting with the version line the sensor reads.
Bytes Image(size_t size, const std::string& version, uint8_t seed = 7) {
  Bytes b;
  const std::string head = "VERSION=" + version + "\n";
  b.assign(head.begin(), head.end());
  for (size_t i = b.size(); i < size; ++i) b.push_back(static_cast<uint8_t>(i * 31 + seed));
  b.resize(size);
  return b;
}

void PutLe32(Bytes& b, size_t at, uint32_t v) {
  for (int i = 0; i < 4; ++i) b[at + i] = static_cast<uint8_t>(v >> (8 * i));
}

// A Marvo package laid out by hand: "QRNA", total size, flags, then offset/size pairs at
// 12 + 8 * index, the data from byte 56 on.
struct Package {
  Bytes bytes = Bytes(56, 0);
  Package() { bytes[0] = 'Q', bytes[1] = 'R', bytes[2] = 'N', bytes[3] = 'A'; }
  Package& Add(int index, const Bytes& data) {
    PutLe32(bytes, 12 + 8 * index, static_cast<uint32_t>(bytes.size() - 56));
    PutLe32(bytes, 16 + 8 * index, static_cast<uint32_t>(data.size()));
    bytes[8] |= static_cast<uint8_t>(1u << index);
    bytes.insert(bytes.end(), data.begin(), data.end());
    PutLe32(bytes, 4, static_cast<uint32_t>(bytes.size()));
    return *this;
  }
};

class SmallUpgradeTest : public vktest::ManagerTest {
 protected:
  void Open(const std::string& model, bool serial) {
    serial_ = serial;
    Load(model, vktest::TestaTable(), serial);
    m_->SetRebootWait(std::chrono::milliseconds(200));
    m_->SetModeSwitchWait(std::chrono::milliseconds(50));
    m_->SetOtaReplyTimeout(std::chrono::milliseconds(600));
  }

  bool ConnectSmall() { return ConnectSmallSensor(serial_); }

  QUrl Write(const Bytes& b, const std::string& name = "fw.bin") {
    const QString path = QString::fromStdString(root_ + "/" + name);
    QFile f(path);
    EXPECT_TRUE(f.open(QIODevice::WriteOnly));
    f.write(reinterpret_cast<const char*>(b.data()), static_cast<qint64>(b.size()));
    return QUrl::fromLocalFile(path);
  }

  // Signals still queued belong to what came before.
  void Fresh() {
    log_->Flush();
    log_->Clear();
  }

  // Waits for the end; true when IsUpgrading was down before the final notice arrived.
  bool Ended() {
    const bool ended =
        log_->Wait([&] { return log_->Has("errorMessageChanged") || log_->Has("successMessageChanged"); });
    return ended && !m_->getIsUpgrading();
  }

  // The log pane's "INFO" lines, in order, that begin with `prefix`.
  std::vector<std::string> Info(const std::string& prefix) {
    std::vector<std::string> out;
    for (const auto& e : log_->Trace())
      if (e.rfind("INFO: " + prefix, 0) == 0) out.push_back(e.substr(6));
    return out;
  }

  std::string Version(uint8_t which) { return sim_->SmallSensor().versions[which]; }

  bool serial_ = false;
};

class ZeltoLinks : public SmallUpgradeTest, public ::testing::WithParamInterface<bool> {
 protected:
  void SetUp() override {
    SmallUpgradeTest::SetUp();
    Open(GetParam() ? "Zelto" : "Zelto-KTC", GetParam());
    ASSERT_TRUE(ConnectSmall());
    Fresh();
  }
};

}  // namespace

TEST_P(ZeltoLinks, ImageArrivesWholeAndTheSensorRunsItsVersion) {
  // Mode 0 replaces the application (its version is the BMB MCU one), mode 1 the PBL.
  struct Case {
    int mode;
    uint8_t which;
    size_t size;
  };
  for (const Case c : {Case{0, 2, 5000}, Case{1, 5, 1024}}) {
    SCOPED_TRACE(c.mode);
    if (!m_->getIsConnected()) ASSERT_TRUE(ConnectSmall());
    Fresh();
    const Bytes image = Image(c.size, "Z-" + std::to_string(c.mode) + ".9");
    m_->ZeltoSetUpgradeMode(c.mode);
    const int rises = log_->UpgradingRises();
    ASSERT_EQ(m_->ZeltoUpgradeLidar(Write(image)), 0);
    EXPECT_EQ(log_->UpgradingRises(), rises + 1);
    EXPECT_EQ(m_->getUpgradeProgressTotalLen(), static_cast<int>(c.size / 1024));
    ASSERT_TRUE(Ended());
    EXPECT_EQ(m_->getSuccessMessage().toStdString(), kOtaDone);
    EXPECT_EQ(m_->getUpgradeProgress(), static_cast<int>((c.size + 1023) / 1024));
    const auto records = sim_->OtaRecords();
    ASSERT_FALSE(records.empty());
    EXPECT_TRUE(records.back().ok);
    EXPECT_FALSE(records.back().component);
    EXPECT_EQ(records.back().kind, static_cast<uint32_t>(c.mode));
    EXPECT_EQ(records.back().length, c.size);
    EXPECT_EQ(records.back().sha256_hex, Sha256(image));
    EXPECT_EQ(Version(c.which), "Z-" + std::to_string(c.mode) + ".9");
    // The lidar reboots by itself; the program lets the line go.
    ASSERT_TRUE(log_->WaitFor("INFO: Lidar disconnected"));
    EXPECT_FALSE(m_->getIsConnected());
  }
  // Start, the pieces and the end of both images, and nothing else.
  EXPECT_EQ(sim_->SmallSensor().ota_frames, (1 + 5 + 1) + (1 + 1 + 1));
  EXPECT_EQ(sim_->UpgradesReceived(), 0u);
  EXPECT_EQ(sim_->JunctionBoxUpgrades(), 0u);
}

TEST_P(ZeltoLinks, RefusedSilentAndDroppedTransfersEndWithTheirCode) {
  struct Case {
    FailureMode mode;
    int param;
    int code;  // serial, KTC
    int ktc_code;
  };
  // A refused piece gives the sensor's status 3. Silence, and a line gone: -2, the serial
  // client's code for no reply and the KTC client's for a reply header that never came.
  // (Silence over KTC waits out the 5 s receive time-out; the serial line shows it.)
  std::vector<Case> cases{{FailureMode::kRefusePiece, 2, 3, 3}, {FailureMode::kDisconnectAfterPieces, 1, -2, -2}};
  if (GetParam()) cases.push_back({FailureMode::kSilentAfterPieces, 1, -2, -2});
  for (const Case& c : cases) {
    SCOPED_TRACE(varkel::sim::FailureModeName(c.mode));
    if (!m_->getIsConnected()) ASSERT_TRUE(ConnectSmall());
    Fresh();
    sim_->SetFailure(c.mode, kOtaCmd, c.param);
    const auto start = Clock::now();
    ASSERT_EQ(m_->ZeltoUpgradeLidar(Write(Image(4096, "never"))), 0);
    ASSERT_TRUE(Ended());
    EXPECT_LT(Clock::now() - start, std::chrono::seconds(30));  // not a large lidar's minute
    const std::string text =
        "Upgrade package transfer failed or is terminated. error:" + std::to_string(GetParam() ? c.code : c.ktc_code);
    EXPECT_EQ(Error(), text);
    EXPECT_TRUE(log_->WaitFor("INFO: " + text));  // the line follows the message
    EXPECT_FALSE(log_->Has("successMessageChanged"));
    ASSERT_FALSE(sim_->OtaRecords().empty());
    EXPECT_FALSE(sim_->OtaRecords().back().ok);
    EXPECT_EQ(Version(2), "BMB-MCU V2.0.5");
    sim_->ClearFailures();
    ASSERT_TRUE(log_->WaitFor("INFO: Lidar disconnected"));
  }
}

INSTANTIATE_TEST_SUITE_P(Links, ZeltoLinks, ::testing::Values(true, false), vktest::LinkName);

TEST_F(SmallUpgradeTest, RefusalsAndTheSecondCall) {
  Open("Zelto-KTC", false);
  const QUrl url = Write(Image(3000, "x"));
  ASSERT_TRUE(ConnectSmall());
  // A file that will not open: nothing starts, and no message.
  m_->setErrorMsg("");
  EXPECT_EQ(m_->ZeltoUpgradeLidar(QUrl::fromLocalFile(QString::fromStdString(root_ + "/none.bin"))), 0);
  EXPECT_FALSE(m_->getIsUpgrading());
  EXPECT_EQ(Error(), "");
  // An empty one is refused by name before a frame goes out.
  const QUrl empty = Write({}, "empty.bin");
  EXPECT_EQ(m_->ZeltoUpgradeLidar(empty), 0);
  EXPECT_EQ(Error(), empty.toLocalFile().toStdString() + " is empty");
  EXPECT_FALSE(m_->getIsUpgrading());
  EXPECT_EQ(sim_->SmallSensor().ota_frames, 0u);

  ASSERT_EQ(m_->ZeltoUpgradeLidar(url), 0);
  EXPECT_EQ(m_->ZeltoUpgradeLidar(url), -1);
  EXPECT_EQ(Error(), kZeltoRefusal);
  EXPECT_EQ(m_->MarvoUpgradeLidar(url), -1);
  EXPECT_EQ(Error(), kMarvoRefusal);
  ASSERT_TRUE(log_->WaitFor("successMessageChanged"));
  EXPECT_EQ(sim_->SmallSensor().images_received, 1u);
}

TEST_F(SmallUpgradeTest, JunctionBoxTakesTheFileOn0x83OverTheSerialKtcLineOnly) {
  Open("Zelto-KTC", false);
  ASSERT_TRUE(ConnectSmall());
  const Bytes image = Image(2500, "box");
  m_->ZeltoSetUpgradeMode(2);
  ASSERT_EQ(m_->ZeltoUpgradeLidar(Write(image)), 0);
  ASSERT_TRUE(log_->WaitFor("successMessageChanged"));
  EXPECT_FALSE(m_->getIsUpgrading());
  EXPECT_EQ(m_->getSuccessMessage().toStdString(),
            "Upgrade package transmitted successfully. The lidar will automatically reboot within 10 seconds.");
  EXPECT_EQ(sim_->JunctionBoxUpgrades(), 1u);
  EXPECT_EQ(sim_->CommandCount(0x83), 3u);
  EXPECT_EQ(sim_->LastTransfer()->sha256_hex, Sha256(image));
  EXPECT_EQ(sim_->CommandCount(kOtaCmd), 0u);
  // Then the pause and the table's restart.
  ASSERT_TRUE(log_->Wait([&] { return sim_->RestartCount() == 1; }));

  // A box that falls silent fails after the small sensors' silence limit, not after the
  // minute a large lidar's piece may take.
  Open("Zelto-KTC", false);
  ASSERT_TRUE(ConnectSmall());
  Fresh();
  sim_->SetFailure(FailureMode::kSilentAfterPieces, 0x83, 1);
  m_->ZeltoSetUpgradeMode(2);
  const auto start = Clock::now();
  ASSERT_EQ(m_->ZeltoUpgradeLidar(Write(image)), 0);
  ASSERT_TRUE(Ended());
  EXPECT_LT(Clock::now() - start, std::chrono::seconds(30));
  EXPECT_EQ(Error(), "Upgrade package transfer failed or is terminated.");
  EXPECT_EQ(sim_->JunctionBoxUpgrades(), 0u);

  // Over the network the mode means nothing: the ordinary transfer, whose command text the
  // small-sensor entry does not have.
  Open("Testa", false);
  ASSERT_TRUE(Connect());
  m_->ZeltoSetUpgradeMode(2);
  ASSERT_EQ(m_->ZeltoUpgradeLidar(Write(image)), 0);
  ASSERT_TRUE(Ended());
  EXPECT_EQ(Error(), "Upgrade package transfer failed or is terminated.");
  EXPECT_EQ(sim_->CommandCount(0x83), 0u);
  EXPECT_EQ(sim_->JunctionBoxUpgrades(), 0u);
}

TEST_F(SmallUpgradeTest, MarvoSendsTheOtherPartitionAndTheFpgaWithoutItsHeader) {
  Open("Marvo-KTC", false);
  ASSERT_TRUE(ConnectSmall());
  Fresh();
  const Bytes app_a = Image(1500, "APP-A"), app_b = Image(2100, "APP-B 2.1");
  Bytes bmb_fpga = Image(1025, "unseen");       // 1025 bytes: only the last one goes
  const Bytes tmb_fpga = Image(1024, "TMB 9");  // 1024 bytes: sent whole
  const Bytes param = Image(300, "param");
  Package p;
  p.Add(0, app_a).Add(1, app_b).Add(2, bmb_fpga).Add(3, tmb_fpga).Add(4, param);
  ASSERT_EQ(m_->MarvoUpgradeLidar(Write(p.bytes, "marvo.bin")), 0);
  ASSERT_TRUE(Ended());
  EXPECT_EQ(m_->getSuccessMessage().toStdString(), "Marvo upgrade completed. The lidar will automatically reboot.");
  const std::string total = std::to_string(p.bytes.size());
  EXPECT_EQ(Info("Marvo"), (std::vector<std::string>{
                               "Marvo OTA package parsed: flags=0x31, total_size=" + total,
                               "Marvo upgrade: current partition=A",
                               "Marvo upgrade: sending BMB_APP_B (type=0x02, size=2100)",
                               "Marvo upgrade: BMB_APP_B completed",
                               "Marvo upgrade: sending BMB_FPGA (type=0x01, size=1)",
                               "Marvo upgrade: BMB_FPGA completed",
                               "Marvo upgrade: sending TMB_FPGA (type=0x00, size=1024)",
                               "Marvo upgrade: TMB_FPGA completed",
                               "Marvo upgrade: sending TMB_PARAM (type=0x03, size=300)",
                               "Marvo upgrade: TMB_PARAM completed",
                           }));
  // 3 + 1 + 1 + 1 blocks.
  EXPECT_EQ(m_->getUpgradeProgressTotalLen(), 6);
  EXPECT_EQ(m_->getUpgradeProgress(), 6);
  const auto rates = sim_->BaudRateRequests();
  ASSERT_GE(rates.size(), 2u);
  EXPECT_EQ(rates[rates.size() - 2].rate, 5000000u);
  EXPECT_EQ(rates.back().rate, 9600u);
  EXPECT_EQ(sim_->LastPayload(3), (Bytes{12, 4}));
  const auto records = sim_->OtaRecords();
  ASSERT_EQ(records.size(), 4u);
  const std::vector<std::pair<uint32_t, Bytes>> sent{
      {2, app_b}, {1, Bytes(bmb_fpga.end() - 1, bmb_fpga.end())}, {0, tmb_fpga}, {3, param}};
  for (size_t i = 0; i < sent.size(); ++i) {
    EXPECT_TRUE(records[i].ok && records[i].component) << i;
    EXPECT_EQ(records[i].kind, sent[i].first) << i;
    EXPECT_EQ(records[i].sha256_hex, Sha256(sent[i].second)) << i;
  }
  // Let go of, the sensor reboots into partition B with the new versions.
  ASSERT_TRUE(log_->WaitFor("INFO: Lidar disconnected"));
  ASSERT_TRUE(log_->Wait([&] { return sim_->SmallSensor().reboots == 1; }));
  EXPECT_EQ(sim_->SmallSensor().partition, 1);
  EXPECT_EQ(sim_->SmallSensor().work_mode, 0);
  EXPECT_EQ(Version(2), "APP-B 2.1");
  EXPECT_EQ(Version(1), "TMB 9");

  // The next upgrade finds partition B and sends the A image.
  ASSERT_TRUE(ConnectSmall());
  Fresh();
  ASSERT_EQ(m_->MarvoUpgradeLidar(Write(p.bytes, "marvo.bin")), 0);
  ASSERT_TRUE(Ended());
  EXPECT_TRUE(log_->Has("INFO: Marvo upgrade: current partition=B"));
  EXPECT_TRUE(log_->Has("INFO: Marvo upgrade: sending BMB_APP_A (type=0x02, size=1500)"));
  EXPECT_EQ(sim_->OtaRecords()[4].sha256_hex, Sha256(app_a));
}

TEST_F(SmallUpgradeTest, MarvoPackageEdges) {
  Open("Marvo-KTC", false);
  ASSERT_TRUE(ConnectSmall());
  // 55 bytes: refused in the entry.
  EXPECT_EQ(m_->MarvoUpgradeLidar(Write(Bytes(55, 0))), -1);
  EXPECT_EQ(Error(), "Upgrade package too small");
  EXPECT_FALSE(m_->getIsUpgrading());
  EXPECT_EQ(m_->MarvoUpgradeLidar(QUrl::fromLocalFile(QString::fromStdString(root_ + "/none.bin"))), -1);
  EXPECT_EQ(Error(), "Failed to open upgrade file");

  // 56 bytes with a wrong magic: the worker says so; nothing reaches the sensor.
  Fresh();
  const size_t rates = sim_->BaudRateRequests().size();  // the connection's own
  Bytes bad = Package().bytes;
  bad[3] = 'B';
  ASSERT_EQ(m_->MarvoUpgradeLidar(Write(bad)), 0);
  ASSERT_TRUE(Ended());
  EXPECT_EQ(Error(), "Invalid Marvo OTA upgrade package");
  EXPECT_TRUE(log_->Has("INFO: Invalid OTA package magic"));
  EXPECT_EQ(sim_->BaudRateRequests().size(), rates);

  // Only BMB_APP_A on a sensor running A: nothing to send, success, a total of 0.
  Fresh();
  ASSERT_EQ(m_->MarvoUpgradeLidar(Write(Package().Add(0, Image(3000, "A")).bytes)), 0);
  ASSERT_TRUE(Ended());
  EXPECT_EQ(m_->getSuccessMessage().toStdString(), "Marvo upgrade completed. The lidar will automatically reboot.");
  EXPECT_EQ(m_->getUpgradeProgressTotalLen(), 0);
  EXPECT_TRUE(sim_->OtaRecords().empty());
  ASSERT_TRUE(log_->WaitFor("INFO: Lidar disconnected"));

  // TMB_PARAM at offset 2^32 - 16, size 32 wraps to bytes 40..71: one byte short of that
  // (a 71-byte package), the worker stops before sending it. The wrap itself is the
  // package reader's test.
  ASSERT_TRUE(ConnectSmall());
  Fresh();
  Bytes wrap = Package().bytes;
  wrap.resize(71);
  wrap[8] = 0x10;
  PutLe32(wrap, 44, 0xFFFFFFF0u);
  PutLe32(wrap, 48, 32);
  ASSERT_EQ(m_->MarvoUpgradeLidar(Write(wrap)), 0);
  ASSERT_TRUE(Ended());
  EXPECT_TRUE(log_->Has("INFO: Component TMB_PARAM data out of range"));
  EXPECT_EQ(Error(), "Marvo upgrade: failed to extract TMB_PARAM");
  EXPECT_TRUE(sim_->OtaRecords().empty());
}

TEST_F(SmallUpgradeTest, MarvoStepsThatFailStopThere) {
  Open("Marvo-KTC", false);
  ASSERT_TRUE(ConnectSmall());
  const QUrl url = Write(Package().Add(1, Image(3000, "B")).Add(4, Image(100, "P")).bytes);
  struct Case {
    FailureMode mode;
    int cmd;
    int param;
    std::string error;
  };
  const Case cases[] = {
      {FailureMode::kReturnCode, 0xFF, 4, "Marvo upgrade: set baudrate failed"},
      {FailureMode::kReturnCode, 3, 1, "Marvo upgrade: change mode failed"},
      {FailureMode::kRefusePiece, kOtaCmd, 2, "Marvo upgrade: BMB_APP_B failed, error=3"},
      {FailureMode::kDisconnectAfterPieces, kOtaCmd, 1, "Marvo upgrade: BMB_APP_B failed, error=-2"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.error);
    if (!m_->getIsConnected()) ASSERT_TRUE(ConnectSmall());
    Fresh();
    sim_->SetFailure(c.mode, c.cmd, c.param);
    ASSERT_EQ(m_->MarvoUpgradeLidar(url), 0);
    ASSERT_TRUE(Ended());
    EXPECT_EQ(Error(), c.error);
    EXPECT_FALSE(log_->Has("INFO: Marvo upgrade: TMB_PARAM completed"));
    sim_->ClearFailures();
    m_->Stop();
  }
  // The failed component is recorded as failed; the partition never flipped.
  EXPECT_FALSE(sim_->OtaRecords().back().ok);
  EXPECT_EQ(sim_->SmallSensor().partition, 0);
  // The sensor refuses a rate it does not have.
  ASSERT_TRUE(ConnectSmall());
  m_->ZeltoSetBaudRateFromUI("12345");
  EXPECT_EQ(Error(), "set baud rate error, ret:4");
  EXPECT_FALSE(sim_->BaudRateRequests().back().taken);
}
