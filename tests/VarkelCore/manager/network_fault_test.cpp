// The controller against the virtual lidar across a bad network: the lidar runs inside a
// network namespace behind a wire that delays, loses or cuts packets (impaired_link.h).
// Reads and writes complete or fail with their messages within their time-outs; a wire
// cut in the middle of an upgrade ends it with its failure message.
#include <QDir>
#include <QFile>
#include <QUrl>

#include <chrono>
#include <cstdio>
#include <string>
#include <thread>

#include "impaired_link.h"
#include "manager_test_support.h"

namespace {

using Clock = std::chrono::steady_clock;
using Ms = std::chrono::milliseconds;

using vktest::kSetSuccess;
using vktest::kTransferFailed;
constexpr int kReplyTimeoutMs = 4000;  // the controller's own, unless a test shortens it

int64_t MsSince(Clock::time_point start) {
  return std::chrono::duration_cast<Ms>(Clock::now() - start).count();
}

class NetworkFault : public vktest::ManagerTest {
 protected:
  void SetUp() override {
    ManagerTest::SetUp();
    const std::string reason = link_.Create();
    if (!reason.empty()) GTEST_SKIP() << "no test network: " << reason;
    vktest::WriteTable(root_, "Neta", vktest::NetworkTable());
    varkel::sim::SimOptions options;
    options.model = "Neta";
    options.config_dir = root_ + "/Config/varID";
    options.host = link_.inside_ip();
    options.port = 0;
    options.live_values = false;
    options.restart_delay_ms = 200;
    options.log_size = 64 * 1024;
    sim_ = std::make_unique<varkel::sim::VirtualLidar>(options);
    std::string error;
    bool started = false;
    ASSERT_TRUE(link_.RunInside([&] { started = sim_->Start(&error); })) << "cannot enter the namespace";
    ASSERT_TRUE(started) << error;
    m_ = std::make_unique<vktest::TestManager>();
    m_->InitConfigFileParser("Neta");
    log_ = std::make_unique<vktest::SignalLog>(m_.get());
  }

  void TearDown() override {
    ManagerTest::TearDown();  // the lidar stops before its network goes
  }

  bool ConnectAcross() {
    m_->setProperty("ip_address", QString::fromStdString(link_.inside_ip()));
    m_->setProperty("port", QString::number(sim_->port()));
    log_->Flush();
    log_->Clear();
    return m_->ConnectLidar() && log_->WaitConnectOver(*m_) && m_->getIsConnected();
  }

  // One page read: "read" with the sensor's value, "kept" with the old one, else what showed.
  std::string ReadPage(int round) {
    const std::string before = Value("Gain");
    const std::string fresh = std::to_string(round % 250);
    sim_->SetValue("Gain", fresh);
    m_->GetLidarModuleInfo(0);
    if (Value("Gain") == fresh) return "read";
    return Value("Gain") == before ? "kept" : "shows " + Value("Gain");
  }

  // One write of Speed: "written", or the failure message with the edit still pending.
  std::string WriteSpeed(int value) {
    m_->setErrorMsg("");
    m_->setSuccessMsg("");
    m_->SetText(1, 0, 1, 0, QString::number(value));
    m_->Run(0);
    if (m_->getSuccessMessage().toStdString() == kSetSuccess && sim_->Value("Speed") == std::to_string(value))
      return "written";
    const std::string error = Error();
    if (error.rfind("Set Failed: ", 0) == 0 && m_->getSetMapSize() == 1) {
      m_->ClearSetMap();
      return "failed";
    }
    return "unexpected: " + error;
  }

  QUrl WriteImage(int size) { return vktest::WriteImage(root_, "fw.patch", "VERSION=4.0.0\n", size); }

  int Upgrade(const QUrl& url) {
    const QVariantList p = vktest::UpgradePlace(*m_);
    return p.size() == 5 ? m_->UpgradeLidar(url, p[2].toInt(), p[3].toInt(), p[4].toInt()) : -2;
  }

