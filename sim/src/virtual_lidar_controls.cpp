#include "virtual_lidar.h"

#include <algorithm>

#include "device_log.h"
#include "register_bank.h"
#include "reply_path.h"
#include "udp_emitter.h"
#include "virtual_lidar_parts.h"

// The controls and counters tests and the command line use.
namespace varkel::sim {

using namespace lidar_parts;

void VirtualLidar::SetFailure(FailureMode mode, int cmd, int param) {
  std::lock_guard<std::mutex> lock(state_mu_);
  if (mode == FailureMode::kNone) {
    failures_.erase(cmd);
  } else {
    failures_[cmd] = FailureSpec{mode, param};
  }
}

void VirtualLidar::ClearFailures() {
  std::lock_guard<std::mutex> lock(state_mu_);
  failures_.clear();
}

void VirtualLidar::SetSilent(uint8_t cmd, bool silent) {
  std::lock_guard<std::mutex> lock(state_mu_);
  silent_[cmd] = silent;
}

void VirtualLidar::SetLinkLost(bool lost) {
  path_->set_link_lost(lost);
}

uint64_t VirtualLidar::CommandCount(uint8_t cmd) const {
  std::lock_guard<std::mutex> lock(state_mu_);
  auto it = counts_.find(cmd);
  return it == counts_.end() ? 0 : it->second;
}

std::vector<uint8_t> VirtualLidar::LastPayload(uint8_t cmd) const {
  std::lock_guard<std::mutex> lock(state_mu_);
  auto it = last_payload_.find(cmd);
  return it == last_payload_.end() ? std::vector<uint8_t>() : it->second;
}

uint64_t VirtualLidar::ExtendedCount(uint32_t code) const {
  std::lock_guard<std::mutex> lock(state_mu_);
  auto it = ext_counts_.find(code);
  return it == ext_counts_.end() ? 0 : it->second;
}

std::vector<uint8_t> VirtualLidar::LastExtendedPayload(uint32_t code) const {
  std::lock_guard<std::mutex> lock(state_mu_);
  auto it = ext_last_payload_.find(code);
  return it == ext_last_payload_.end() ? std::vector<uint8_t>() : it->second;
}

uint64_t VirtualLidar::SerialCommandCount(uint8_t cmd) const {
  std::lock_guard<std::mutex> lock(state_mu_);
  auto it = serial_counts_.find(cmd);
  return it == serial_counts_.end() ? 0 : it->second;
}

std::vector<uint8_t> VirtualLidar::LastSerialPayload(uint8_t cmd) const {
  std::lock_guard<std::mutex> lock(state_mu_);
  auto it = serial_last_payload_.find(cmd);
  return it == serial_last_payload_.end() ? std::vector<uint8_t>() : it->second;
}

void VirtualLidar::ResetCounters() {
  std::lock_guard<std::mutex> lock(state_mu_);
  counts_.clear();
  last_payload_.clear();
  ext_counts_.clear();
  ext_last_payload_.clear();
  serial_counts_.clear();
  serial_last_payload_.clear();
}

uint64_t VirtualLidar::RestartCount() const {
  std::lock_guard<std::mutex> lock(state_mu_);
  return restarts_;
}

uint64_t VirtualLidar::ResetCount() const {
  std::lock_guard<std::mutex> lock(state_mu_);
  return resets_;
}

size_t VirtualLidar::KtcConnectionsOpen() const {
  std::lock_guard<std::mutex> lock(conn_mu_);
  return static_cast<size_t>(
      std::count_if(connections_.begin(), connections_.end(), [](const auto& c) { return !c->done.load(); }));
}

void VirtualLidar::SetRestartDelay(int ms) {
  restart_delay_ms_.store(std::max(ms, 0));
}

void VirtualLidar::SetLogSize(uint32_t bytes) {
  log_size_.store(std::min(bytes, kMaxLogSize));
}

std::vector<std::string> VirtualLidar::LogNames() const {
  std::vector<std::string> names;
  for (const auto& log : logs_) names.push_back(log.name);
  return names;
}

std::optional<std::vector<uint8_t>> VirtualLidar::LogBody(const std::string& log_name,
                                                          std::optional<uint16_t> selector) const {
  for (const auto& log : logs_) {
    if (log.name != log_name) continue;
    const auto title = LogTitle(log, selector);
    if (!title) return std::nullopt;
    return BuildLogBody(*title, log_size_.load());
  }
  return std::nullopt;
}

std::string VirtualLidar::Value(const std::string& var_name_or_id) const {
  if (!bank_) return std::string();
  return bank_->Value(var_name_or_id).value_or(std::string());
}

bool VirtualLidar::SetValue(const std::string& var_name_or_id, const std::string& text) {
  return bank_ && bank_->SetValue(var_name_or_id, text);
}

std::vector<std::string> VirtualLidar::VariableIds() const {
  return bank_ ? bank_->VariableIds() : std::vector<std::string>();
}

std::optional<VirtualLidar::Transfer> VirtualLidar::LastTransfer() const {
  std::lock_guard<std::mutex> lock(state_mu_);
  return files_.last();
}

uint64_t VirtualLidar::UpgradesReceived() const {
  std::lock_guard<std::mutex> lock(state_mu_);
  return upgrades_received_;
}

std::optional<std::string> VirtualLidar::PendingFirmwareVersion() const {
  std::lock_guard<std::mutex> lock(state_mu_);
  if (!upgrade_pending_) return std::nullopt;
  return pending_version_;
}

std::vector<VirtualLidar::BaudRequest> VirtualLidar::BaudRateRequests() const {
  std::lock_guard<std::mutex> lock(state_mu_);
  return baud_requests_;
}

std::vector<OtaRecord> VirtualLidar::OtaRecords() const {
  std::lock_guard<std::mutex> lock(state_mu_);
  return ota_records_;
}

uint64_t VirtualLidar::JunctionBoxUpgrades() const {
  std::lock_guard<std::mutex> lock(state_mu_);
  return junction_box_upgrades_;
}

SmallSensorState VirtualLidar::SmallSensor() const {
  return small_.state();
}
void VirtualLidar::SetSmallSensor(const SmallSensorState& state) {
  small_.set_state(state);
}
uint64_t VirtualLidar::DatagramsSent() const {
  return udp_ ? udp_->sent() : 0;
}

uint64_t VirtualLidar::DatagramsWithheld() const {
  return udp_ ? udp_->withheld() : 0;
}

}  // namespace varkel::sim
