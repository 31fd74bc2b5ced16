// The small serial sensors: their functions, the information thread and the Marvo version
// read. Wire forms and the decisions behind them: docs/small-sensors.md.

#include <QUrl>

#include <chrono>

#include "atomic_file.h"
#include "change_journal.h"
#include "ktc_client.h"
#include "ktc_serial_client.h"
#include "serial_client.h"
#include "small_sensor_messages.h"
#include "varkel_manager.h"

using quarn::lidar::KtcClient;
using quarn::lidar::KtcSerialClient;
namespace ss = quarn::lidar::small_sensor;

namespace {

const char kNotReady[] = "lidar is not connected, or lidar is upgrade";
const char kNotReadyBaud[] = "lidar is not connected, or lidar is upgrading";
constexpr uint8_t kBaudRateCmd = 0xFF;
constexpr uint8_t kNetworkBlockCmd = 0x08;
constexpr uint8_t kSetDestinationCmd = 0x20;
// One small exchange per period keeps the line free for the user's requests.
constexpr auto kSafetyRefreshPeriod = std::chrono::seconds(5);
const char kUnread[] = "xxxxxxxx";
enum InfoText : size_t { kInfoIp = 0, kInfoSerialNumber = 1, kInfoBaudRate = 2, kInfoSafety = 3 };

struct VersionQuery {
  uint8_t which;
  const char* name;
  const char* failure;
};
constexpr VersionQuery kVersions[] = {
    {ss::kVersionBmbFpga, "BMB FPGA Version", "Failed to get BMB FPGA version, ret:"},
    {ss::kVersionTmbFpga, "TMB FPGA Version", "Failed to get TMB FPGA version, ret:"},
    {ss::kVersionBmbMcu, "BMB MCU Version", "Failed to get BMB MCU version, ret:"},
    {ss::kVersionPbl, "PBL Version", "get pbl version error, ret:"},
};

// A failed KTC exchange: the sensor's code, or -1 when it carried none.
int KtcFailure(const KtcClient& client) {
  return client.GetLastReturnCode() != 0 ? client.GetLastReturnCode() : -1;
}

}  // namespace

// ---- links and common rules ------------------------------------------------------------

std::shared_ptr<KtcSerialClient> VarkelManager::SmallSensorLink() {
  std::lock_guard<std::mutex> lock(clients_mutex_);
  if (small_link_) return small_link_;
  if (serial_client_) {
    small_link_ = std::make_shared<KtcSerialClient>(serial_client_);
  } else if (ktc_client_) {
    small_link_ = std::make_shared<KtcSerialClient>(ktc_client_);
  }
  return small_link_;
}

std::shared_ptr<KtcSerialClient> VarkelManager::SmallSensorReady(const char* refusal) {
  auto link = is_connected_.load() && !is_upgrading_.load() ? SmallSensorLink() : nullptr;
  if (!link) setErrorMsg(refusal);
  return link;
}

void VarkelManager::SwitchToKtcSerialType() {
  if (connect_type_.exchange(2) != 2) emit connectTypeChanged();
}

void VarkelManager::ReportSmallSensorFailure(const char* prefix, int code) {
  const QString text = QString(prefix) + QString::number(code);
  setErrorMsg(text);
  emit sendLogMessage(text, "ERROR");
}

void VarkelManager::SetSmallSensorText(size_t index, const std::string& text) {
  {
    std::lock_guard<std::mutex> lock(fields_mutex_);
    if (small_lidar_texts_[index] == text) return;
    small_lidar_texts_[index] = text;
  }
  emit zeltoLidarInfoChanged();
}

void VarkelManager::ResetSmallSensorInfo() {
  std::lock_guard<std::mutex> lock(fields_mutex_);
  small_lidar_texts_ = {"xx.xx.xx.xx", kUnread, kUnread, kUnread};
  small_lidar_map_.clear();
}

// ---- set requests ----------------------------------------------------------------------

void VarkelManager::ZeltoSetStandby(int standby) {
  SwitchToKtcSerialType();
  auto link = SmallSensorReady(kNotReady);
  if (!link) return;
  const uint8_t item = standby != 0 ? ss::kItemStandby : ss::kItemWorking;
  const int ret = link->Set(item, 0);
  varkel::RecordExchange(JournalSite(), "parameter", standby != 0 ? "standby" : "working", ret, ret);
  if (ret != 0) return ReportSmallSensorFailure("set lidar mode error, ret:", ret);
  link->RecordMode(item);
  setSuccessMsg("Set standby successfully");
}

