// Connecting and disconnecting, by the three connection types, and the connection check.

#include <QString>

#include <chrono>
#include <cstdio>
#include <stdexcept>
#include <thread>

#include "ktc_client.h"
#include "ktc_serial_client.h"
#include "manager_catalogue.h"
#include "manager_text.h"
#include "number_text.h"
#include "serial_client.h"
#include "serial_source.h"
#include "small_sensor_messages.h"
#include "varkel_manager.h"

using quarn::lidar::KtcClient;
using quarn::lidar::SerialClient;
using quarn::lidar::SerialSource;

namespace {

constexpr auto kOpenCheckDelay = std::chrono::milliseconds(200);
constexpr uint8_t kProbeCmd = 7;
constexpr uint8_t kProbeFallbackCmd = 8;
constexpr uint8_t kSubCommandCmd = 0xFF;
const char kNetworkFailure[] = "Connection Failed. Please check your network settings.";
const char kSerialFailure[] = "Connection Failed. Please check your RS485 and UART serial ports.";

// A verified TLS connection that was refused: its reason is the notice, as the user can
// act on it (a CA file, a certificate) where the network notice would mislead.
class TlsRefusal : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

using manager_text::Print;

}  // namespace

bool VarkelManager::ConnectLidar() {
  if (connecting_.load()) return false;
  ForgetReads();
  // The worker sets the connecting flag itself; the window's own check keeps a second
  // press from starting a second attempt.
  switch (connect_type_.load()) {
    case 0:
      StartWorker([this] { Init(); });
      break;
    case 1:
      StartWorker([this] { InitSerial(); });
      break;
    case 2:
      StartWorker([this] { InitKtcForSerial(); });
      break;
    default:
      return false;
  }
  WriteSettings();
  return true;
}

void VarkelManager::InstallKtcLogCallback(KtcClient& client) {
  client.SetLogCallback([this](const std::string& line) { OnClientLog(line); },
                        [this] { return log_bytes_flow_.load(); });
}

void VarkelManager::OnClientLog(const std::string& line) {
  // The "SEND: "/"RECV: " byte flow goes to the log pane only while the user asks for it.
  if (log_bytes_flow_.load()) emit sendLogMessage(QString::fromStdString(line), "BYTES");
}

bool VarkelManager::ProbeLidar(KtcClient& client) {
  const bool log_bytes = log_bytes_flow_.exchange(false);
  std::vector<uint8_t> reply;
  bool answered =
      client.QueryCommand({}, reply, kProbeCmd) == 0 || client.QueryCommand({}, reply, kProbeFallbackCmd) == 0;
  log_bytes_flow_.store(log_bytes);
  return answered;
}

std::shared_ptr<KtcClient> VarkelManager::OpenKtcConnection(const char* operation, uint32_t timeout_ms) {
  connecting_.store(true);
  SetKtcClient(nullptr);
  is_connected_.store(false);
  Trace(operation, "try to connect to lidar with TCP connection.\n");
  std::string ip, port_text;
  {
    std::lock_guard<std::mutex> lock(fields_mutex_);
    ip = ip_address_;
    port_text = port_;
  }
  const auto port = static_cast<uint16_t>(varkel::Stoi(port_text) & 0xFFFF);
  const auto override_ms = static_cast<uint32_t>(ktc_timeout_override_ms_.load());
  if (override_ms != 0) timeout_ms = override_ms;
  bool tls = false;
  std::string ca, cert, key;
  {
    std::lock_guard<std::mutex> lock(fields_mutex_);
    tls = tls_enabled_;
    ca = tls_ca_file_;
    cert = tls_cert_file_;
    key = tls_key_file_;
    tls_issuer_.clear();
  }
  emit tlsChanged();
  // Over TLS the connect thread retries the TCP connect and then waits for the handshake,
  // each up to the connect time-out.
  auto client = std::make_shared<KtcClient>(
      ip, port, false, tls ? KtcClient::kClientVerifiedTls : KtcClient::kClientTcp, 1, cert, key, ca, timeout_ms,
      timeout_ms, tls ? static_cast<float>(timeout_ms) / 1000.0f : 0.0f, 0);
  if (override_ms != 0) {
    client->SetDownloadIdleTimeoutMs(override_ms);
    client->SetTransferTimeoutMs(override_ms);
  }
  SetKtcClient(client);
  if (tls) {
    // The handshake's outcome, not a fixed delay: a refusal is final and never falls back.
    const auto deadline = std::chrono::steady_clock::now() + 2 * std::chrono::milliseconds(timeout_ms);
    while (!client->IsOpen() && client->ConnectError().empty() && !closing_.load() &&
           std::chrono::steady_clock::now() < deadline)
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    if (!client->IsOpen()) {
      const std::string why = client->ConnectError();
      throw TlsRefusal(why.empty() ? "no verified TLS connection within " + std::to_string(timeout_ms) + " ms" : why);
    }
    {
      std::lock_guard<std::mutex> lock(fields_mutex_);
      tls_issuer_ = client->PeerIssuer();
    }
    emit tlsChanged();
    return client;
  }
  // The lidar must accept within this time; there is no second chance, deliberately.
  std::this_thread::sleep_for(kOpenCheckDelay);
  if (!client->IsOpen()) throw std::runtime_error("TCP connection failed.");
  return client;
}

