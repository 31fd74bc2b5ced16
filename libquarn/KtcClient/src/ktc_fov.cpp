#include "ktc_fov.h"

#include <cmath>

#include "ktc_client.h"
#include "logger.h"

namespace quarn::lidar {
namespace {

constexpr float kHundredths = 100.0f;

uint16_t ReadU16(const std::vector<uint8_t>& bytes, size_t at) {
  return static_cast<uint16_t>((bytes[at] << 8) | bytes[at + 1]);
}

void Fail(std::string* error, const std::string& text) {
  if (error) *error = text;
}

}  // namespace

bool DecodeMultiFov(const std::vector<uint8_t>& payload, MultiFovConfig& out, std::string* error) {
  if (payload.size() != kFovReadReplySize) {
    Fail(error, "field-of-view reply of " + std::to_string(payload.size()) + " bytes, expected " +
                    std::to_string(kFovReadReplySize));
    return false;
  }
  MultiFovConfig fov;
  fov.channel = payload[0];
  for (size_t i = 0; i < kFovRanges; ++i) {
    fov.start[i] = ReadU16(payload, 1 + 2 * i) / kHundredths;
    fov.end[i] = ReadU16(payload, 1 + 2 * (kFovRanges + i)) / kHundredths;
    if (fov.start[i] > kFovMaxDegrees || fov.end[i] > kFovMaxDegrees) {
      Fail(error, "field-of-view angle above 360 degrees in range " + std::to_string(i + 1));
      return false;
    }
  }
  out = fov;
  return true;
}

bool EncodeChannelFov(uint8_t channel, const std::array<float, kFovRanges>& values, std::vector<uint8_t>& payload,
                      std::string* error) {
  std::vector<uint8_t> bytes{channel};
  for (size_t i = 0; i < kFovRanges; ++i) {
    const float v = values[i];
    // Written so that a NaN fails too.
    if (!(v >= 0.0f && v <= kFovMaxDegrees)) {
      Fail(error, "field-of-view value " + std::to_string(i + 1) + " outside 0 to 360 degrees");
      return false;
    }
    const auto raw = static_cast<uint16_t>(std::lround(v * kHundredths));
    bytes.push_back(static_cast<uint8_t>(raw >> 8));
    bytes.push_back(static_cast<uint8_t>(raw));
  }
  payload = std::move(bytes);
  return true;
}

int GetMultiFovConfig(KtcClient& client, MultiFovConfig& out) {
  std::vector<uint8_t> reply;
  if (client.QueryCommand({}, reply, kKtcFovReadCmd) != 0) return -1;
  std::string error;
  if (!DecodeMultiFov(reply, out, &error)) {
    LOG_WARNING("GetMultiFovConfig: %s", error.c_str());
    return -1;
  }
  return 0;
}

int SetChannelFov(KtcClient& client, uint8_t channel, const std::array<float, kFovRanges>& values) {
  std::vector<uint8_t> payload;
  std::string error;
  if (!EncodeChannelFov(channel, values, payload, &error)) {
    LOG_WARNING("SetChannelFov: %s", error.c_str());
    return -1;
  }
  std::vector<uint8_t> reply;
  return client.QueryCommand(payload, reply, kKtcFovWriteCmd);
}

}  // namespace quarn::lidar
