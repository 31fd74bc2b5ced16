// Every failure mode of the virtual lidar against every controller operation that talks to
// a sensor. Each cell checks the outcome the user sees (docs/reliability.md has the same
// grid), that it came within the operation's time-out, that no busy flag stayed up, and
// that afterwards, with the fault cleared, the same controller reads correctly again.
// One test per operation; each prints its row and writes it to the log folder, where
// scripts/test.sh gathers the whole grid.
#include <QDir>
#include <QFile>
#include <QUrl>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "manager_test_support.h"
#include "param_name.h"

namespace {

using Clock = std::chrono::steady_clock;
using Ms = std::chrono::milliseconds;
using varkel::sim::FailureMode;

// Every KTC time-out of the controller under test (reply, download idle, file piece).
constexpr int kTimeoutMs = 300;
// A cell's bound is what the operation would take had it ignored kTimeoutMs and waited
// the controller's own reply time-out on each exchange, and never under 10 s: a loaded
// machine cannot break it, an operation that waits out its default can.
constexpr int kDefaultTimeoutMs = 4000;
constexpr int kLeastBoundMs = 10000;

struct Mode {
  const char* name;
  FailureMode mode;
  int param;
  bool link_lost;
};

// The columns of the grid.
const Mode kModes[] = {
    {"no-reply", FailureMode::kNoReply, 0, false},
    {"delay", FailureMode::kDelay, 2 * kTimeoutMs, false},
    {"return-code", FailureMode::kReturnCode, 1, false},
    {"wrong-echo-cmd", FailureMode::kWrongEchoCmd, 0, false},
    {"wrong-identifiers", FailureMode::kWrongIdentifiers, 0, false},
    {"noise-before-header", FailureMode::kNoiseBeforeHeader, 5, false},
    {"split-header", FailureMode::kSplitHeader, 3, false},
    {"truncated-payload", FailureMode::kTruncatedPayload, 0, false},
    {"lying-length", FailureMode::kLyingLength, 16, false},
    {"reset-mid-reply", FailureMode::kResetMidReply, 0, false},
    {"slow-drip", FailureMode::kSlowDrip, 1, false},
    {"disconnect-after-pieces", FailureMode::kDisconnectAfterPieces, 1, false},
    {"refuse-piece", FailureMode::kRefusePiece, 1, false},
    {"silent-after-pieces", FailureMode::kSilentAfterPieces, 1, false},
    {"link-lost", FailureMode::kNone, 0, true},
};
constexpr size_t kModeCount = sizeof(kModes) / sizeof(kModes[0]);

using vktest::kConnectFailed;
using vktest::kSetSuccess;
using vktest::kTransferFailed;
using vktest::kTransmitted;

const char kConsoleFailed[] = "Query ktc command fail. Please input right ktc command header and payload.";
const char kOtaTransmitted[] = "Upgrade package transmitted successfully. The lidar will automatically reboot.";
const char kOtaFailed[] = "Upgrade package transfer failed or is terminated. error:";

bool StartsWith(const std::string& s, const std::string& prefix) {
  return s.rfind(prefix, 0) == 0;
}

// What one operation showed: whether it did its work, and the words the user got.
struct Outcome {
  bool ok = false;
  std::string text;
};

class FaultMatrix;

struct Operation {
  const char* name;
  bool small;     // on a small sensor over KTC ("Zelto-KTC") instead of the network model
  int exchanges;  // its bound: this many default time-outs
  // One letter per mode of kModes: '.' it succeeds, 'F' it fails with its message.
  const char* expected;
  std::function<Outcome(FaultMatrix&)> run;
};

class FaultMatrix : public vktest::ManagerTest, public ::testing::WithParamInterface<int> {
 public:
  // The operations below drive the fixture's controller and simulator.
  using ManagerTest::Error;
  using ManagerTest::log_;
  using ManagerTest::m_;
  using ManagerTest::root_;
  using ManagerTest::sim_;
  using ManagerTest::Value;

