// Restart, reset and the log downloads: each sends one named command of the model table.

#include <QDateTime>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QStandardPaths>
#include <QUrl>

#include <array>
#include <stdexcept>

#include "change_journal.h"
#include "ktc_client.h"
#include "log_file_name.h"
#include "maintenance_command.h"
#include "var_info.h"
#include "varkel_manager.h"

using quarn::lidar::KtcClient;

namespace {

constexpr int kTarTimeoutMs = 30000;
// How often a running tar looks whether the program is closing.
constexpr int kTarPollMs = 100;

// A file URL as a local path; a URL without scheme is taken as a path as it stands.
QString LocalPath(const QUrl& url) {
  return url.isLocalFile() ? url.toLocalFile() : url.toString();
}

}  // namespace

VarInfo* VarkelManager::FindNamedVar(std::initializer_list<const char*> spellings) {
  for (const char* name : spellings)
    if (VarInfo* var = searchVarPtr(name, "var_name")) return var;
  return nullptr;
}

bool VarkelManager::MaintenanceAllowed() const {
  auto client = KtcClientHandle();
  return client && client->IsOpen() && !is_upgrading_.load() && is_connected_.load() && !is_download_log_.load();
}

int VarkelManager::Restart() {
  return RestartOrReset(false);
}

int VarkelManager::Reset() {
  return RestartOrReset(true);
}

int VarkelManager::RestartOrReset(bool reset) {
  if (!MaintenanceAllowed()) return -1;
  const char* what = reset ? "reset" : "restart";
  try {
    VarInfo* var = reset ? FindNamedVar({"Reset", "reset"}) : FindNamedVar({"Restart", "restart"});
    if (var == nullptr) {
      setErrorMsg(QString("Can not find %1 name").arg(what));
      return -1;
    }
    const std::string& text = var->set_cmd.empty() ? var->get_cmd : var->set_cmd;
    if (text.empty()) {
      setErrorMsg(QString("Can not find %1 command").arg(what));
      return -1;
    }
    const varkel::NamedCommand named = varkel::ActionCommandOf(*var);
    auto client = KtcClientHandle();
    if (!client) return -1;
    // Silent: the sensor goes away right after answering; its bytes are of no interest.
    const bool log_bytes = log_bytes_flow_.exchange(false);
    std::vector<uint8_t> reply;
    const quarn::journal::Site site = JournalSite();
    const int ret = client->QueryCommand(named.payload, reply, named.command.cmd);
    log_bytes_flow_.store(log_bytes);
    varkel::RecordExchange(site, what, var->var_name, ret, client->GetLastReturnCode());
    if (ret == 0) {
      Stop();
      return 0;
    }
    // A failed exchange whose reply carried no code still failed.
    const int code = client->GetLastReturnCode() != 0 ? client->GetLastReturnCode() : -1;
    setErrorMsg(QString("Auto reboot failed, ret_code: %1. Please reboot lidar manually.").arg(code));
    return code;
  } catch (const std::exception& e) {
    // "retset" is the text users know; kept as it is.
    setErrorMsg((reset ? "retset error: " : "Restart error: ") + QString::fromStdString(e.what()));
    return -1;
  }
}

int VarkelManager::DownloadLog(QUrl fileUrl, QString type) {
  if (!MaintenanceAllowed()) return -1;
  StartWorker([this, fileUrl, type] { DownloadLogWorker(fileUrl, type); });
  return 0;
}

int VarkelManager::DownloadOperationLog(QUrl fileUrl) {
  if (!MaintenanceAllowed()) return -1;
  StartWorker([this, fileUrl] { DownloadOperationLogThread(fileUrl); });
  return 0;
}

void VarkelManager::SetDownloadFlag(bool value) {
  if (is_download_log_.exchange(value) != value) emit isDownloadLogChanged();
}

