// Firmware upgrades: the generic one over the network (the file goes to the lidar as
// 1024-byte pieces with the command of a table variable, then the lidar is told to
// restart), the small sensors' image over OTA frames or to the junction box, and the
// Marvo's component package. docs/upgrade.md has the sequences.

#include <QFile>
#include <QThread>
#include <QUrl>

#include <chrono>
#include <stdexcept>

#include "change_journal.h"
#include "config_parser.h"
#include "ktc_client.h"
#include "ktc_serial_client.h"
#include "manager_catalogue.h"
#include "marvo_package.h"
#include "serial_client.h"
#include "var_info.h"
#include "varkel_manager.h"

namespace {

const char kTransferFailed[] = "Upgrade package transfer failed or is terminated.";
const char kTransmitted[] =
    "Upgrade package transmitted successfully. The lidar will automatically reboot within 10 seconds.";
const char kRebootFailed[] = "Auto reboot failed. Please reboot lidar manually.";
constexpr int kSettleMs = 300;
const char kZeltoNotReady[] = "lidar is not connected, or lidar is upgrade";
const char kOtaTransmitted[] = "Upgrade package transmitted successfully. The lidar will automatically reboot.";
const char kOtaFailedPrefix[] = "Upgrade package transfer failed or is terminated. error:";
const char kMarvoNotReady[] = "lidar is not connected, or lidar is upgrading";
const char kJunctionBoxCommand[] = "0x83";
constexpr int kJunctionBoxMode = 2;
constexpr uint32_t kMarvoFastBaudRate = 5000000;
constexpr uint32_t kMarvoUpgradeBaudRate = 9600;

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
  if (RefusedAsEmpty(file)) return 0;

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
  if (!BeginUpgrade(bytes.size())) return -1;
  std::vector<uint8_t> data(bytes.begin(), bytes.end());
  StartWorker([this, data = std::move(data), command = std::move(command)]() mutable {
    UpgradeWorker(std::move(data), std::move(command));
  });
  return 0;
}

bool VarkelManager::RefusedAsEmpty(const QFile& file) {
  // The sensor would take an empty image as a finished one and restart on it.
  if (file.size() != 0) return false;
  setErrorMsg(file.fileName() + " is empty");
  return true;
}

bool VarkelManager::BeginUpgrade(qint64 file_size) {
  // One upgrade at a time, even if two calls raced past their entry checks.
  bool idle = false;
  if (!is_upgrading_.compare_exchange_strong(idle, true)) return false;
  upgrade_progress_.store(0);
  upgrade_progress_total_len_.store(static_cast<int>(file_size / 1024));
  emit isUpgradingChanged();
  // Lets the page show the busy state before the first piece goes out.
  QThread::msleep(kSettleMs);
  return true;
}

