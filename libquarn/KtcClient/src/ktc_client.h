#pragma once
// The KTC command client: one request frame out, the matching reply back, over a TCP or
// TLS transport made by a background connect thread, or over a transport handed in
// already open. Exchanges from any thread are serialised by one command lock.

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "client_base.h"
#include "ktc_parser.h"

namespace quarn::lidar {

// Last return codes of failed exchanges, beside the lidar's own non-zero codes.
constexpr int kKtcHeaderReadFailed = -2;
constexpr int kKtcPayloadReadFailed = -3;
constexpr int kKtcSendFailed = -4;

class KtcClient {
 public:
  static constexpr uint32_t kClientTcp = 0;
  static constexpr uint32_t kClientTls = 1;
  // The transport was handed in; no connect thread runs.
  static constexpr uint32_t kClientGiven = 2;
  // TLS with the sensor's certificate verified (VerifiedTlsClient). A failed verification
  // ends the connect thread: it is never retried and never falls back to plain TCP.
  static constexpr uint32_t kClientVerifiedTls = 3;

  // Starts the connect thread at once; poll IsOpen. An empty lidar_ip makes the thread wait
  // for SetLidarIp. connect_timeout_s < 0 means retry without end (until Stop).
  KtcClient(const std::string& lidar_ip, uint16_t lidar_port, bool auto_receive, uint32_t client_type,
            uint8_t protocol_version, const std::string& cert_path, const std::string& private_key_path,
            const std::string& ca_path, uint32_t recv_timeout_ms, uint32_t send_timeout_ms, float connect_timeout_s,
            uint16_t local_port = 0);
  // Runs over `transport`, which the caller has opened: there is no connect thread and no
  // address, IsOpen follows the transport, and the configured time-outs are applied to it
  // at once (zero keeps the transport's own, as for the other constructor). The client
  // closes the transport when it goes. For links this client does not make itself, e.g.
  // an in-memory stream that tests and fuzzing feed.
  KtcClient(std::shared_ptr<ClientBase> transport, uint8_t protocol_version, uint32_t recv_timeout_ms,
            uint32_t send_timeout_ms);
  ~KtcClient();
  KtcClient(const KtcClient&) = delete;
  KtcClient& operator=(const KtcClient&) = delete;

  bool IsOpen();
  // Verified TLS only: why connecting failed, once it has for good (a TLS failure, or the
  // connect time-out passed); empty while it may still open and for the other types.
  std::string ConnectError() const;
  // Verified TLS only: who issued the sensor's certificate; empty while not open.
  std::string PeerIssuer() const;

  // One exchange. 0 on success, -1 on failure with the reason in GetLastReturnCode().
  // On success `result` is the reply payload (header first when with_header).
  int QueryCommand(const std::vector<uint8_t>& payload, std::vector<uint8_t>& result, uint8_t cmd,
                   bool with_header = false);

  // One exchange for a reply that may be many MiB (a log): as QueryCommand without header,
  // but each read may wait the download idle time-out and no size warning is logged.
  // Memory grows only with the bytes that actually arrive.
  int DownloadQuery(const std::vector<uint8_t>& payload, std::vector<uint8_t>& result, uint8_t cmd);
  static constexpr uint32_t kDownloadIdleTimeoutMs = 10000;
  // The longest silence a download waits out (kDownloadIdleTimeoutMs). Tests shorten it.
  void SetDownloadIdleTimeoutMs(uint32_t ms) { download_idle_timeout_ms_.store(ms); }

  // Sends a file as 1024-byte pieces, one exchange each; `progress` is the piece being sent.
  int TransferFile(const std::vector<uint8_t>& data, uint32_t code, bool extended, std::atomic<uint32_t>& progress);
  // Receive and send time-out of each piece's exchange (60000 ms). Tests shorten it to see
  // a silent sensor end a transfer without waiting a minute.
  void SetTransferTimeoutMs(uint32_t ms) { transfer_timeout_ms_.store(ms); }
  // Every file transfer on this client, the running one and any later, ends with -1
  // before its next piece. For an owner that is going away.
  void CancelTransfers() { transfers_cancelled_.store(true); }
  // From any thread: the exchange in flight ends at once (its transport is interrupted) and
  // every later one, file transfers included, fails without going out. For an owner that
  // is letting the link go while another thread may be waiting on it.
  void Interrupt();
  // Hexadecimal command text; extended unless exactly 4 characters. Throws
  // std::invalid_argument / std::out_of_range for a text that is no number. Empties cmd_text.
  int TransferFileByCmdText(const std::vector<uint8_t>& data, std::string& cmd_text, std::atomic<uint32_t>& progress);