  void SetUp() override {
    ManagerTest::SetUp();
    const Operation& op = Op();
    Load(op.small ? "Zelto-KTC" : "Faulta", op.small ? vktest::TestaTable() : vktest::NetworkTable());
    m_->SetKtcTimeouts(Ms(kTimeoutMs));
    m_->SetRebootWait(Ms(100));
    m_->SetModeSwitchWait(Ms(50));
    sim_->SetRestartDelay(150);
    sim_->SetLogSize(512);
    ASSERT_TRUE(Reconnect());
  }

  const Operation& Op() const;

  // The user's way back after a fault: once the sensor listens again, a connection the
  // periodic check finds dead is stopped and made anew.
  bool Reconnect() {
    if (!vktest::WaitListening(sim_->port())) return false;
    if (m_->getIsConnected() && m_->CheckLidarConnection()) return true;
    if (m_->getIsConnected()) m_->Stop();
    log_->Flush();
    return Op().small ? ConnectSmallSensor(false) : Connect(*m_, *sim_, *log_);
  }

  // The read that proves recovery: a value changed on the sensor shows after a read.
  ::testing::AssertionResult ReadsCorrectly(int round) {
    if (Op().small) {
      auto state = sim_->SmallSensor();
      state.destination_port = static_cast<uint16_t>(3000 + round);
      sim_->SetSmallSensor(state);
      const QStringList shown = QVariant(m_->ZeltoGetDestinationConfig()).toStringList();
      if (shown == QStringList{"192.168.1.100", QString::number(3000 + round)}) return ::testing::AssertionSuccess();
      return ::testing::AssertionFailure() << "destination read '" << shown.join(':').toStdString() << "', " << Error();
    }
    const std::string gain = std::to_string(100 + round);
    sim_->SetValue("Gain", gain);
    m_->GetLidarModuleInfo(0);
    if (Value("Gain") == gain) return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << "page shows Gain " << Value("Gain") << ", sensor has " << gain;
  }

  // Processes signals until `done` holds; the operations' own bounds are checked apart.
  bool Until(const std::function<bool()>& done) { return log_->Wait(done, std::chrono::seconds(30)); }

  QUrl WriteFile(const std::string& name, const std::string& first_line, int size) {
    return vktest::WriteImage(root_, name, first_line, size);
  }

  std::string Success() { return m_->getSuccessMessage().toStdString(); }