void VarkelManager::RunConnectWorker(const char* operation, const char* failure_notice,
                                     const std::function<void()>& body) {
  { std::lock_guard<std::mutex> wait_for_stop(disconnect_mutex_); }
  QString reason = "Unknown";
  QString notice = failure_notice;
  try {
    body();
    return;
  } catch (const TlsRefusal& e) {
    reason = e.what();
    notice = reason;
  } catch (const std::exception& e) {
    reason = e.what();
  } catch (...) {
  }
  Trace(operation, "init lidar error\n");
  setErrorMsg(notice);
  emit sendLogMessage("Connection Error: " + reason, "ERROR");
  connecting_.store(false);
}

void VarkelManager::Init() {
  RunConnectWorker("Init", kNetworkFailure, [this] {
    auto client = OpenKtcConnection("Init", 4000);
    InstallKtcLogCallback(*client);
    if (!ProbeLidar(*client)) {
      Print("DEBUG: heckLidarConnection() == false\n");
      throw std::runtime_error("Lidar has No KTC reply.");
    }
    if (closing_.load()) {
      connecting_.store(false);
      return;
    }
    // Replaces a refresh thread left by an earlier connection or a concurrent attempt.
    RestartRefreshThread(&VarkelManager::updatePagesTimer);
    is_connected_.store(true);
    emit sendLogMessage("Lidar connected", "INFO");
    emit myMapChanged();
    emit isConnectedChanged();
    connecting_.store(false);
  });
}

void VarkelManager::InitKtcForSerial() {
  RunConnectWorker("InitKtcForSerial", kNetworkFailure, [this] {
    auto client = OpenKtcConnection("InitKtcForSerial", 5000);
    const auto baud = static_cast<uint32_t>(baud_rate_.load());
    client->SetSerialFastBaudRate(baud);
    InstallKtcLogCallback(*client);
    // The small lidar switches its serial side to the chosen rate; it may answer at the
    // new rate or not at all, so the result is not checked.
    std::vector<uint8_t> payload{0x00,
                                 0x01,
                                 0x39,
                                 static_cast<uint8_t>(baud >> 24),
                                 static_cast<uint8_t>(baud >> 16),
                                 static_cast<uint8_t>(baud >> 8),
                                 static_cast<uint8_t>(baud)};
    std::vector<uint8_t> reply;
    client->QueryCommand(payload, reply, kSubCommandCmd);
    if (closing_.load()) {
      connecting_.store(false);
      return;
    }
    const auto catalogue = Catalogue();
    const bool marvo = catalogue && catalogue->model == "Marvo-KTC";
    ResetSmallSensorInfo();
    // The Marvo's versions are read below, before the connection is announced.
    small_versions_read_.store(marvo);
    RestartRefreshThread(&VarkelManager::SmallSensorInfoThread);
    is_connected_.store(true);
    emit sendLogMessage("Lidar connected", "INFO");
    if (marvo) {
      if (auto link = SmallSensorLink()) ReadSmallSensorVersions(*link);
    }
    emit isConnectedChanged();
    connecting_.store(false);
  });
}

std::shared_ptr<SerialSource> VarkelManager::MakeSerialSource(const std::string& port, uint32_t baud_rate_type1,
                                                              uint32_t baud_rate_type0) {
  return std::make_shared<SerialSource>(port, baud_rate_type1, baud_rate_type0);
}

bool VarkelManager::InitSerial() {
  bool connected = false;
  RunConnectWorker("InitSerial", kSerialFailure, [this, &connected] { connected = OpenSerialConnection(); });
  return connected;
}