  bool KtcStreamDecode(uint8_t status, uint8_t byte, const std::vector<uint8_t>& in, int32_t offset, int32_t length,
                       std::vector<uint8_t>& out);

  int GetLastReturnCode() const { return last_return_code_.load(); }
  // Receives the "SEND: " and "RECV: " lines. `wanted`, when given, is asked before each
  // line is built: hexadecimal text of every piece of a file costs more than sending it.
  void SetLogCallback(std::function<void(const std::string&)> callback, std::function<bool()> wanted = {});
  void SetSerialFastBaudRate(uint32_t baud) { serial_fast_baud_rate_.store(baud); }
  uint32_t GetSerialFastBaudRate() const { return serial_fast_baud_rate_.load(); }
  uint32_t GetSerialDefaultBaudRate() const { return serial_default_baud_rate_; }
  // Fills in the address the connect thread waits for when it was constructed without one.
  void SetLidarIp(const std::string& ip);
  std::string GetLidarIp() const;
  // true: the timed 50 ms drain before every exchange instead of the adaptive one.
  void SetLiteralDrain(bool literal) { literal_drain_.store(literal); }
  // Ends the connect thread's waiting and retrying and joins it.
  void Stop();

 private:
  void TryOpen();
  // `train`: a piece of a file transfer after a clean exchange of the same transfer; the
  // untimed drain is left out (see TransferFile).
  int Exchange(const std::vector<uint8_t>& payload, std::vector<uint8_t>& result, uint8_t cmd, bool with_header,
               bool download, bool train = false);
  std::shared_ptr<ClientBase> Transport() const;
  void DrainStaleInput(ClientBase& transport);
  // Runs under the command lock.
  void ApplyTimeouts(ClientBase& transport, uint32_t receive_ms, uint32_t send_ms);
  // Builds the line with `make` only when someone takes it.
  void EmitLog(const std::function<std::string()>& make);

  std::atomic<uint32_t> serial_fast_baud_rate_{3125000};
  const uint32_t serial_default_baud_rate_ = 115200;
  std::atomic<bool> running_{true};
  std::atomic<bool> connect_ended_{false};
  std::atomic<int> last_return_code_{0};
  std::mutex command_mutex_;
  const uint32_t client_type_;
  const uint8_t protocol_version_;
  mutable std::mutex transport_mutex_;
  std::shared_ptr<ClientBase> transport_;
  std::shared_ptr<KtcParser> parser_;
  std::thread connect_thread_;
  mutable std::mutex ip_mutex_;
  std::string lidar_ip_;
  const uint16_t lidar_port_;
  const uint16_t local_port_;
  const bool auto_receive_;
  const std::string cert_path_;
  const std::string private_key_path_;
  const std::string ca_path_;
  const uint32_t recv_timeout_ms_;
  const uint32_t send_timeout_ms_;
  // Guarded by command_mutex_.
  uint32_t current_recv_timeout_ms_;
  uint32_t current_send_timeout_ms_;
  const float connect_timeout_s_;
  std::mutex callback_mutex_;
  std::function<void(const std::string&)> log_callback_;
  std::function<bool()> log_wanted_;

  std::mutex stop_mutex_;
  std::atomic<bool> literal_drain_{false};
  std::atomic<uint32_t> transfer_timeout_ms_{60000};
  std::atomic<uint32_t> download_idle_timeout_ms_{kDownloadIdleTimeoutMs};
  std::atomic<bool> transfers_cancelled_{false};
  std::atomic<bool> interrupted_{false};
  // Set when an exchange failed or was abandoned: the next one waits for late bytes.
  // Guarded by command_mutex_.
  bool timed_drain_due_ = false;
};

}  // namespace quarn::lidar
