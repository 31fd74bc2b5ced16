// Restart, reset and the log downloads against the virtual lidar: what goes on the wire,
// what the user is told, what lands on disk, and that the sensor comes back.

#include <QDir>
#include <QFile>
#include <QProcess>
#include <QStandardPaths>
#include <QUrl>

#include <gtest/gtest.h>

#include <chrono>

#include "file_text.h"
#include "journal_history.h"
#include "manager_test_support.h"

using varkel::sim::FailureMode;

namespace {

const std::string kMainta = vktest::kTableHeader +
                            "0,Device,Settings,Logs,,,,,,,,,,,,,,\n"
                            "1,1,0x13,,,SN,0,string,,,,,,1_1_1_0,8,0,,\n"
                            "1,2,0x20,0x21,0,Speed,1,uint16,10,,,,,1_1_2_1,2,0,,\n"
                            "2,1,,0x10,0,Restart,0,raw,,,,,,1_1_3_6,0,0,,\n"
                            "2,2,,0x25,0,Reset,0,raw,,,,,,1_1_4_6,0,0,,\n"
                            "3,1,0x60,,,Operation Log,0,raw,,,,,,1_2_1_6,0,0,,\n"
                            "3,2,0x61,,,Fault Log,0,raw,,,,,,1_2_2_6,0,0,,\n"
                            "3,3,0x62,,,../../Evil Log,0,raw,,,,,,1_2_3_6,0,0,,\n";

class ManagerMaintenance : public vktest::ManagerTest {
 protected:
  void SetUp() override {
    ManagerTest::SetUp();
    Load("Mainta", kMainta);
    sim_->SetRestartDelay(400);
    sim_->SetLogSize(64 * 1024);
  }

  QString Folder(const std::string& name) {
    const QString path = QString::fromStdString(root_ + "/" + name);
    QDir().mkpath(path);
    return path;
  }
  // The files of `folder` whose names start with `prefix`.
  QStringList FilesIn(const QString& folder, const QString& prefix) {
    return QDir(folder).entryList({prefix + "*"}, QDir::Files);
  }
  bool WaitDownload() {
    return log_->Wait([&] { return log_->Has("downloadFinished"); });
  }
  bool WaitOperationLog() {
    return log_->Wait([&] { return log_->HasPrefix("downloadOperationLogFinished("); });
  }
  std::string Success() { return m_->getSuccessMessage().toStdString(); }
};

}  // namespace

TEST_F(ManagerMaintenance, RestartDisconnectsAndTheSensorAcceptsAgainAfterItsDelay) {
  EXPECT_EQ(Error(), "");
  ASSERT_TRUE(Connect());

  sim_->SetFailure(FailureMode::kReturnCode, 0x10, 3);
  EXPECT_EQ(m_->Restart(), 3);
  EXPECT_EQ(Error(), "Auto reboot failed, ret_code: 3. Please reboot lidar manually.");
  EXPECT_TRUE(m_->getIsConnected());
  EXPECT_EQ(sim_->RestartCount(), 0u);

  sim_->ClearFailures();
  EXPECT_EQ(m_->Restart(), 0);
  EXPECT_EQ(sim_->CommandCount(0x10), 2u);
  EXPECT_EQ(sim_->LastPayload(0x10), std::vector<uint8_t>{});
  EXPECT_FALSE(m_->getIsConnected());
  log_->Flush();
  EXPECT_TRUE(log_->Has("INFO: Lidar disconnected"));
  EXPECT_TRUE(log_->Wait([&] { return sim_->RestartCount() == 1u; }));

  // While the sensor restarts a connection is refused; afterwards it works again.
  log_->Clear();
  Aim(*m_, *sim_);
  ASSERT_TRUE(m_->ConnectLidar());
  ASSERT_TRUE(log_->WaitConnectOver(*m_));
  EXPECT_TRUE(log_->Has("ERROR: Connection Error: TCP connection failed."));
  ASSERT_TRUE(vktest::WaitListening(sim_->port()));
  EXPECT_TRUE(Connect());
}

