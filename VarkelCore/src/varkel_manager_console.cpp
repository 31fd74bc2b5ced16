// The raw command console: a command code and a payload typed as hexadecimal text go to
// the lidar as they are; the reply comes back as hexadecimal text, and the last ten sends
// are kept.

#include <QString>

#include <cstdio>
#include <ctime>
#include <memory>
#include <string>
#include <vector>

#include "ktc_client.h"
#include "logger.h"
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
constexpr uint8_t kRestartCmd = 0x10;
constexpr uint8_t kResetCmd = 0x25;

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

enum class HexFault { kNone, kInvalid, kOutOfRange };

void Print(const char* line) {
  std::fputs(line, stdout);
  std::fflush(stdout);
}

void PrintFault(HexFault fault) {
  Print(fault == HexFault::kOutOfRange ? "Out_of_range\n" : "Invalid_argument\n");
}

std::string WithoutHexPrefix(const std::string& text) {
  if (text.size() >= 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X')) return text.substr(2);
  return text;
}

std::string TrimBlanks(const std::string& text) {
  const size_t first = text.find_first_not_of(" \t");
  if (first == std::string::npos) return "";
  return text.substr(first, text.find_last_not_of(" \t") - first + 1);
}

// The whole text must be hexadecimal digits: "1g" is refused, not read as 1, so that a
// typing slip never sends a command the user did not mean. Anything above one byte is
// out of range, however many digits it has.
HexFault ParseHexByte(const std::string& text, uint8_t& out) {
  if (text.empty()) return HexFault::kInvalid;
  unsigned value = 0;
  bool too_big = false;
  for (char c : text) {
    unsigned digit;
    if (c >= '0' && c <= '9')
      digit = static_cast<unsigned>(c - '0');
    else if (c >= 'a' && c <= 'f')
      digit = static_cast<unsigned>(c - 'a' + 10);
    else if (c >= 'A' && c <= 'F')
      digit = static_cast<unsigned>(c - 'A' + 10);
    else
      return HexFault::kInvalid;
    if (!too_big) {
      value = value * 16 + digit;
      too_big = value > 0xFF;
    }
  }
  if (too_big) return HexFault::kOutOfRange;
  out = static_cast<uint8_t>(value);
  return HexFault::kNone;
}

std::string UpperHexSpaced(const uint8_t* data, size_t length) {
  static const char kDigits[] = "0123456789ABCDEF";
  std::string text;
  text.reserve(length * 3);
  for (size_t i = 0; i < length; ++i) {
    if (i > 0) text += ' ';
    text += kDigits[data[i] >> 4];
    text += kDigits[data[i] & 0x0F];
  }
  return text;
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

  // The texts as they are recorded: prefixes gone, payload pieces joined by one blank.
  const std::string cmd_text = WithoutHexPrefix(TrimBlanks(cmd_qs.toStdString()));
  std::vector<std::string> pieces;
  const std::string payload_in = TrimBlanks(payload_qs.toStdString());
  if (!payload_in.empty()) {
    size_t start = 0;
    while (true) {
      const size_t blank = payload_in.find(' ', start);
      pieces.push_back(WithoutHexPrefix(payload_in.substr(start, blank - start)));
      if (blank == std::string::npos) break;
      start = blank + 1;
    }
  }
  std::string payload_text;
  for (size_t i = 0; i < pieces.size(); ++i) payload_text += (i > 0 ? " " : "") + pieces[i];
  CommandRecord record{LocalTimeNow(), cmd_text, payload_text};

  uint8_t cmd = 0;
  if (const HexFault fault = ParseHexByte(cmd_text, cmd); fault != HexFault::kNone) {
    PrintFault(fault);
    setErrorMsg(texts.bad_header);
    return;
  }
  std::vector<uint8_t> payload;
  payload.reserve(pieces.size());
  for (const std::string& piece : pieces) {
    // An empty piece (two blanks in a row) is refused: guessing what was meant could
    // shift every later byte to the wrong place.
    uint8_t byte = 0;
    if (const HexFault fault = ParseHexByte(piece, byte); fault != HexFault::kNone) {
      PrintFault(fault);
      setErrorMsg(texts.bad_payload);
      return;
    }
    payload.push_back(byte);
  }

  std::vector<uint8_t> reply;
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
  std::string header_text = UpperHexSpaced(reply.data(), header_bytes);
  std::string payload_shown = UpperHexSpaced(reply.data() + header_bytes, cut ? kShownPayloadBytes : payload_bytes);
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
  if (cmd == kRestartCmd || cmd == kResetCmd) {
    Stop();
    setSuccessMsg(cmd == kRestartCmd ? "Lidar restart." : "Lidar reset.");
  }
}
