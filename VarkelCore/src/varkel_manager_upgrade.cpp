// The generic firmware upgrade over the network: the file goes to the lidar as 1024-byte
// pieces with the command of a table variable, then the lidar is told to restart.

#include <QFile>
#include <QThread>
#include <QUrl>

#include <chrono>
#include <stdexcept>

#include "config_parser.h"
#include "ktc_client.h"
#include "manager_catalogue.h"
#include "var_info.h"
#include "varkel_manager.h"

namespace {

const char kTransferFailed[] = "Upgrade package transfer failed or is terminated.";
const char kTransmitted[] =
    "Upgrade package transmitted successfully. The lidar will automatically reboot within 10 seconds.";
const char kRebootFailed[] = "Auto reboot failed. Please reboot lidar manually.";
constexpr int kSettleMs = 300;

QString LocalFile(const QUrl& url) {
  return url.isLocalFile() ? url.toLocalFile() : url.toString();
}

}  // namespace

int VarkelManager::UpgradeLidar(QUrl fileUrl, int level1, int level2, int level3) {
  auto client = KtcClientHandle();
  auto catalogue = Catalogue();
  if (!client || !client->IsOpen() || is_upgrading_.load() || is_download_log_.load() || !catalogue ||
      !catalogue->parser)
    return -1;

  QFile file(LocalFile(fileUrl));
  if (!file.open(QIODevice::ReadOnly)) return 0;

  const auto& modules = catalogue->parser->module_vars;
  if (level1 < 0 || level2 < 0 || level3 < 0 || level1 >= static_cast<int>(modules.size()) ||
      level2 >= static_cast<int>(modules[level1].size()) || level3 >= static_cast<int>(modules[level1][level2].size()))
    return 0;
  const VarInfo* var = modules[level1][level2][level3];
  // The upgrade writes to the lidar, so the set command names it; a table that lists the
  // command only under Get still works.
  std::string command = var->set_cmd.empty() ? var->get_cmd : var->set_cmd;
  if (command.empty()) return 0;

  const QByteArray bytes = file.readAll();
  // One upgrade at a time, even if two calls raced past the check above.
  bool idle = false;
  if (!is_upgrading_.compare_exchange_strong(idle, true)) return -1;
  upgrade_progress_.store(0);
  upgrade_progress_total_len_.store(static_cast<int>(bytes.size() / 1024));
  emit isUpgradingChanged();

  // Lets the page show the busy state before the first piece goes out.
  QThread::msleep(kSettleMs);
  std::vector<uint8_t> data(bytes.begin(), bytes.end());
  StartWorker([this, data = std::move(data), command = std::move(command)]() mutable {
    UpgradeWorker(std::move(data), std::move(command));
  });
  return 0;
}

void VarkelManager::UpgradeWorker(std::vector<uint8_t> data, std::string command_text) {
  try {
    auto client = KtcClientHandle();
    if (!client) throw std::runtime_error("lidar disconnected before the transfer");
    const int ret = client->TransferFileByCmdText(data, command_text, upgrade_progress_);
    // Lowered before the message, and before the restart, which refuses while it is up.
    SetUpgrading(false);
    if (ret != 0) {
      setErrorMsg(kTransferFailed);
      emit sendLogMessage(kTransferFailed, "INFO");
      return;
    }
    // The deadline is fixed when the transfer ends, not when the message has been shown.
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(reboot_wait_ms_.load());
    setSuccessMsg(kTransmitted);
    if (WaitUnlessClosing(deadline)) return;
    if (Restart() != 0) setErrorMsg(kRebootFailed);
  } catch (const std::exception& e) {
    // A command text that is no hexadecimal number ends here, before anything was sent.
    SetUpgrading(false);
    emit sendLogMessage(QString("Upgrade error: ") + e.what(), "ERROR");
    setErrorMsg(kTransferFailed);
    emit sendLogMessage(kTransferFailed, "INFO");
  }
}