TEST_F(ManagerMaintenance, ResetBringsTheDefaultsBackAndTheLowerCaseNameIsFound) {
  ASSERT_TRUE(Connect());
  ASSERT_TRUE(sim_->SetValue("Speed", "77"));
  EXPECT_EQ(m_->Reset(), 0);
  EXPECT_TRUE(log_->Wait([&] { return sim_->ResetCount() == 1u; }));
  EXPECT_FALSE(m_->getIsConnected());
  ASSERT_TRUE(vktest::WaitListening(sim_->port()));
  ASSERT_TRUE(Connect());
  EXPECT_TRUE(m_->UpdateSingleVarInfo("Speed"));
  EXPECT_EQ(Value("Speed"), "10");

  // A table that spells the names in lower case; one without them.
  std::string lower = kMainta;
  lower.replace(lower.find(",Restart,"), 9, ",restart,");
  lower.replace(lower.find(",Reset,"), 7, ",reset,");
  Load("Lower", lower);
  sim_->SetRestartDelay(100);
  ASSERT_TRUE(Connect());
  EXPECT_EQ(m_->Restart(), 0);
  EXPECT_TRUE(log_->Wait([&] { return sim_->RestartCount() == 1u; }));

  Load("Testa", vktest::TestaTable());  // a Restart row, no Reset row
  ASSERT_TRUE(Connect());
  EXPECT_EQ(m_->Reset(), -1);
  EXPECT_EQ(Error(), "Can not find reset name");
  EXPECT_TRUE(m_->getIsConnected());
}

TEST_F(ManagerMaintenance, ALogArrivesWholeInTheChosenFolderAndTheProgramsFailuresAreReported) {
  ASSERT_TRUE(Connect());
  sim_->SetLogSize(16u * 1024u * 1024u);  // logs of several MiB are common
  const QString folder = Folder("logs");
  ASSERT_EQ(m_->DownloadLog(QUrl::fromLocalFile(folder), "Fault Log"), 0);
  ASSERT_TRUE(WaitDownload());
  EXPECT_EQ(Success(), "Fault Log download successful.");
  const QStringList files = FilesIn(folder, "Fault Log_");
  ASSERT_EQ(files.size(), 1);
  EXPECT_EQ(files[0].size(), QString("Fault Log_yyyyMMdd-hhmmss.bin").size());
  const std::vector<uint8_t> body = vktest::FileBytes((folder + "/" + files[0]).toStdString());
  EXPECT_EQ(body.size(), 16u * 1024u * 1024u);
  EXPECT_TRUE(body == sim_->LogBody("Fault Log").value());
  EXPECT_FALSE(m_->getIsDownloadLog());
  EXPECT_EQ(log_->Count("isDownloadLogChanged"), 2);
  sim_->SetLogSize(4096);

  struct Case {
    const char* what;
    QString folder, type;
    std::string error;
  };
  // The sensor's own failures are rows of the fault matrix; these are the program's.
  const Case cases[] = {{"not in the table", folder, "Nope Log", "Can not find Nope Log name"},
                        {"no such folder", folder + "/missing", "Fault Log", "Fault Log: Failed to open file."}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    log_->Clear();
    m_->setErrorMsg("");
    ASSERT_EQ(m_->DownloadLog(QUrl::fromLocalFile(c.folder), c.type), 0);
    ASSERT_TRUE(WaitDownload());
    EXPECT_EQ(Error(), c.error);
    EXPECT_FALSE(m_->getIsDownloadLog());
  }
  EXPECT_EQ(FilesIn(folder, "Fault Log_").size(), 1);  // nothing written by the failures

  // A table's name with "/" and ".." stays inside the folder.
  log_->Clear();
  ASSERT_EQ(m_->DownloadLog(QUrl::fromLocalFile(folder), "../../Evil Log"), 0);
  ASSERT_TRUE(WaitDownload());
  EXPECT_EQ(Success(), "../../Evil Log download successful.");
  EXPECT_EQ(FilesIn(folder, "______Evil Log_").size(), 1);
  EXPECT_TRUE(FilesIn(QString::fromStdString(root_), "Evil").isEmpty());
  EXPECT_TRUE(FilesIn(QDir(QString::fromStdString(root_)).absoluteFilePath(".."), "Evil").isEmpty());
}