void VarkelManager::ZeltoSetSpinRate(int rate) {
  SwitchToKtcSerialType();
  auto link = SmallSensorReady(kNotReady);
  if (!link) return;
  const int ret = link->Set(ss::kItemSpinRate, static_cast<uint8_t>(rate & 0xFF));
  varkel::RecordExchange(JournalSite(), "parameter", "spin rate " + std::to_string(rate & 0xFF), ret, ret);
  if (ret != 0) return ReportSmallSensorFailure("set lidar spin rate error, ret:", ret);
  setSuccessMsg("Set spin rate successfully");
}

void VarkelManager::ZeltoSetReturnMode(int mode) {
  SwitchToKtcSerialType();
  auto link = SmallSensorReady(kNotReady);
  if (!link) return;
  const int ret = link->Set(mode != 0 ? ss::kItemLastReturn : ss::kItemStrongestReturn, 0);
  varkel::RecordExchange(JournalSite(), "parameter", mode != 0 ? "last return" : "strongest return", ret, ret);
  if (ret != 0) ReportSmallSensorFailure("set lidar return mode error, ret:", ret);
}

// ---- get requests ----------------------------------------------------------------------

int VarkelManager::ZeltoGetCorrection(QString path) {
  SwitchToKtcSerialType();
  auto link = SmallSensorReady(kNotReady);
  if (!link) return -1;
  // Piece 0 tells how many pieces the file has; the file is written only once all came.
  std::vector<uint8_t> data;
  uint8_t pieces = 1;
  for (uint8_t k = 0; k < pieces; ++k) {
    std::vector<uint8_t> body;
    int ret = link->Exchange(ss::kGet, ss::CorrectionRequest(k), body);
    std::optional<ss::CorrectionPiece> piece;
    if (ret == 0) piece = ss::ParseCorrectionPiece(body);
    if (ret == 0 && (!piece || (k > 0 && piece->pieces != pieces))) ret = ss::kBadShape;
    if (ret != 0) {
      ReportSmallSensorFailure("get calibration error, ret:", ret);
      return ret;
    }
    if (k == 0) pieces = piece->pieces;
    data.insert(data.end(), piece->data.begin(), piece->data.end());
  }
  const QString file_path = path.startsWith("file:") ? QUrl(path).toLocalFile() : path;
  // A failed write keeps the earlier correction file whole.
  std::string why;
  if (!quarn::WriteFileAtomically(file_path.toStdString(), data, &why)) {
    const char text[] = "create calibration file fail, save correction file error";
    setErrorMsg(text);
    emit sendLogMessage(text, "ERROR");
    emit sendLogMessage(QString::fromStdString(why), "ERROR");
    return -1;
  }
  emit sendLogMessage("Correction file saved: " + file_path, "INFO");
  return 0;
}

QVariantList VarkelManager::ZeltoGetLidarFunctionSafety() {
  SwitchToKtcSerialType();
  auto link = SmallSensorReady(kNotReady);
  if (!link) return {};
  std::vector<uint8_t> body;
  int ret = link->Exchange(ss::kGet, {ss::kItemSafety}, body);
  std::optional<ss::SafetyState> state;
  if (ret == 0 && !(state = ss::ParseSafety(body))) ret = ss::kBadShape;
  if (ret != 0) {
    ReportSmallSensorFailure("get function safety error, ret:", ret);
    return {};
  }
  const std::string text = ss::SafetyStateText(state->state);
  SetSmallSensorText(kInfoSafety, text);
  QVariantList list{QString::fromStdString(text)};
  for (uint16_t code : state->faults) list.append(QString::fromStdString(ss::FaultCodeText(code)));
  return list;
}