  int round_ = 0;
  // Set by an operation that sent the restart command.
  bool restart_sent_ = false;
};

// The grid, row by row. Columns follow kModes:
//   no-reply, delay, return-code, wrong-echo-cmd, wrong-identifiers, noise-before-header,
//   split-header, truncated-payload, lying-length, reset-mid-reply, slow-drip,
//   disconnect-after-pieces, refuse-piece, silent-after-pieces, link-lost
const std::vector<Operation>& Operations() {
  static const std::vector<Operation> ops = {
      {"connect", false, 2, "FFFFF..FFF....F",
       [](FaultMatrix& t) {
         t.m_->Stop();
         t.log_->Flush();
         t.log_->Clear();
         t.m_->ConnectLidar();
         t.log_->WaitConnectOver(*t.m_);
         if (t.m_->getIsConnected()) return Outcome{true, "connected"};
         return Outcome{false, t.Error()};
       }},
      {"page read", false, 3, "FFFFF..FFF....F",
       [](FaultMatrix& t) {
         const std::string before = t.Value("Gain");
         const std::string fresh = before == "7" ? "8" : "7";
         t.sim_->SetValue("Gain", fresh);
         t.m_->GetLidarModuleInfo(0);
         if (t.Value("Gain") == fresh) return Outcome{true, "read"};
         // A failed read keeps what the page showed; it never shows a half-read value.
         return Outcome{false, t.Value("Gain") == before ? "values kept" : "value changed to " + t.Value("Gain")};
       }},
      {"page write", false, 2, "FFFFF..FFF....F",
       [](FaultMatrix& t) {
         const std::string speed = std::to_string(500 + t.round_);
         t.m_->SetText(1, 0, 1, 0, QString::fromStdString(speed));
         t.m_->Run(0);
         const bool written = t.Success() == kSetSuccess && t.sim_->Value("Speed") == speed;
         if (written && t.m_->getSetMapSize() == 0) return Outcome{true, "written"};
         // Nothing of the user's is lost: the edit stays pending for the next Save.
         if (StartsWith(t.Error(), "Set Failed: ") && t.m_->getSetMapSize() == 1) return Outcome{false, t.Error()};
         return Outcome{false, "unexpected: " + t.Error() + " / " + t.Success()};
       }},
      {"field-of-view write", false, 2, "FFFFF..FFF....F",
       [](FaultMatrix& t) {
         t.sim_->SetFov({0, 0, 0, 0, 0}, {36000, 36000, 36000, 36000, 36000});
         t.m_->SetMultiFovConfig(0, "12.5");
         t.m_->Run(0);
         if (t.Success() == kSetSuccess && t.sim_->FovStart()[0] == 1250) return Outcome{true, "written"};
         if (StartsWith(t.Error(), "Set Failed: ") && t.m_->getSetMapSize() == 1) return Outcome{false, t.Error()};
         return Outcome{false, "unexpected: " + t.Error() + " / " + t.Success()};
       }},
      {"console", false, 1, "FFFFF..FFF....F",
       [](FaultMatrix& t) {
         t.m_->SendCommand("07", "");
         if (t.Error().empty() && !t.m_->getSendKtcCommandReturnHeader().isEmpty()) return Outcome{true, "reply shown"};
         return Outcome{false, t.Error()};
       }},
      {"restart", false, 1, "FFFFF..FFF....F",
       [](FaultMatrix& t) {
         t.restart_sent_ = true;
         const int code = t.m_->Restart();
         if (code == 0 && !t.m_->getIsConnected()) return Outcome{true, "restarted"};
         if (code != 0 && StartsWith(t.Error(), "Auto reboot failed, ret_code: ")) return Outcome{false, t.Error()};
         return Outcome{false, "unexpected: code " + std::to_string(code) + " " + t.Error()};
       }},
      {"log download", false, 1, "FFFFF..FFF....F",
       [](FaultMatrix& t) {
         const QString folder = QString::fromStdString(t.root_ + "/logs-" + std::to_string(t.round_));
         QDir().mkpath(folder);
         if (t.m_->DownloadLog(QUrl::fromLocalFile(folder), "Fault Log") != 0) return Outcome{false, "refused"};
         t.Until([&] { return t.log_->Has("downloadFinished"); });
         const QStringList files = QDir(folder).entryList(QDir::Files);
         if (t.Success() == "Fault Log download successful.") {
           QFile f(folder + "/" + files.value(0));
           const bool same = files.size() == 1 && f.open(QIODevice::ReadOnly) && f.readAll().toStdString() == [&] {
             const auto body = *t.sim_->LogBody("Fault Log");
             return std::string(body.begin(), body.end());
           }();
           return same ? Outcome{true, "file whole"} : Outcome{false, "file differs from the log"};
         }
         // A failed download leaves no partial file behind.
         if (StartsWith(t.Error(), "Fault Log download failed. return code: ") && files.isEmpty())
           return Outcome{false, t.Error()};
         return Outcome{false, "unexpected: " + t.Error() + " files " + std::to_string(files.size())};
       }},
      {"upgrade", false, 4, "FFFFF..FFF.FFFF",
       [](FaultMatrix& t) {
         const QVariantList place = vktest::UpgradePlace(*t.m_);
         const uint64_t restarts = t.sim_->RestartCount();
         const uint64_t images = t.sim_->UpgradesReceived();
         const QUrl url = t.WriteFile("fw.patch", "VERSION=9.9.9\n", 2500);
         if (t.m_->UpgradeLidar(url, place[2].toInt(), place[3].toInt(), place[4].toInt()) != 0)
           return Outcome{false, "refused"};
         t.Until([&] {
           return !t.m_->getIsUpgrading() &&
                  (t.log_->Has("errorMessageChanged") || t.log_->Has("successMessageChanged"));
         });
         if (t.Success() == kTransmitted) {
           // Then the pause and the restart command, which ends the connection.
           t.Until([&] { return !t.m_->getIsConnected() || !t.Error().empty(); });
           return t.m_->getIsConnected() ? Outcome{false, "transmitted, then: " + t.Error()}
                                         : Outcome{true, "transmitted, restarted"};
         }
         // A failed transfer neither restarts the sensor nor leaves it an image to run.
         std::this_thread::sleep_for(Ms(300));
         if (t.sim_->RestartCount() != restarts || t.sim_->UpgradesReceived() != images)
           return Outcome{false, "restarted or installed after: " + t.Error()};
         return Outcome{false, t.Error()};
       }},
      {"small: spin rate", true, 1, "FFFFF..FFF....F",
       [](FaultMatrix& t) {
         t.m_->ZeltoSetSpinRate(300);
         if (t.Error().empty() && t.sim_->SmallSensor().spin_rate == 44) return Outcome{true, "set"};
         return Outcome{false, t.Error()};
       }},
      {"small: destination", true, 1, "FFFFF..FFF....F",
       [](FaultMatrix& t) {
         const QVariantList shown = t.m_->ZeltoGetDestinationConfig();
         if (!shown.isEmpty() && t.Error().empty()) return Outcome{true, "read"};
         if (shown.isEmpty()) return Outcome{false, t.Error()};
         return Outcome{false, "unexpected: " + t.Error()};
       }},
      {"small: function safety", true, 1, "FFFFF..FFF....F",
       [](FaultMatrix& t) {
         const QVariantList shown = t.m_->ZeltoGetLidarFunctionSafety();
         if (!shown.isEmpty() && t.Error().empty()) return Outcome{true, "read"};
         if (shown.isEmpty()) return Outcome{false, t.Error()};
         return Outcome{false, "unexpected: " + t.Error()};
       }},
      {"small: upgrade", true, 6, "FFFFF..FFF.FFFF",
       [](FaultMatrix& t) {
         const QUrl url = t.WriteFile("zelto.bin", "VERSION=Z-9.9\n", 2500);
         t.m_->ZeltoSetUpgradeMode(0);
         if (t.m_->ZeltoUpgradeLidar(url) != 0) return Outcome{false, "refused: " + t.Error()};
         t.Until([&] {
           return !t.m_->getIsUpgrading() &&
                  (t.log_->Has("errorMessageChanged") || t.log_->Has("successMessageChanged"));
         });
         // The sensor reboots after an image, whole or not: the line is let go either way.
         if (!t.Until([&] { return !t.m_->getIsConnected(); })) return Outcome{false, "still connected"};
         if (t.Success() == kOtaTransmitted) return Outcome{true, "transmitted"};
         return Outcome{false, t.Error()};
       }},
  };
  return ops;
}

const Operation& FaultMatrix::Op() const {
  return Operations()[static_cast<size_t>(GetParam())];
}

// Failure messages each operation may give; anything else in a failed cell is a fault.
bool DocumentedFailure(const std::string& op, const std::string& text) {
  if (op == "connect") return text == kConnectFailed;
  if (op == "page read") return text == "values kept";
  if (op == "page write" || op == "field-of-view write") return StartsWith(text, "Set Failed: ");
  if (op == "console") return text == kConsoleFailed;
  if (op == "restart") return StartsWith(text, "Auto reboot failed, ret_code: ");
  if (op == "log download") return StartsWith(text, "Fault Log download failed. return code: ");
  if (op == "upgrade") return text == kTransferFailed;
  if (op == "small: spin rate") return StartsWith(text, "set lidar spin rate error, ret:");
  if (op == "small: destination") return StartsWith(text, "get destination config error, ret:");
  if (op == "small: function safety") return StartsWith(text, "get function safety error, ret:");
  if (op == "small: upgrade") return StartsWith(text, kOtaFailed);
  return false;
}

std::string Slug(const std::string& name) {
  std::string out;
  for (char c : name) out += (std::isalnum(static_cast<unsigned char>(c)) ? c : '-');
  return out;
}

TEST_P(FaultMatrix, EveryModeEndsAsDocumentedWithinItsTimeOutAndTheControllerRecovers) {
  const Operation& op = Op();
  ASSERT_EQ(std::string(op.expected).size(), kModeCount) << op.name;
  const int bound_ms = std::max(kLeastBoundMs, op.exchanges * kDefaultTimeoutMs);

  std::ostringstream row;
  std::ostringstream lines;
  for (size_t i = 0; i < kModeCount; ++i) {
    const Mode& mode = kModes[i];
    SCOPED_TRACE(std::string(op.name) + " x " + mode.name);
    round_ = static_cast<int>(i) + 1;
    ASSERT_TRUE(Reconnect());
    log_->Flush();
    log_->Clear();
    m_->setErrorMsg("");
    m_->setSuccessMsg("");
    log_->Flush();
    log_->Clear();

    if (mode.link_lost)
      sim_->SetLinkLost(true);
    else
      sim_->SetFailure(mode.mode, -1, mode.param);
    restart_sent_ = false;
    const auto start = Clock::now();
    const Outcome outcome = op.run(*this);
    const auto ms = std::chrono::duration_cast<Ms>(Clock::now() - start).count();
    sim_->ClearFailures();
    sim_->SetLinkLost(false);
    if (restart_sent_) {
      // The lidar may read the restart command only after the exchange gave up (its
      // connection still busy with a late reply to a refresh read), then restart under the
      // recovery, which found it listening. Once the line is let go and the lidar has
      // served all it read, a restart it took has begun: its socket no longer listens.
      m_->Stop();
      EXPECT_TRUE(vktest::PollUntil([&] { return sim_->KtcConnectionsOpen() == 0; }));
    }

    const bool expect_ok = op.expected[i] == '.';
    EXPECT_EQ(outcome.ok, expect_ok) << outcome.text;
    if (!outcome.ok) EXPECT_TRUE(DocumentedFailure(op.name, outcome.text)) << outcome.text;
    EXPECT_LE(ms, bound_ms);
    // Busy states never outlive the operation.
    log_->Flush();
    EXPECT_FALSE(m_->getIsUpgrading());
    EXPECT_FALSE(m_->getIsDownloadLog());
    EXPECT_FALSE(m_->GetIsConnectingLidar());
    m_->ClearSetMap();

    ASSERT_TRUE(Reconnect());
    EXPECT_TRUE(ReadsCorrectly(round_));

    char cell[16];
    std::snprintf(cell, sizeof cell, " %2s %5lld", outcome.ok ? "ok" : "F", static_cast<long long>(ms));
    row << cell;
    lines << "  " << op.name << " x " << mode.name << ": " << (outcome.ok ? "ok" : "failed") << ", " << ms
          << " ms (bound " << bound_ms << "): " << outcome.text << "\n";
  }
  std::printf("%s", lines.str().c_str());

  // One line of the grid for scripts/test.sh to gather.
  char head[32];
  std::snprintf(head, sizeof head, "%-22s", op.name);
  if (const char* dir = std::getenv("VARKEL_LOG_DIR")) {
    QDir().mkpath(QString(dir) + "/fault-matrix");
    char prefix[8];
    std::snprintf(prefix, sizeof prefix, "%02d-", GetParam());
    std::ofstream(std::string(dir) + "/fault-matrix/" + prefix + Slug(op.name) + ".txt") << head << row.str() << "\n";
  }
  std::printf("%s%s\n", head, row.str().c_str());
}

INSTANTIATE_TEST_SUITE_P(Operations, FaultMatrix, ::testing::Range(0, static_cast<int>(Operations().size())),
                         [](const auto& info) { return vktest::ParamName(Operations()[info.param].name); });

}  // namespace
