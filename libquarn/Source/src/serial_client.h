#pragma once
// Commands to a small lidar over its serial lines. Commands go out on the command (UART)
// source; every reply, like the streamed points, comes back on the data (RS485) source.
// Firmware (OTA) frames go out on the data source and are answered there too.

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "serial_source.h"

namespace quarn::lidar {

class SerialClient {
 public:
  // Return codes of the exchanges.
  static constexpr int kOk = 0;
  static constexpr int kErrNotReady = -1;    // a source missing or not open, or the write failed
  static constexpr int kErrBadReply = -2;    // the reply failed its check (silence included)
  static constexpr int kErrReadFailed = -3;  // the read failed: closed meanwhile or device gone
  static constexpr uint32_t kOtaReplyTimeoutMs = 30000;

  SerialClient(std::shared_ptr<SerialSource> command_source, std::shared_ptr<SerialSource> data_source);

  // Gets "SEND: " and "RECV: " followed by the bytes in hexadecimal.
  void SetLogCallback(std::function<void(const std::string&)> callback);

  // One command and its reply: 0 with the reply body (length byte, command, rest), or a
  // negative code above. A silent sensor yields -2: the empty block fails the check.
  int SendCommand(uint8_t cmd, const std::vector<uint8_t>& payload, std::vector<uint8_t>& body, uint32_t timeout_ms);

  // One "$LDOTA," frame and its reply (waited for 30 s unless set otherwise): 0 with the
  // echoed command and the reply's status byte, or a negative code above.
  int SendOtaFrame(uint32_t value1, uint32_t value2, const uint8_t* data, uint32_t length, uint8_t frame_type,
                   uint8_t& reply_cmd, uint8_t& reply_status);

  // How long an OTA frame waits for its reply. Tests shorten it to see a silent sensor end
  // an upgrade without waiting half a minute.
  void SetOtaReplyTimeoutMs(uint32_t ms) { ota_reply_timeout_ms_.store(ms); }

  // Reads one OTA-style reply (CRC most significant byte first) from the data source.
  int WaitReply(uint8_t& reply_cmd, uint8_t& reply_status, uint32_t timeout_ms);

  const std::shared_ptr<SerialSource>& CommandSource() const { return command_source_; }
  const std::shared_ptr<SerialSource>& DataSource() const { return data_source_; }

 private:
  void Log(const std::string& prefix, const uint8_t* data, size_t length);
  int WaitReplyLocked(uint8_t& reply_cmd, uint8_t& reply_status, uint32_t timeout_ms);

  std::shared_ptr<SerialSource> command_source_;
  std::shared_ptr<SerialSource> data_source_;
  // One exchange at a time: the information thread and the UI thread share the client.
  std::mutex exchange_mutex_;
  std::atomic<uint32_t> ota_reply_timeout_ms_{kOtaReplyTimeoutMs};
  std::mutex callback_mutex_;
  std::function<void(const std::string&)> log_callback_;
};

}  // namespace quarn::lidar
