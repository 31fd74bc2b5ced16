#include "small_sensor.h"

#include <algorithm>

#include "firmware_image.h"

namespace varkel::sim {
namespace {

constexpr uint8_t kOk = 0;
constexpr uint8_t kRefused = 1;

// Item numbers.
constexpr uint8_t kItemWake = 0;
constexpr uint8_t kItemCorrection = 7;
constexpr uint8_t kItemSingleReturn = 8;
constexpr uint8_t kItemSafety = 8;
constexpr uint8_t kItemDualReturn = 9;
constexpr uint8_t kItemSpinRate = 10;
constexpr uint8_t kItemSerialNumber = 10;
constexpr uint8_t kItemStandby = 11;
constexpr uint8_t kItemImuRange = 11;
constexpr uint8_t kItemVersion = 15;
constexpr uint8_t kItemWorkMode = 12;
constexpr uint8_t kWorking = 0;
constexpr uint8_t kUpgradeMode = 4;
// Component types and the version each one carries.
constexpr uint32_t kTmbFpga = 0;
constexpr uint32_t kBmbFpga = 1;
constexpr uint32_t kApplication = 2;
constexpr uint8_t kVersionBmbFpga = 0;
constexpr uint8_t kVersionTmbFpga = 1;
constexpr uint8_t kVersionBmbMcu = 2;
constexpr uint8_t kVersionPbl = 5;

constexpr size_t kVersionText = 24;
constexpr size_t kSerialNumberText = 16;

bool ValidAngularCode(uint8_t c) {
  return c <= 4 || c == 8;
}

}  // namespace

SmallSensor::SmallSensor() {
  for (int i = 0; i < 3 * 1024; ++i) s_.correction.push_back(static_cast<uint8_t>(i * 7 + 3));
}

std::vector<uint8_t> SmallSensor::NetworkBlock() const {
  std::lock_guard<std::mutex> lock(mu_);
  std::vector<uint8_t> r;
  for (const auto* a : {&s_.lidar_ip, &s_.subnet_mask, &s_.gateway, &s_.destination_ip})
    r.insert(r.end(), a->begin(), a->end());
  r.push_back(static_cast<uint8_t>(s_.destination_port >> 8));
  r.push_back(static_cast<uint8_t>(s_.destination_port));
  return r;
}

bool SmallSensor::SetDestination(const std::vector<uint8_t>& p) {
  if (p.size() != 6) return false;
  std::lock_guard<std::mutex> lock(mu_);
  std::copy(p.begin(), p.begin() + 4, s_.destination_ip.begin());
  s_.destination_port = static_cast<uint16_t>((p[4] << 8) | p[5]);
  return true;
}

SmallSensorState SmallSensor::state() const {
  std::lock_guard<std::mutex> lock(mu_);
  return s_;
}

void SmallSensor::set_state(const SmallSensorState& s) {
  std::lock_guard<std::mutex> lock(mu_);
  s_ = s;
}

std::vector<uint8_t> SmallSensor::Command(uint8_t cmd, const std::vector<uint8_t>& payload) {
  std::lock_guard<std::mutex> lock(mu_);
  if (cmd == kGet) return Get(payload);
  if (cmd == kSet) return Set(payload);
  return {kRefused};
}

std::vector<uint8_t> SmallSensor::Set(const std::vector<uint8_t>& p) {
  if (p.size() < 2) return {p.empty() ? uint8_t{0} : p[0], 0, kRefused};
  const uint8_t item = p[0];
  const uint8_t value = p[1];
  uint8_t status = kOk;
  switch (item) {
    case kItemStandby:
    case kItemWake:
      s_.mode = item;
      break;
    case kItemSpinRate:
      s_.spin_rate = value;
      break;
    case kItemSingleReturn:
    case kItemDualReturn:
      s_.return_mode = item;
      break;
    case kItemWorkMode:
      // [12, mode, status, partition]: the one set reply that carries more, the running
      // partition, which the program needs to pick the application image.
      if (value != kWorking && value != kUpgradeMode) return {item, value, kRefused, s_.partition};
      s_.work_mode = value;
      return {item, value, kOk, s_.partition};
    default:
      status = kRefused;
  }
  // [item, value, status]: the whole body is 5 bytes with the status last.
  return {item, value, status};
}

std::vector<uint8_t> SmallSensor::Get(const std::vector<uint8_t>& p) {
  if (p.empty()) return {0, kRefused};
  const uint8_t item = p[0];
  switch (item) {
    case kItemCorrection: {
      // [7, P pieces, N, data[N], 0]: body N + 6 bytes, N at body byte 4. [7] asks for
      // piece 0, [7, k] for piece k.
      const size_t total = s_.correction.size();
      const size_t pieces = std::max<size_t>(1, (total + kCorrectionPiece - 1) / kCorrectionPiece);
      const size_t k = p.size() > 1 ? p[1] : 0;
      if (k >= pieces || pieces > 255) return {item, kRefused};
      const size_t from = k * kCorrectionPiece;
      const size_t n = std::min(kCorrectionPiece, total - std::min(total, from));
      std::vector<uint8_t> r{item, static_cast<uint8_t>(pieces), static_cast<uint8_t>(n)};
      r.insert(r.end(), s_.correction.begin() + static_cast<std::ptrdiff_t>(from),
               s_.correction.begin() + static_cast<std::ptrdiff_t>(from + n));
      r.push_back(0);
      return r;
    }
    case kItemSafety: {
      // [8, 0xA1, state, fault codes as u16 little-endian...]
      std::vector<uint8_t> r{item, 0xA1, s_.safety_state};
      for (uint16_t f : s_.fault_codes) {
        r.push_back(static_cast<uint8_t>(f));
        r.push_back(static_cast<uint8_t>(f >> 8));
      }
      return r;
    }
    case kItemSerialNumber: {
      // [10, 1, serial number as 16 NUL-padded ASCII bytes]
      std::vector<uint8_t> r(2 + kSerialNumberText, 0);
      r[0] = item;
      r[1] = 1;
      const std::string sn = s_.serial_number.substr(0, kSerialNumberText);
      std::copy(sn.begin(), sn.end(), r.begin() + 2);
      return r;
    }
    case kItemImuRange: {
      // [11, status, angular code, acceleration code]: body exactly 6 bytes.
      if (p.size() < 3 || !ValidAngularCode(p[1]) || p[2] > 3) return {item, kRefused, 0, 0};
      s_.imu_angular_code = p[1];
      s_.imu_accel_code = p[2];
      return {item, kOk, p[1], p[2]};
    }
    case kItemVersion: {
      // [15, which, text[24], status, 0]: body exactly 30 bytes, text from body byte 4.
      const uint8_t which = p.size() > 1 ? p[1] : 0;
      const auto found = s_.versions.find(which);
      const std::string text = found == s_.versions.end() ? std::string() : found->second;
      std::vector<uint8_t> r(2 + kVersionText + 2, 0);
      r[0] = item;
      r[1] = which;
      std::copy(text.begin(), text.begin() + static_cast<std::ptrdiff_t>(std::min(text.size(), kVersionText)),
                r.begin() + 2);
      r[2 + kVersionText] = text.empty() ? kRefused : kOk;
      return r;
    }
    default:
      return {item, kRefused};
  }
}

OtaOutcome SmallSensor::Ota(uint8_t type, uint32_t value1, uint32_t value2, const std::vector<uint8_t>& data) {
  std::lock_guard<std::mutex> lock(mu_);
  ++s_.ota_frames;
  s_.last_ota_type = type;
  OtaOutcome out;
  out.status = ota_.OnFrame(type, value1, value2, data, s_.work_mode == kUpgradeMode);
  out.finished = ota_.TakeFinished();
  if (!out.finished || !out.finished->ok) return out;
  const auto version = ImageVersion(ota_.last_complete_data());
  if (out.finished->component) {
    ++s_.components_received;
    pending_components_[out.finished->kind] = version;
    out.note = "component type " + std::to_string(out.finished->kind) + " stored for the reboot";
    return out;
  }
  ++s_.images_received;
  const uint8_t which = out.finished->kind == 0 ? kVersionBmbMcu : kVersionPbl;
  if (version) {
    s_.versions[which] = *version;
    out.note = "rebooted into " + *version;
  } else {
    out.note = "rebooted; the image announces no version";
  }
  return out;
}

std::optional<OtaRecord> SmallSensor::AbandonOta() {
  std::lock_guard<std::mutex> lock(mu_);
  ota_.Abandon();
  return ota_.TakeFinished();
}

std::string SmallSensor::Reboot() {
  std::lock_guard<std::mutex> lock(mu_);
  if (s_.work_mode != kUpgradeMode) return std::string();
  ota_.Abandon();
  ota_.TakeFinished();
  std::string what = "reboot out of upgrade mode";
  for (const auto& [type, version] : pending_components_) {
    if (type == kApplication) {
      s_.partition = s_.partition == 0 ? 1 : 0;
      what += std::string("; now running partition ") + (s_.partition == 0 ? "A" : "B");
    }
    const int which = type == kApplication ? kVersionBmbMcu
                      : type == kBmbFpga   ? kVersionBmbFpga
                      : type == kTmbFpga   ? kVersionTmbFpga
                                           : -1;
    if (which >= 0 && version) {
      s_.versions[static_cast<uint8_t>(which)] = *version;
      what += "; " + *version;
    }
  }
  pending_components_.clear();
  s_.work_mode = kWorking;
  ++s_.reboots;
  return what;
}

}  // namespace varkel::sim