  vktest::ImpairedLink link_;
};

TEST_F(NetworkFault, TwoHundredMillisecondsEachWay) {
  // A lidar that has not accepted when the open check comes fails the connect with its
  // message. The wire stays cut until the failure is reported, so that no machine is slow
  // enough to let the handshake through first.
  link_.SetDelayMs(200);
  link_.SetDown(true);
  auto start = Clock::now();
  EXPECT_FALSE(ConnectAcross());
  EXPECT_LE(MsSince(start), 10000);
  link_.SetDown(false);
  EXPECT_EQ(Error(), vktest::kConnectFailed);
  log_->Flush();
  EXPECT_TRUE(log_->Has("ERROR: Connection Error: TCP connection failed."));

  // A connection made before the network slowed down keeps working, only slower.
  link_.SetDelayMs(0);
  ASSERT_TRUE(ConnectAcross());
  link_.SetDelayMs(200);
  start = Clock::now();
  EXPECT_EQ(ReadPage(1), "read");
  const auto read_ms = MsSince(start);
  EXPECT_GE(read_ms, 3 * 400);  // three queries, 400 ms round trips
  EXPECT_LE(read_ms, 3 * kReplyTimeoutMs);
  start = Clock::now();
  EXPECT_EQ(WriteSpeed(321), "written");
  const auto write_ms = MsSince(start);
  EXPECT_LE(write_ms, 2 * kReplyTimeoutMs);

  m_->SendCommand("07", "");
  EXPECT_EQ(Error(), "");
  EXPECT_FALSE(m_->getSendKtcCommandReturnHeader().isEmpty());

  const QString folder = QString::fromStdString(root_ + "/logs");
  QDir().mkpath(folder);
  start = Clock::now();
  ASSERT_EQ(m_->DownloadLog(QUrl::fromLocalFile(folder), "Fault Log"), 0);
  ASSERT_TRUE(log_->Wait([&] { return log_->Has("downloadFinished"); }, std::chrono::seconds(30)));
  const auto log_ms = MsSince(start);
  EXPECT_EQ(m_->getSuccessMessage().toStdString(), "Fault Log download successful.");
  EXPECT_EQ(QDir(folder).entryList(QDir::Files).size(), 1);

  // Eight pieces, one round trip each, then the restart.
  m_->SetRebootWait(Ms(100));
  start = Clock::now();
  ASSERT_EQ(Upgrade(WriteImage(8 * 1024)), 0);
  ASSERT_TRUE(log_->Wait([&] { return !m_->getIsUpgrading(); }, std::chrono::seconds(60)));
  const auto upgrade_ms = MsSince(start);
  EXPECT_EQ(m_->getSuccessMessage().toStdString(), vktest::kTransmitted);
  EXPECT_EQ(sim_->UpgradesReceived(), 1u);
  std::printf("200 ms each way: page read %lld ms, write %lld ms, 64 KiB log %lld ms, 8 KiB upgrade %lld ms\n",
              static_cast<long long>(read_ms), static_cast<long long>(write_ms), static_cast<long long>(log_ms),
              static_cast<long long>(upgrade_ms));
}

TEST_F(NetworkFault, TenPercentLossEachWay) {
  ASSERT_TRUE(ConnectAcross());
  link_.SetLoss(0.10);
  int reads_ok = 0, writes_ok = 0;
  int64_t slowest_read = 0, slowest_write = 0;
  constexpr int kRounds = 20;
  for (int i = 1; i <= kRounds; ++i) {
    SCOPED_TRACE(i);
    auto start = Clock::now();
    const std::string read = ReadPage(i);
    slowest_read = std::max(slowest_read, MsSince(start));
    EXPECT_TRUE(read == "read" || read == "kept") << read;
    reads_ok += read == "read";
    start = Clock::now();
    const std::string write = WriteSpeed(1000 + i);
    slowest_write = std::max(slowest_write, MsSince(start));
    EXPECT_TRUE(write == "written" || write == "failed") << write;
    writes_ok += write == "written";
  }
  // Three queries a page, a read and a set a write: each bounded by its reply time-out
  // (TCP's own retransmissions happen inside it).
  EXPECT_LE(slowest_read, 3 * kReplyTimeoutMs + 10000);
  EXPECT_LE(slowest_write, 2 * kReplyTimeoutMs + 10000);
  // Retransmission hides most losses; a link where nothing gets through is a broken test.
  EXPECT_GT(reads_ok + writes_ok, kRounds);
  std::printf(
      "10 %% loss: %d/%d page reads and %d/%d writes complete, slowest %lld / %lld ms; %llu of %llu "
      "packets dropped\n",
      reads_ok, kRounds, writes_ok, kRounds, static_cast<long long>(slowest_read),
      static_cast<long long>(slowest_write), static_cast<unsigned long long>(link_.dropped()),
      static_cast<unsigned long long>(link_.dropped() + link_.carried()));
}

TEST_F(NetworkFault, AWireCutMidUpgradeEndsItWithItsMessageAndAReadFailsWithinItsTimeOut) {
  // A piece waits 1.5 s here instead of a minute, so the cut shows quickly.
  m_->SetKtcTimeouts(Ms(1500));
  ASSERT_TRUE(ConnectAcross());
  ASSERT_EQ(Upgrade(WriteImage(512 * 1024)), 0);
  ASSERT_TRUE(log_->Wait([&] { return m_->getUpgradeProgress() >= 4; }, std::chrono::seconds(30)));
  link_.SetDown(true);
  const auto cut = Clock::now();
  ASSERT_TRUE(log_->Wait([&] { return !m_->getIsUpgrading(); }, std::chrono::seconds(30)));
  const auto ended_ms = MsSince(cut);
  EXPECT_EQ(Error(), kTransferFailed);
  EXPECT_LE(ended_ms, 10000);  // a piece waits a minute unless told otherwise
  EXPECT_EQ(sim_->UpgradesReceived(), 0u);

  // Still cut: a page read fails within its three time-outs and keeps the values.
  auto start = Clock::now();
  EXPECT_EQ(ReadPage(7), "kept");
  const auto read_ms = MsSince(start);
  EXPECT_LT(read_ms, 3 * kReplyTimeoutMs);  // what three reads that kept their default would take
  EXPECT_FALSE(m_->CheckLidarConnection());

  // The wire mended: a new connection reads again.
  link_.SetDown(false);
  m_->Stop();
  ASSERT_TRUE(ConnectAcross());
  EXPECT_EQ(ReadPage(8), "read");
  std::printf("wire cut: upgrade ended %lld ms after the cut, page read failed after %lld ms\n",
              static_cast<long long>(ended_ms), static_cast<long long>(read_ms));
}

}  // namespace