void VarkelManager::DownloadLogWorker(const QUrl& fileUrl, const QString& type) {
  // Only the entry refuses a second download; a worker already started goes on.
  SetDownloadFlag(true);
  try {
    const QString folder = LocalPath(fileUrl);
    // The name comes from the table: it must not lead the file out of the chosen folder.
    const QString name = QString::fromStdString(varkel::SafeLogFileStem(type.toStdString()));
    const QString target =
        folder + "/" + name + "_" + QDateTime::currentDateTime().toString("yyyyMMdd-hhmmss") + ".bin";
    VarInfo* var = searchVarPtr(type.toStdString(), "var_name");
    std::vector<uint8_t> reply;
    if (var == nullptr) {
      setErrorMsg("Can not find " + type + " name");
    } else if (var->get_cmd.empty() && var->set_cmd.empty()) {
      setErrorMsg("Can not find " + type + " command");
    } else {
      const varkel::NamedCommand named = varkel::LogCommandOf(*var, {});
      auto client = KtcClientHandle();
      const int ret = client ? client->DownloadQuery(named.payload, reply, named.command.cmd) : -1;
      if (ret == -1) {
        const int code = client ? client->GetLastReturnCode() : -1;
        setErrorMsg(type + " download failed. return code: " + QString::number(code));
      } else {
        QFile file(target);
        if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate)) {
          setErrorMsg(type + ": Failed to open file.");
        } else if (file.write(reinterpret_cast<const char*>(reply.data()), static_cast<qint64>(reply.size())) !=
                       static_cast<qint64>(reply.size()) ||
                   !file.flush()) {
          setErrorMsg(type + ": Failed to write binary data to file.");
        } else {
          setSuccessMsg(type + " download successful.");
        }
      }
    }
  } catch (const std::exception& e) {
    setErrorMsg(type + " download error: " + QString::fromStdString(e.what()));
  }
  // Every outcome lowers the flag, so the page never stays busy.
  SetDownloadFlag(false);
  emit downloadFinished();
}

bool VarkelManager::WaitForTar(QProcess& tar) {
  // In short waits: closing the program must not wait for an archive nobody will see.
  QElapsedTimer running;
  running.start();
  while (!tar.waitForFinished(kTarPollMs)) {
    if (tar.state() == QProcess::NotRunning || closing_.load() || running.elapsed() >= kTarTimeoutMs) return false;
  }
  return true;
}

void VarkelManager::DownloadOperationLogThread(QUrl fileUrl) {
  SetDownloadFlag(true);
  bool ok = false;
  try {
    QString archive = LocalPath(fileUrl);
    if (!archive.endsWith(".tar")) archive += ".tar";  // case-sensitive: "logs.TAR" becomes "logs.TAR.tar"
    archive = QFileInfo(archive).absoluteFilePath();   // tar runs in the work folder
    const QString stamp = QDateTime::currentDateTime().toString("yyyy_MM_dd_hh_mm_ss");
    const QString work = QStandardPaths::writableLocation(QStandardPaths::DocumentsLocation) + "/operation_log";
    if (!QDir().mkpath(work)) throw std::runtime_error("cannot create " + work.toStdString());

    VarInfo* var = FindNamedVar({"Operation Log", "operation log"});
    if (var == nullptr) {
      setErrorMsg("Can not find Operation Log name");
    } else if (var->get_cmd.empty() && var->set_cmd.empty()) {
      setErrorMsg("Can not find Operation Log command");
    } else {
      auto client = KtcClientHandle();
      bool all_fetched = client != nullptr;
      QStringList files;
      for (const varkel::OperationLogPart& part : varkel::kOperationLogParts) {
        const varkel::NamedCommand named = varkel::LogCommandOf(*var, {part.selector[0], part.selector[1]});
        std::vector<uint8_t> reply;
        const int ret = client ? client->DownloadQuery(named.payload, reply, named.command.cmd) : -1;
        if (ret == -1) all_fetched = false;
        const QString file_name = QString(part.prefix) + stamp + ".bin";
        QFile file(work + "/" + file_name);
        if (!file.open(QIODevice::ReadWrite | QIODevice::Truncate) ||
            file.write(reinterpret_cast<const char*>(reply.data()), static_cast<qint64>(reply.size())) !=
                static_cast<qint64>(reply.size()))
          all_fetched = false;
        files << file_name;
      }
      // An argument list, never a shell: names cannot be read as commands. The work folder
      // is tar's own working directory; the program's stays where it is.
      QProcess tar;
      tar.setWorkingDirectory(work);
      tar.setProcessChannelMode(QProcess::MergedChannels);
      bool tar_ok = false;
      // Parts cut short by a close are no archive.
      if (!closing_.load()) {
        tar.start("tar", QStringList{"-cvf", archive} + files);
        tar_ok = tar.waitForStarted() && WaitForTar(tar);
      }
      if (!tar_ok && tar.state() != QProcess::NotRunning) {
        tar.kill();
        tar.waitForFinished();
      }
      tar_ok = tar_ok && tar.exitStatus() == QProcess::NormalExit && tar.exitCode() == 0;
      ok = tar_ok && all_fetched;
      if (ok) {
        // Only what this download wrote goes; the folder too once it is empty.
        for (const QString& name : files) QFile::remove(work + "/" + name);
        QDir().rmdir(work);
        SetDownloadFlag(false);
        setSuccessMsg("Operation log download successful.");
      } else {
        SetDownloadFlag(false);
        setErrorMsg("Operation log download failed.");
      }
    }
  } catch (const std::exception& e) {
    setErrorMsg("Operation Log download error: " + QString::fromStdString(e.what()));
  }
  SetDownloadFlag(false);
  emit downloadOperationLogFinished(ok);
}
