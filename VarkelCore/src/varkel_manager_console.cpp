// The raw command console: a command code and a payload typed as hexadecimal text go to
// the lidar as they are; the reply comes back as hexadecimal text, and the last ten sends
// are kept.

#include <QString>

#include <cstdio>
#include <ctime>
#include <memory>
#include <string>
#include <vector>

#include "change_journal.h"
#include "console_request.h"
#include "ktc_client.h"
#include "logger.h"
#include "manager_text.h"
#include "serial_client.h"
#include "serial_source.h"
#include "varkel_manager.h"

using quarn::lidar::KtcClient;
using quarn::lidar::SerialClient;

namespace {

constexpr size_t kKtcHeaderBytes = 8;  // the client always speaks frame version 1.0
// A serial reply body starts with its length byte and the echoed command.
constexpr size_t kSerialHeaderBytes = 2;
constexpr size_t kShownPayloadBytes = 1024;
constexpr size_t kHistoryLength = 10;
// The console waits on the UI thread; a sensor that stays silent this long has failed.
constexpr uint32_t kSerialReplyTimeoutMs = 1000;

const char kPayloadTooLong[] =
    "WARNING: This return payload is too long, only the first 1024 bytes are displayed. For a complete payload "
    "please use the log bytes flow function.";
const char kSerialNotReady[] = "lidar is not connected, or lidar is upgrade";

struct ConsoleTexts {
  const char* query_failed;
  const char* bad_header;
  const char* bad_payload;
};

// By connection type: 0 network, 1 serial lines, 2 KTC to a small serial sensor.
const ConsoleTexts kTexts[] = {
    {"Query ktc command fail. Please input right ktc command header and payload.",
     "Incorrect KTC header was entered. Parsing failed.", "Incorrect KTC payload was entered. Parsing failed."},
    {"Query Serial command fail. Please input right Serial command header and payload.",
     "Incorrect Serial header was entered. Parsing failed.", "Incorrect Serial payload was entered. Parsing failed."},
    {"Query Serial command fail. Please check BytesFlow in Log Window. Please input right Serial command header "
     "and payload.",
     "Incorrect Serial header was entered. Parsing failed.", "Incorrect Serial payload was entered. Parsing failed."},
};

using manager_text::Print;

void PrintFault(varkel::HexFault fault) {
  Print(fault == varkel::HexFault::kOutOfRange ? "Out_of_range\n" : "Invalid_argument\n");
}

std::string LocalTimeNow() {
  const std::time_t now = std::time(nullptr);
  std::tm local{};
  localtime_r(&now, &local);
  char text[32];
  const size_t n = std::strftime(text, sizeof(text), "%F %X", &local);
  return std::string(text, n);
}

}  // namespace

QString VarkelManager::getSendKtcCommandReturnHeader() {
  return commandReturnHeader();
}

QString VarkelManager::getSendKtcCommandReturnPayload() {
  return commandReturnPayload();
}

void VarkelManager::SendCommand(QString cmd_qs, QString payload_qs) {
  const int type = connect_type_.load();
  if (type < 0 || type > 2) return;
  const ConsoleTexts& texts = kTexts[type];
  const bool serial_mode = type != 0;

  std::shared_ptr<KtcClient> ktc;
  std::shared_ptr<SerialClient> serial;
  bool line_open = false;
  if (type == 1) {
    {
      std::lock_guard<std::mutex> lock(clients_mutex_);
      serial = serial_client_;
    }
    line_open = serial && serial->CommandSource() && serial->CommandSource()->IsOpened() && serial->DataSource() &&
                serial->DataSource()->IsOpened();
  } else {
    ktc = KtcClientHandle();
    line_open = ktc && ktc->IsOpen();
  }
  if (!line_open || !is_connected_.load() || is_upgrading_.load()) {
    if (serial_mode) setErrorMsg(kSerialNotReady);
    return;
  }
  // A log download holds the line for a long time; the console waits its turn.
  if (is_download_log_.load()) return;

  const varkel::ConsoleRequest request = varkel::ParseConsoleRequest(cmd_qs.toStdString(), payload_qs.toStdString());
  if (request.fault != varkel::ConsoleRequest::Fault::kNone) {
    PrintFault(request.hex_fault);
    setErrorMsg(request.fault == varkel::ConsoleRequest::Fault::kHeader ? texts.bad_header : texts.bad_payload);
    return;
  }
  const uint8_t cmd = request.cmd;
  const std::vector<uint8_t>& payload = request.payload;
  CommandRecord record{LocalTimeNow(), request.cmd_text, request.payload_text};

  std::vector<uint8_t> reply;
  const quarn::journal::Site site = JournalSite();  // before: a restart takes the sensor away
  size_t header_bytes = kKtcHeaderBytes;
  int ret;
  int code;  // what the log names as the reason
  if (type == 1) {
    header_bytes = kSerialHeaderBytes;
    ret = code = serial->SendCommand(cmd, payload, reply, kSerialReplyTimeoutMs);
  } else {
    ret = ktc->QueryCommand(payload, reply, cmd, true);
    code = ret == 0 ? 0 : ktc->GetLastReturnCode();
  }
  varkel::RecordExchange(site, "console", request.cmd_text + " " + request.payload_text, ret, code);

  if (ret != 0 || reply.size() < header_bytes) {
    Print("query command failed!\n");
    LOG_WARNING("console command 0x%02X failed, ret_code: %d", static_cast<unsigned>(cmd), code);
    {
      std::lock_guard<std::mutex> lock(fields_mutex_);
      send_ktc_command_return_header_.clear();
      send_ktc_command_return_payload_.clear();
    }
    setErrorMsg(texts.query_failed);
    emit sendCommandHistoryChanged();
    return;
  }

  const size_t payload_bytes = reply.size() - header_bytes;
  const bool cut = payload_bytes > kShownPayloadBytes;
  std::string header_text = varkel::UpperHexSpaced(reply.data(), header_bytes);
  std::string payload_shown =
      varkel::UpperHexSpaced(reply.data() + header_bytes, cut ? kShownPayloadBytes : payload_bytes);
  {
    std::lock_guard<std::mutex> lock(fields_mutex_);
    send_ktc_command_return_header_ = std::move(header_text);
    send_ktc_command_return_payload_ = std::move(payload_shown);
    command_history_.insert(command_history_.begin(), std::move(record));
    if (command_history_.size() > kHistoryLength) command_history_.resize(kHistoryLength);
  }
  if (cut) setErrorMsg(kPayloadTooLong);
  emit sendCommandHistoryChanged();

  // The lidar has answered and now restarts: the connection is gone either way.
  if (cmd == varkel::kConsoleRestartCmd || cmd == varkel::kConsoleResetCmd) {
    Stop();
    setSuccessMsg(cmd == varkel::kConsoleRestartCmd ? "Lidar restart." : "Lidar reset.");
  }
}