void VarkelManager::MarvoSetIMURange(int angularRangeIndex, int accelRangeIndex) {
  if (static_cast<unsigned>(angularRangeIndex) > 5u) return setErrorMsg("Invalid angular range index");
  if (static_cast<unsigned>(accelRangeIndex) > 3u) return setErrorMsg("Invalid acceleration range index");
  if (connect_type_.load() != 2) return setErrorMsg("Marvo IMU range setting is only supported in KTC_SERIAL mode");
  auto link = SmallSensorReady(kNotReady);
  if (!link) return;
  std::vector<uint8_t> body;
  const std::vector<uint8_t> payload{ss::kItemImuRange, static_cast<uint8_t>(ss::ImuAngularCode(angularRangeIndex)),
                                     static_cast<uint8_t>(accelRangeIndex)};
  int ret = link->Exchange(ss::kGet, payload, body);
  if (ret == 0) ret = ss::ImuReplyStatus(body);
  if (ret != 0) return ReportSmallSensorFailure("set IMU range error, ret:", ret);
  setSuccessMsg("IMU range set successfully");
}

// ---- KTC commands of connection type 2 -------------------------------------------------

QString VarkelManager::ZeltoGetBaudRate() {
  if (connect_type_.load() != 2) {
    setErrorMsg("GetBaudRate is only supported in KTC serial mode");
    return {};
  }
  auto client = KtcClientHandle();
  if (!is_connected_.load() || is_upgrading_.load() || !client) {
    setErrorMsg(kNotReadyBaud);
    return {};
  }
  std::vector<uint8_t> reply;
  int ret = client->QueryCommand(ss::BaudRateQuery(), reply, kBaudRateCmd) == 0 ? 0 : KtcFailure(*client);
  std::optional<uint32_t> rate;
  if (ret == 0 && !(rate = ss::ParseBaudRate(reply))) ret = ss::kBadShape;
  if (ret != 0) {
    ReportSmallSensorFailure("get baud rate error, ret:", ret);
    return {};
  }
  SetSmallSensorText(kInfoBaudRate, std::to_string(*rate));
  return QString::number(*rate);
}

void VarkelManager::ZeltoSetBaudRateFromUI(QString baudRateStr) {
  if (connect_type_.load() != 2) return setErrorMsg("SetBaudRate is only supported in KTC serial mode");
  auto client = KtcClientHandle();
  if (!is_connected_.load() || is_upgrading_.load() || !client) return setErrorMsg(kNotReadyBaud);
  bool ok = false;
  const uint32_t rate = baudRateStr.trimmed().toUInt(&ok, 10);
  if (!ok || rate == 0) return setErrorMsg("invalid baud rate value");
  std::vector<uint8_t> reply;
  if (client->QueryCommand(ss::BaudRateSet(rate), reply, kBaudRateCmd) != 0)
    return ReportSmallSensorFailure("set baud rate error, ret:", KtcFailure(*client));
  client->SetSerialFastBaudRate(rate);
  SetSmallSensorText(kInfoBaudRate, std::to_string(rate));
  setSuccessMsg("set baud rate successful");
}

QVariantList VarkelManager::ZeltoGetDestinationConfig(bool silent) {
  if (connect_type_.load() != 2) {
    setErrorMsg("GetDestinationConfig is only supported in KTC serial mode");
    return {};
  }
  auto client = KtcClientHandle();
  if (!is_connected_.load() || is_upgrading_.load() || !client) {
    setErrorMsg(kNotReadyBaud);
    return {};
  }
  // Silent: the page refreshes these fields on its own; that is no byte flow to show.
  const bool log_bytes = silent ? log_bytes_flow_.exchange(false) : log_bytes_flow_.load();
  std::vector<uint8_t> reply;
  int ret = client->QueryCommand({}, reply, kNetworkBlockCmd) == 0 ? 0 : KtcFailure(*client);
  if (silent) log_bytes_flow_.store(log_bytes);
  std::optional<ss::NetworkBlock> block;
  if (ret == 0 && !(block = ss::ParseNetworkBlock(reply))) ret = ss::kBadShape;
  if (ret != 0) {
    ReportSmallSensorFailure("get destination config error, ret:", ret);
    return {};
  }
  return {QString::fromStdString(block->destination_ip), QString::number(block->destination_port)};
}

bool VarkelManager::ZeltoSetDestinationIPandPort(QString ip, int port) {
  if (connect_type_.load() != 2) {
    setErrorMsg("SetDestinationIPandPort is only supported in KTC serial mode");
    return false;
  }
  auto client = KtcClientHandle();
  if (!is_connected_.load() || is_upgrading_.load() || !client) {
    setErrorMsg(kNotReadyBaud);
    return false;
  }
  const auto payload = ss::DestinationPayload(ip.trimmed().toStdString(), port);
  if (!payload) {
    setErrorMsg("invalid destination IP or port");
    return false;
  }
  std::vector<uint8_t> reply;
  if (client->QueryCommand(*payload, reply, kSetDestinationCmd) != 0) {
    ReportSmallSensorFailure("set destination IP and port error, ret:", KtcFailure(*client));
    return false;
  }
  setSuccessMsg("set destination IP and port successful");
  return true;
}