bool VarkelManager::OpenSerialConnection() {
  connecting_.store(true);
  {
    std::lock_guard<std::mutex> lock(clients_mutex_);
    serial_source_485_.reset();
    serial_source_232_.reset();
  }
  std::string port485, port232;
  {
    std::lock_guard<std::mutex> lock(fields_mutex_);
    port485 = serial_port_485_;
    port232 = serial_port_232_;
  }
  auto rs485 = MakeSerialSource(port485, static_cast<uint32_t>(serial_command_baud_rate_),
                                static_cast<uint32_t>(baud_rate_.load()));
  auto uart = MakeSerialSource(port232, static_cast<uint32_t>(serial_uart_baud_rate_), 3125000u);

  rs485->SetReceiveType(0);
  rs485->Open();
  if (!rs485->IsOpened()) {
    rs485.reset();
    setErrorMsg("Connection Failed. Please check your RS485 serial port.");
    emit sendLogMessage("Connection Error: RS485 serial open fail", "ERROR");
    connecting_.store(false);
    return false;
  }
  uart->SetReceiveType(1);
  uart->SetAutoReceive(false);
  uart->Open();
  if (!uart->IsOpened()) {
    rs485->Close();
    rs485.reset();
    setErrorMsg("Connection Failed. Please check your UART serial port.");
    emit sendLogMessage("Connection Error: UART serial open fail", "ERROR");
    connecting_.store(false);
    return false;
  }

  // Commands go out on the UART line; replies and points come back on RS485.
  auto client = std::make_shared<SerialClient>(uart, rs485);
  {
    std::lock_guard<std::mutex> lock(clients_mutex_);
    serial_source_485_ = rs485;
    serial_source_232_ = uart;
    serial_client_ = client;
    small_link_.reset();
  }
  is_connected_.store(true);
  emit sendLogMessage("Lidar connected", "INFO");
  connecting_.store(false);
  client->SetLogCallback([this](const std::string& line) { OnClientLog(line); });
  ResetSmallSensorInfo();
  small_versions_read_.store(false);
  RestartRefreshThread(&VarkelManager::SmallSensorInfoThread);
  emit isConnectedChanged();
  return true;
}

bool VarkelManager::CheckLidarConnection() {
  auto client = KtcClientHandle();
  if (client) return client->IsOpen() && ProbeLidar(*client);
  // The serial lines have no KTC client to probe; the serial-number query tells whether
  // the sensor still answers, so the window's periodic check keeps a healthy connection.
  std::shared_ptr<SerialClient> serial;
  {
    std::lock_guard<std::mutex> lock(clients_mutex_);
    serial = serial_client_;
  }
  if (!serial) return false;
  quarn::lidar::KtcSerialClient link(serial);
  const bool log_bytes = log_bytes_flow_.exchange(false);
  std::vector<uint8_t> body;
  const bool answered =
      link.Exchange(quarn::lidar::small_sensor::kGet, {quarn::lidar::small_sensor::kItemSerialNumber, 1}, body) == 0 &&
      quarn::lidar::small_sensor::ParseSerialNumber(body).has_value();
  log_bytes_flow_.store(log_bytes);
  return answered;
}

void VarkelManager::CloseTransports() {
  SetKtcClient(nullptr);
  std::shared_ptr<SerialSource> rs485, uart;
  std::shared_ptr<SerialClient> client;
  {
    std::lock_guard<std::mutex> lock(clients_mutex_);
    rs485.swap(serial_source_485_);
    uart.swap(serial_source_232_);
    client.swap(serial_client_);
    small_link_.reset();
  }
  if (rs485) rs485->Close();
  if (uart) uart->Close();
}

void VarkelManager::Stop() {
  std::lock_guard<std::mutex> lock(disconnect_mutex_);
  // Every transport is closed whatever connectType says: the small-sensor functions switch
  // it to 2 on purpose, and a serial line must not stay open after a disconnect.
  try {
    switch (connect_type_.load()) {
      case 0:
        is_connected_.store(false);
        CutExchangesShort();
        StopRefreshThread();
        SetSnValuesUnknown();
        CloseTransports();
        ClearPendingWrites();
        ResetSmallSensorInfo();
        emit isConnectedChanged();
        emit myMapChanged();
        {
          std::lock_guard<std::mutex> lock(fields_mutex_);
          for (size_t i = 0; i < 4; ++i) {
            fov_[i] = 0.0f;
            fov_read_ms_[i] = 0;
          }
        }
        emit fovConfigChanged();
        emit sendLogMessage("Lidar disconnected", "INFO");
        break;
      case 1:
      case 2:
        is_connected_.store(false);
        CutExchangesShort();
        StopRefreshThread();
        if (connect_type_.load() == 2) SetSnValuesUnknown();
        CloseTransports();
        ResetSmallSensorInfo();
        emit isConnectedChanged();
        emit zeltoLidarInfoChanged();
        emit sendLogMessage("Lidar disconnected", "INFO");
        break;
      default:
        emit sendLogMessage("connect type is not support", "INFO");
        break;
    }
  } catch (...) {
    Print("stop error\n");
  }
}