TEST_F(ManagerMaintenance, ASecondDownloadIsRefusedWhileOneRuns) {
  ASSERT_TRUE(Connect());
  sim_->SetFailure(FailureMode::kDelay, 0x61, 600);
  const QUrl folder = QUrl::fromLocalFile(Folder("logs"));
  ASSERT_EQ(m_->DownloadLog(folder, "Fault Log"), 0);
  ASSERT_TRUE(log_->Wait([&] { return m_->getIsDownloadLog(); }));
  EXPECT_EQ(m_->DownloadLog(folder, "Fault Log"), -1);
  EXPECT_EQ(m_->DownloadOperationLog(folder), -1);
  EXPECT_EQ(m_->Restart(), -1);
  ASSERT_TRUE(WaitDownload());
  EXPECT_EQ(log_->Count("downloadFinished"), 1);
}

// Closing ends the work nobody else would end: a download waiting on a silent sensor, and
// a tar that does not finish (a stand-in found first on PATH).
TEST_F(ManagerMaintenance, ClosingEndsTheDownloadAndTheTarInFlight) {
  using Clock = std::chrono::steady_clock;
  ASSERT_TRUE(Connect());
  sim_->SetFailure(FailureMode::kNoReply, 0x61);
  ASSERT_EQ(m_->DownloadLog(QUrl::fromLocalFile(Folder("logs")), "Fault Log"), 0);
  ASSERT_TRUE(log_->Wait([&] { return sim_->CommandCount(0x61) == 1; }));
  auto start = Clock::now();
  log_.reset();
  m_.reset();
  EXPECT_LT(Clock::now() - start, std::chrono::seconds(10));

  const QString bin = Folder("bin");
  const QString ran = bin + "/tar.ran";
  {
    QFile tar(bin + "/tar");
    ASSERT_TRUE(tar.open(QIODevice::WriteOnly));
    tar.write(QString("#!/bin/sh\ntouch '%1'\nexec sleep 60\n").arg(ran).toUtf8());
    tar.setPermissions(tar.permissions() | QFileDevice::ExeOwner);
  }
  const QByteArray path = qgetenv("PATH");
  qputenv("PATH", bin.toLocal8Bit() + ":" + path);
  m_ = std::make_unique<vktest::TestManager>();
  m_->InitConfigFileParser("Mainta");
  log_ = std::make_unique<vktest::SignalLog>(m_.get());
  ASSERT_TRUE(Connect());
  ASSERT_EQ(m_->DownloadOperationLog(QUrl::fromLocalFile(QString::fromStdString(root_ + "/ops"))), 0);
  const bool tar_ran = log_->Wait([&] { return QFile::exists(ran); });
  qputenv("PATH", path);
  ASSERT_TRUE(tar_ran);
  start = Clock::now();
  log_.reset();
  m_.reset();
  EXPECT_LT(Clock::now() - start, std::chrono::seconds(10));
}