void VarkelManager::UpgradeWorker(std::vector<uint8_t> data, std::string command_text) {
  try {
    auto client = KtcClientHandle();
    if (!client) throw std::runtime_error("lidar disconnected before the transfer");
    const quarn::journal::Site site = JournalSite();
    const int ret = client->TransferFileByCmdText(data, command_text, upgrade_progress_);
    varkel::RecordExchange(site, "upgrade", std::to_string(data.size()) + " bytes", ret, client->GetLastReturnCode());
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

void VarkelManager::ZeltoSetUpgradeMode(int mode) {
  upgrade_mode_.store(mode);
}

void VarkelManager::SetUpgradeLink(std::shared_ptr<quarn::lidar::KtcSerialClient> link) {
  std::lock_guard<std::mutex> lock(clients_mutex_);
  upgrade_link_ = std::move(link);
  // Closing may have begun before the link was known.
  if (upgrade_link_ && closing_.load()) upgrade_link_->Cancel();
}

int VarkelManager::ZeltoUpgradeLidar(QUrl fileUrl) {
  const int type = connect_type_.load();
  bool ready = is_connected_.load() && !is_upgrading_.load();
  if (ready && type == 1) {
    std::lock_guard<std::mutex> lock(clients_mutex_);
    ready = serial_client_ && serial_source_485_;
  }
  if (ready && type == 2) {
    auto client = KtcClientHandle();
    ready = client && client->IsOpen();
  }
  if (!ready) {
    setErrorMsg(kZeltoNotReady);
    return -1;
  }
  QFile file(LocalFile(fileUrl));
  if (!file.open(QIODevice::ReadOnly)) return 0;
  if (RefusedAsEmpty(file)) return 0;
  const QByteArray bytes = file.readAll();
  if (!BeginUpgrade(bytes.size())) {
    setErrorMsg(kZeltoNotReady);
    return -1;
  }
  std::vector<uint8_t> data(bytes.begin(), bytes.end());
  const int mode = upgrade_mode_.load();
  StartWorker(
      [this, data = std::move(data), type, mode]() mutable { ZeltoUpgradeWorker(std::move(data), type, mode); });
  return 0;
}

void VarkelManager::ZeltoUpgradeWorker(std::vector<uint8_t> data, int connect_type, int mode) {
  // The junction box behind a type-2 line takes a plain file transfer with its own
  // command; over the network there is no such box and the transfer is the ordinary one,
  // with the (empty) command text the entry hands on.
  if (connect_type != 1 && connect_type != 2) return UpgradeWorker(std::move(data), std::string());
  if (connect_type == 2 && mode == kJunctionBoxMode) {
    // A piece of a large lidar's image may wait a minute for its flash; the box's may not.
    if (auto client = KtcClientHandle())
      client->SetTransferTimeoutMs(static_cast<uint32_t>(ota_reply_timeout_ms_.load()));
    return UpgradeWorker(std::move(data), kJunctionBoxCommand);
  }

  int ret = -1;
  try {
    std::shared_ptr<quarn::lidar::KtcSerialClient> link;
    if (connect_type == 1) {
      std::shared_ptr<quarn::lidar::SerialClient> serial;
      {
        std::lock_guard<std::mutex> lock(clients_mutex_);
        serial = serial_client_;
      }
      if (serial) {
        serial->SetOtaReplyTimeoutMs(static_cast<uint32_t>(ota_reply_timeout_ms_.load()));
        link = std::make_shared<quarn::lidar::KtcSerialClient>(serial);
      }
    } else if (auto client = KtcClientHandle()) {
      link = std::make_shared<quarn::lidar::KtcSerialClient>(client);
    }
    if (link) {
      SetUpgradeLink(link);
      ret = link->OtaTransfer(data, static_cast<uint32_t>(mode), upgrade_progress_);
      SetUpgradeLink(nullptr);
    }
  } catch (const std::exception& e) {
    emit sendLogMessage(QString("Upgrade error: ") + e.what(), "ERROR");
    ret = -1;
  }
  SetUpgrading(false);
  if (ret == 0) {
    setSuccessMsg(kOtaTransmitted);
  } else {
    const QString text = kOtaFailedPrefix + QString::number(ret);
    setErrorMsg(text);
    emit sendLogMessage(text, "INFO");
  }
  // The lidar reboots by itself; the line is let go either way.
  Stop();
}

int VarkelManager::MarvoUpgradeLidar(QUrl fileUrl) {
  auto client = KtcClientHandle();
  if (!is_connected_.load() || is_upgrading_.load() || connect_type_.load() != 2 || !client || !client->IsOpen()) {
    setErrorMsg(kMarvoNotReady);
    return -1;
  }
  QFile file(LocalFile(fileUrl));
  if (!file.open(QIODevice::ReadOnly)) {
    setErrorMsg("Failed to open upgrade file");
    return -1;
  }
  const QByteArray bytes = file.readAll();
  if (static_cast<size_t>(bytes.size()) < varkel::kOtaHeaderSize) {
    setErrorMsg("Upgrade package too small");
    return -1;
  }
  if (!BeginUpgrade(bytes.size())) {
    setErrorMsg(kMarvoNotReady);
    return -1;
  }
  std::vector<uint8_t> data(bytes.begin(), bytes.end());
  StartWorker([this, data = std::move(data)]() mutable { MarvoUpgradeWorker(std::move(data)); });
  return 0;
}

void VarkelManager::MarvoUpgradeWorker(std::vector<uint8_t> data) {
  // Every end: the flag first, then the notice.
  const auto fail = [this](const QString& text) {
    SetUpgrading(false);
    setErrorMsg(text);
  };
  const auto info = [this](const std::vector<std::string>& lines) {
    for (const auto& line : lines) emit sendLogMessage(QString::fromStdString(line), "INFO");
  };
  try {
    std::vector<std::string> lines;
    varkel::OtaPackageHeader header;
    const auto parsed = varkel::ParseOtaPackageHeader(data.data(), data.size(), header, &lines);
    info(lines);
    if (parsed != varkel::OtaParseResult::kOk) return fail("Invalid Marvo OTA upgrade package");
    info({varkel::OtaParsedLine(header)});

    auto client = KtcClientHandle();
    if (!client) throw std::runtime_error("lidar disconnected before the transfer");
    auto link = std::make_shared<quarn::lidar::KtcSerialClient>(client);
    if (link->SetBaudRate(kMarvoFastBaudRate) != 0) return fail("Marvo upgrade: set baudrate failed");
    uint32_t partition = 0;
    if (link->ChangeMode(quarn::lidar::KtcSerialClient::kUpgradeWorkMode, partition) != 0)
      return fail("Marvo upgrade: change mode failed");
    emit sendLogMessage(QString("Marvo upgrade: current partition=") + (partition == 0 ? "A" : "B"), "INFO");
    // The lidar settles in upgrade mode before it takes the slower rate.
    if (WaitUnlessClosing(std::chrono::steady_clock::now() + std::chrono::milliseconds(mode_switch_wait_ms_.load()))) {
      SetUpgrading(false);
      return;
    }
    if (link->SetBaudRate(kMarvoUpgradeBaudRate) != 0) return fail("Marvo upgrade: set upgrade baudrate failed");

    const std::vector<varkel::OtaComponent> list = varkel::BuildOtaUpgradeList(header, partition);
    uint32_t total = 0;
    for (const auto& component : list)
      total += varkel::OtaBlocks(varkel::ExtractOtaComponent(data.data(), data.size(), component).size());
    upgrade_progress_total_len_.store(static_cast<int>(total));
    upgrade_progress_.store(0);

    SetUpgradeLink(link);
    uint32_t sent = 0;
    for (const auto& component : list) {
      const QString name = QString::fromStdString(component.name);
      lines.clear();
      const std::vector<uint8_t> bytes = varkel::ExtractOtaComponent(data.data(), data.size(), component, &lines);
      info(lines);
      if (bytes.empty()) {
        SetUpgradeLink(nullptr);
        return fail("Marvo upgrade: failed to extract " + name);
      }
      emit sendLogMessage(QString("Marvo upgrade: sending %1 (type=0x0%2, size=%3)")
                              .arg(name)
                              .arg(static_cast<int>(component.type))
                              .arg(static_cast<qulonglong>(bytes.size())),
                          "INFO");
      uint32_t blocks = 0;
      const int ret = link->SendComponent(bytes, component.type, blocks,
                                          [this, sent](uint32_t piece) { upgrade_progress_.store(sent + piece); });
      sent += blocks;
      upgrade_progress_.store(sent);
      if (ret != 0) {
        SetUpgradeLink(nullptr);
        const QString text = "Marvo upgrade: " + name + " failed, error=" + QString::number(ret);
        emit sendLogMessage(text, "INFO");
        return fail(text);
      }
      emit sendLogMessage("Marvo upgrade: " + name + " completed", "INFO");
    }
    SetUpgradeLink(nullptr);
    SetUpgrading(false);
    setSuccessMsg("Marvo upgrade completed. The lidar will automatically reboot.");
    // No restart command: the lidar reboots by itself once the line is let go.
    Stop();
  } catch (const std::exception& e) {
    SetUpgradeLink(nullptr);
    emit sendLogMessage(QString("Upgrade error: ") + e.what(), "ERROR");
    fail("Marvo upgrade failed");
  }
}
