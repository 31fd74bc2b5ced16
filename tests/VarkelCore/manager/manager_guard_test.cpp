// Every operation that talks to a sensor, in each state where the line is not its to use:
// not connected, an upgrade running, a log download running. A refused call sends nothing
// and tells the user what the cell says ("" = nothing at all); a few calls go ahead.
#include <QDir>
#include <QUrl>

#include <functional>
#include <string>

#include "manager_test_support.h"
#include "param_name.h"

namespace {

enum State { kDisconnected, kUpgrading, kDownloading };
const char* const kStateNames[] = {"disconnected", "upgrading", "downloading"};

// The cell of an operation that is carried out in that state.
const char kGoesAhead[] = "*";
const char kNotReady[] = "lidar is not connected, or lidar is upgrade";
const char kNotReadyBaud[] = "lidar is not connected, or lidar is upgrading";

class Guard;

struct GuardedOperation {
  const char* name;
  bool small;  // on a small sensor over KTC instead of the network model
  std::function<void(Guard&)> run;
  const char* refusal[3];  // what the user reads, by State
};

class Guard : public vktest::ManagerTest, public ::testing::WithParamInterface<int> {
 public:
  using ManagerTest::m_;

  // A file `name` of some bytes in the test's folder.
  QUrl File(const char* name) { return vktest::WriteImage(root_, name, "VERSION=9.9.9\n", 3000); }
  QUrl Folder() {
    QDir().mkpath(QString::fromStdString(root_ + "/out"));
    return QUrl::fromLocalFile(QString::fromStdString(root_ + "/out"));
  }

  uint64_t CommandsSent() const {
    uint64_t n = 0;
    for (int cmd = 0; cmd < 256; ++cmd) n += sim_->CommandCount(static_cast<uint8_t>(cmd));
    return n;
  }
};

const std::vector<GuardedOperation>& GuardedOperations() {
  static const std::vector<GuardedOperation> ops = {
      {"page read", false, [](Guard& t) { t.m_->GetLidarModuleInfo(0); }, {"", "", ""}},
      {"page write",
       false,
       [](Guard& t) {
         t.m_->SetText(1, 0, 1, 0, "10.0.0.9");  // the IP address
         t.m_->Run(0);
       },
       {"Please connect to lidar first", "Please wait for the lidar to upgrade completely",
        "Please wait for the operation log to download completely"}},
      {"console", false, [](Guard& t) { t.m_->SendCommand("07", ""); }, {"", "", ""}},
      {"restart", false, [](Guard& t) { EXPECT_EQ(t.m_->Restart(), -1); }, {"", "", ""}},
      {"log download",
       false,
       [](Guard& t) { EXPECT_EQ(t.m_->DownloadLog(t.Folder(), "Fault Log"), -1); },
       {"", "", ""}},
      {"operation log download",
       false,
       [](Guard& t) { EXPECT_EQ(t.m_->DownloadOperationLog(t.Folder()), -1); },
       {"", "", ""}},
      {"upgrade",
       false,
       [](Guard& t) {
         const QVariantList p = vktest::UpgradePlace(*t.m_);
         ASSERT_EQ(p.size(), 5);
         EXPECT_EQ(t.m_->UpgradeLidar(t.File("fw.patch"), p[2].toInt(), p[3].toInt(), p[4].toInt()), -1);
       },
       {"", "", ""}},
      // The small sensors' calls know no log download: their sensors have no logs to fetch.
      {"small: console", true, [](Guard& t) { t.m_->SendCommand("07", ""); }, {kNotReady, kNotReady, ""}},
      {"small: standby", true, [](Guard& t) { t.m_->ZeltoSetStandby(1); }, {kNotReady, kNotReady, kGoesAhead}},
      {"small: baud rate",
       true,
       [](Guard& t) { t.m_->ZeltoGetBaudRate(); },
       {kNotReadyBaud, kNotReadyBaud, kGoesAhead}},
      {"small: function safety",
       true,
       [](Guard& t) { t.m_->ZeltoGetLidarFunctionSafety(); },
       {kNotReady, kNotReady, kGoesAhead}},
      {"small: IMU range", true, [](Guard& t) { t.m_->MarvoSetIMURange(0, 0); }, {kNotReady, kNotReady, kGoesAhead}},
      {"small: upgrade",
       true,
       [](Guard& t) { EXPECT_EQ(t.m_->ZeltoUpgradeLidar(t.File("z.bin")), -1); },
       {kNotReady, kNotReady, kGoesAhead}},
      {"small: package upgrade",
       true,
       [](Guard& t) { EXPECT_EQ(t.m_->MarvoUpgradeLidar(t.File("m.bin")), -1); },
       {kNotReadyBaud, kNotReadyBaud, kGoesAhead}},
  };
  return ops;
}

TEST_P(Guard, RefusedInEveryBusyOrDisconnectedStateAndNothingIsSent) {
  const GuardedOperation& op = GuardedOperations()[static_cast<size_t>(GetParam())];
  Load(op.small ? "Zelto-KTC" : "Testa",
       vktest::TestaTable() + "8,2,,0x50,0,Firmware Upgrade,1,raw,,,,,,2_1_7_4,0,0,,\n");
  for (State state : {kDisconnected, kUpgrading, kDownloading}) {
    SCOPED_TRACE(std::string(op.name) + " x " + kStateNames[state]);
    const char* refusal = op.refusal[state];
    if (refusal == kGoesAhead) continue;  // its own tests show it working
    if (state != kDisconnected && !m_->getIsConnected()) {
      ASSERT_TRUE(Connect());
      // A small sensor's information thread reads on after the connect: let its first round
      // end, so what it sends is not counted as the refused call's.
      if (op.small) ASSERT_TRUE(SmallSensorInfoRead());
    }
    m_->SetUpgrading(state == kUpgrading);
    m_->setIsDownloadLog(state == kDownloading);
    m_->setErrorMsg("");
    m_->ClearSetMap();
    sim_->ResetCounters();
    const int rises = log_->UpgradingRises();

    op.run(*this);
    EXPECT_EQ(Error(), refusal);
    EXPECT_EQ(CommandsSent(), 0u);
    EXPECT_EQ(log_->UpgradingRises(), rises);
  }
  m_->SetUpgrading(false);
  m_->setIsDownloadLog(false);
}

INSTANTIATE_TEST_SUITE_P(Operations, Guard, ::testing::Range(0, static_cast<int>(GuardedOperations().size())),
                         [](const auto& info) { return vktest::ParamName(GuardedOperations()[info.param].name); });

}  // namespace