TEST_F(ManagerMaintenance, TheOperationLogArchiveHoldsItsFourParts) {
  ASSERT_TRUE(Connect());
  // An archive cut short by a close (an earlier test here) leaves its parts in the work folder.
  const QString work = QStandardPaths::writableLocation(QStandardPaths::DocumentsLocation) + "/operation_log";
  ASSERT_TRUE(QDir(work).removeRecursively());
  const QString archive = QString::fromStdString(root_ + "/ops");
  ASSERT_EQ(m_->DownloadOperationLog(QUrl::fromLocalFile(archive)), 0);
  ASSERT_TRUE(WaitOperationLog());
  EXPECT_TRUE(log_->Has("downloadOperationLogFinished(true)"));
  EXPECT_EQ(Success(), "Operation log download successful.");
  EXPECT_EQ(sim_->CommandCount(0x60), 4u);
  EXPECT_EQ(sim_->LastPayload(0x60), (std::vector<uint8_t>{0x01, 0x01}));  // the last part: application errors
  EXPECT_FALSE(QDir(work).exists());

  // Unpack and compare each part with what the sensor holds.
  const QString out = Folder("unpacked");
  ASSERT_EQ(QProcess::execute("tar", {"-xf", archive + ".tar", "-C", out}), 0);
  const std::pair<const char*, uint16_t> parts[] = {
      {"bsw_warning_", 0x0000}, {"asw_warning_", 0x0001}, {"bsw_error_", 0x0100}, {"asw_error_", 0x0101}};
  for (const auto& [prefix, selector] : parts) {
    const QStringList found = FilesIn(out, prefix);
    ASSERT_EQ(found.size(), 1) << prefix;
    EXPECT_EQ(found[0].size(), QString(prefix).size() + QString("yyyy_MM_dd_hh_mm_ss.bin").size());
    EXPECT_TRUE(vktest::FileBytes((out + "/" + found[0]).toStdString()) ==
                sim_->LogBody("Operation Log", selector).value())
        << prefix;
  }
  EXPECT_EQ(FilesIn(out, "").size(), 4);

  // The name's ending is checked as written: "ops.TAR" gets ".tar" too.
  log_->Clear();
  ASSERT_EQ(m_->DownloadOperationLog(QUrl::fromLocalFile(archive + ".TAR")), 0);
  ASSERT_TRUE(WaitOperationLog());
  EXPECT_TRUE(QFile::exists(archive + ".TAR.tar"));

  // A part the sensor refuses fails the archive and leaves the fetched parts for the user.
  sim_->SetFailure(FailureMode::kReturnCode, 0x60, 2);
  log_->Clear();
  m_->DownloadOperationLogThread(QUrl::fromLocalFile(root_.c_str() + QString("/failed")));
  log_->Flush();
  EXPECT_TRUE(log_->Has("downloadOperationLogFinished(false)"));
  EXPECT_EQ(Error(), "Operation log download failed.");
  EXPECT_EQ(FilesIn(work, "").size(), 4);
  EXPECT_FALSE(m_->getIsDownloadLog());
}

// The History page's bundle while connected: the sensor's part from the values the window
// read, and its console command in the journal, with its serial number.
TEST_F(ManagerMaintenance, TheSupportBundleCarriesTheConnectedSensorAndItsJournal) {
  ASSERT_TRUE(Connect());
  m_->GetLidarModuleInfo(0);
  m_->SendCommand("20", "");
  auto* history = qobject_cast<JournalHistory*>(m_->history());
  ASSERT_NE(history, nullptr);
  const QString archive = QString::fromStdString(root_ + "/support.tar.gz");
  ASSERT_TRUE(history->saveBundle(QUrl::fromLocalFile(archive).toString()));
  history->WaitForBundle();
  EXPECT_EQ(history->bundleMessage(), "Support bundle saved: " + archive);
  const QString out = Folder("bundle");
  ASSERT_EQ(QProcess::execute("tar", {"-xzf", archive, "-C", out}), 0);
  EXPECT_NE(vktest::FileText((out + "/sensor/backup.json").toStdString()).find(sim_->Value("SN")), std::string::npos);
  EXPECT_TRUE(QFile::exists(out + "/version.txt"));
  const std::string text = vktest::FileText((out + "/journal/journal.jsonl").toStdString());
  EXPECT_NE(text.find("\"what\":\"console\""), std::string::npos) << text;
  EXPECT_NE(text.find("\"serial\":\"" + sim_->Value("SN") + "\""), std::string::npos) << text;
}