// ---- the information thread ------------------------------------------------------------

void VarkelManager::ReadSmallSensorIdentity(KtcSerialClient& link) {
  std::vector<uint8_t> body;
  int ret = link.Exchange(ss::kGet, {ss::kItemSerialNumber, 1}, body);
  std::optional<std::string> sn;
  if (ret == 0 && !(sn = ss::ParseSerialNumber(body))) ret = ss::kBadShape;
  if (ret != 0) {
    emit sendLogMessage("Zelto-KTC get SN failed, ret:" + QString::number(ret), "ERROR");
  } else if (!ss::ValidSerialNumber(*sn)) {
    emit sendLogMessage("Zelto-KTC SN invalid after validation", "ERROR");
  } else {
    SetSmallSensorText(kInfoSerialNumber, *sn);
  }
  if (link.OverSerial()) return;

  // The network side of a KTC connection: the lidar's address and its serial rate.
  auto client = KtcClientHandle();
  if (!client || !page_timer_flag_.load()) return;
  std::vector<uint8_t> reply;
  if (client->QueryCommand({}, reply, kNetworkBlockCmd) == 0) {
    if (auto block = ss::ParseNetworkBlock(reply)) SetSmallSensorText(kInfoIp, block->lidar_ip);
  }
  if (!page_timer_flag_.load()) return;
  if (client->QueryCommand(ss::BaudRateQuery(), reply, kBaudRateCmd) == 0) {
    if (auto rate = ss::ParseBaudRate(reply)) SetSmallSensorText(kInfoBaudRate, std::to_string(*rate));
  }
}

void VarkelManager::ReadSmallSensorVersions(KtcSerialClient& link) {
  std::map<std::string, std::string> versions;
  bool link_failed = false;
  for (const VersionQuery& q : kVersions) {
    // A disconnect under way: what was read is of no use any more.
    if (!page_timer_flag_.load()) return;
    // The link gave no answer (silence, a line gone): the next query would only wait as
    // long again, holding the line the user's requests need.
    if (link_failed) {
      versions[q.name] = kUnread;
      continue;
    }
    const bool pbl = q.which == ss::kVersionPbl;
    if (pbl) {
      is_get_pbl_version_.store(true);
      emit isGetPBLVersionChanged();
    }
    std::vector<uint8_t> body;
    std::string text;
    int ret = link.Exchange(ss::kGet, ss::VersionRequest(q.which), body);
    link_failed = ret < 0;
    if (ret == 0) ret = ss::ParseVersion(body, q.which, text);
    if (pbl) {
      is_get_pbl_version_.store(false);
      emit isGetPBLVersionChanged();
    }
    if (ret != 0) emit sendLogMessage(q.failure + QString::number(ret), "ERROR");
    versions[q.name] = ret == 0 && !text.empty() ? text : kUnread;
  }
  {
    std::lock_guard<std::mutex> lock(fields_mutex_);
    small_lidar_map_ = std::move(versions);
  }
  small_versions_read_.store(true);
  emit zeltoLidarInfoChanged();
}

void VarkelManager::ReadSmallSensorSafetyState(KtcSerialClient& link) {
  std::vector<uint8_t> body;
  if (link.Exchange(ss::kGet, {ss::kItemSafety}, body) != 0) return;
  if (auto state = ss::ParseSafety(body)) SetSmallSensorText(kInfoSafety, ss::SafetyStateText(state->state));
}

void VarkelManager::SmallSensorInfoThread() {
  auto link = SmallSensorLink();
  if (!link) return;
  ReadSmallSensorIdentity(*link);
  if (page_timer_flag_.load() && !small_versions_read_.load()) ReadSmallSensorVersions(*link);
  while (page_timer_flag_.load()) {
    ReadSmallSensorSafetyState(*link);
    std::unique_lock<std::mutex> lock(page_timer_wait_mutex_);
    page_timer_wait_.wait_for(lock, kSafetyRefreshPeriod, [this] { return !page_timer_flag_.load(); });
  }
}
