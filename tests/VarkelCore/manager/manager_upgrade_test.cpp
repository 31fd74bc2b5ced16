// The generic network upgrade against the virtual lidar: what arrives, progress, the
// messages, the restart after the pause, and every way it can end.
#include <QCryptographicHash>
#include <QFile>
#include <QUrl>

#include <chrono>
#include <thread>

#include "ktc_client.h"
#include "manager_test_support.h"

namespace {

using Clock = std::chrono::steady_clock;
using varkel::sim::FailureMode;

using vktest::kTransmitted;

class ManagerUpgrade : public vktest::ManagerTest {
 protected:
  // The test table with an upgrade row (set 0x50) on page 2 and the "Firmware Version" it changes.
  void SetUp() override {
    ManagerTest::SetUp();
    Load("Testa", vktest::TestaTable() +
                      "8,1,0x08,,,Firmware Version,0,SWVER_YMD,1.0.0 (2026-01-01),,,,,2_1_6_0,16,0,,\n"
                      "8,2,,0x50,0,Firmware Upgrade,1,raw,,,,,,2_1_7_4,0,0,,\n");
    m_->SetRebootWait(std::chrono::milliseconds(300));
    place_ = vktest::UpgradePlace(*m_);
    ASSERT_EQ(place_.size(), 5);
  }

  // An image of `size` bytes announcing `version` in its first line.
  QUrl WriteImage(int size, const std::string& version = "3.1.4 (2027-02-03)") {
    const QUrl url = vktest::WriteImage(root_, "fw.patch", "VERSION=" + version + "\n", size);
    QFile f(url.toLocalFile());
    EXPECT_TRUE(f.open(QIODevice::ReadOnly));
    image_ = f.readAll();
    return url;
  }

  int Upgrade(const QUrl& url) {
    return m_->UpgradeLidar(url, place_[2].toInt(), place_[3].toInt(), place_[4].toInt());
  }

  bool WaitForEnd() {
    return log_->Wait([&] { return !m_->getIsUpgrading(); }, std::chrono::seconds(15));
  }

  QVariantList place_;
  QByteArray image_;
};

TEST_F(ManagerUpgrade, ImageArrivesWholeThenTheLidarRestartsAfterThePause) {
  // A pause no delivery delay comes near, so "no restart yet" cannot fail on a slow machine.
  constexpr auto kPause = std::chrono::seconds(10);
  m_->SetRebootWait(kPause);
  ASSERT_TRUE(Connect());
  const QUrl url = WriteImage(5000);
  const auto started = Clock::now();
  ASSERT_EQ(Upgrade(url), 0);
  EXPECT_EQ(log_->UpgradingRises(), 1);
  EXPECT_EQ(m_->getUpgradeProgressTotalLen(), 4);  // whole blocks of the file

  ASSERT_TRUE(log_->WaitFor("successMessageChanged"));
  EXPECT_FALSE(m_->getIsUpgrading());
  EXPECT_EQ(m_->getSuccessMessage().toStdString(), kTransmitted);
  // Five pieces went out, the last one partial: the bar is full.
  EXPECT_EQ(m_->getUpgradeProgress(), 5);
  ASSERT_TRUE(sim_->LastTransfer().has_value());
  EXPECT_TRUE(sim_->LastTransfer()->ok);
  EXPECT_EQ(sim_->LastTransfer()->length, 5000u);
  EXPECT_EQ(sim_->LastTransfer()->sha256_hex,
            QCryptographicHash::hash(image_, QCryptographicHash::Sha256).toHex().toStdString());
  EXPECT_EQ(sim_->CommandCount(0x50), 5u);
  EXPECT_EQ(sim_->CommandCount(0x10), 0u);

  ASSERT_TRUE(log_->Wait([&] { return log_->Has("INFO: Lidar disconnected"); }, std::chrono::seconds(40)));
  EXPECT_GE(Clock::now() - started, kPause);
  // The lidar counts the restart command before it answers; it installs the image and counts
  // the restart only once it has dropped its connections, after the controller saw the drop.
  EXPECT_EQ(sim_->CommandCount(0x10), 1u);
  EXPECT_TRUE(log_->Wait([&] { return sim_->RestartCount() == 1u; }));
  EXPECT_TRUE(log_->Wait([&] { return sim_->Value("Firmware Version") == "3.1.4 (2027-02-03)"; }));
  EXPECT_FALSE(m_->getIsConnected());
  EXPECT_FALSE(log_->Has("errorMessageChanged"));
}

TEST_F(ManagerUpgrade, RefusalsStartNothing) {
  const QUrl url = WriteImage(2048);
  ASSERT_TRUE(Connect());

  // A file that does not open, or a place with no variable: accepted, but nothing starts.
  EXPECT_EQ(Upgrade(QUrl::fromLocalFile(QString::fromStdString(root_ + "/missing.patch"))), 0);
  EXPECT_EQ(m_->UpgradeLidar(url, 1, 0, 99), 0);
  EXPECT_EQ(m_->UpgradeLidar(url, -1, 0, 0), 0);
  // An empty image would be "transmitted" and the lidar restarted on it.
  const QString empty = QString::fromStdString(root_ + "/empty.patch");
  QFile(empty).open(QIODevice::WriteOnly);
  EXPECT_EQ(Upgrade(QUrl::fromLocalFile(empty)), 0);
  EXPECT_EQ(Error(), empty.toStdString() + " is empty");
  EXPECT_FALSE(m_->getIsUpgrading());
  log_->Flush();
  EXPECT_EQ(sim_->CommandCount(0x50), 0u);
  EXPECT_EQ(sim_->RestartCount(), 0u);

  // While one upgrade runs a second one is refused.
  ASSERT_EQ(Upgrade(url), 0);
  EXPECT_EQ(Upgrade(url), -1);
  ASSERT_TRUE(log_->WaitFor("successMessageChanged"));
  EXPECT_EQ(sim_->CommandCount(0x50), 2u);
}

TEST_F(ManagerUpgrade, ClosingDuringTheRebootPauseDoesNotWaitItOut) {
  m_->SetRebootWait(std::chrono::seconds(60));
  ASSERT_TRUE(Connect());
  ASSERT_EQ(Upgrade(WriteImage(1500)), 0);
  ASSERT_TRUE(log_->WaitFor("successMessageChanged"));
  const auto start = Clock::now();
  log_.reset();
  m_.reset();
  EXPECT_LT(Clock::now() - start, std::chrono::seconds(10));
  EXPECT_EQ(sim_->RestartCount(), 0u);
}

TEST_F(ManagerUpgrade, ClosingDuringTheTransferCutsThePieceInFlightShort) {
  ASSERT_TRUE(Connect());
  // Piece 4 is never answered: it would wait out a piece's time-out (a minute).
  sim_->SetFailure(FailureMode::kSilentAfterPieces, 0x50, 3);
  ASSERT_EQ(Upgrade(WriteImage(100 * 1024)), 0);
  ASSERT_TRUE(log_->Wait([&] { return sim_->CommandCount(0x50) >= 4; }));
  const auto start = Clock::now();
  log_.reset();
  m_.reset();
  EXPECT_LT(Clock::now() - start, std::chrono::seconds(10));
  EXPECT_LT(sim_->CommandCount(0x50), 50u);
  EXPECT_EQ(sim_->UpgradesReceived(), 0u);
  EXPECT_EQ(sim_->RestartCount(), 0u);
}

}  // namespace
