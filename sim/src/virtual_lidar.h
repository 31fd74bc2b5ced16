#pragma once
// varkel-sim as a library: a simulated lidar on loopback, seeded from a model table.
// Tests start it in-process on an ephemeral port; the executable wraps it.
//
// It serves KTC over TCP (frame version 1 or 2) from a register bank built from the
// model table, the probes 7 and 8, extended commands (0xFF + 4-byte code), file
// transfers, restart and reset, log downloads, the read-back of the model table, the
// baud-rate command of the small serial sensors and, in serial mode, the
// "$LDCMD,"/"$LDOTA," protocol on two pseudo-terminals. An optional emitter sends
// point-cloud-like datagrams. docs/virtual-lidar.md describes what it answers.

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "command_key.h"
#include "failure_mode.h"
#include "file_receiver.h"
#include "fov_block.h"
#include "register_bank.h"
#include "small_sensor.h"
#include "tls_server.h"

namespace varkel::sim {

struct SimOptions {
  std::string model = "Quenta";
  std::string config_dir;  // folder holding <model>.csv
  std::string host = "127.0.0.1";
  uint16_t port = 9347;  // 0 = ephemeral
  int ktc_version = 1;
  bool serial = false;
  std::string udp_target;  // HOST:PORT, empty = off
  int udp_rate = 0;        // datagrams per second; 0 with a target = 10
  size_t udp_size = 0;     // bytes per datagram, 64 to 1472; 0 = one whole point packet
  bool verbose = false;
  // Point-cloud packets per second on the serial data line (0 = none). They share the
  // line with the command replies, so a program reading replies must expect them.
  int serial_stream_rate = 0;
  // Run times count up and temperatures drift; tests that compare exact texts turn it off.
  bool live_values = true;
  // How long a restart (or reset) keeps the sensor off the network.
  int restart_delay_ms = 3000;
  // Bytes in every log body (each operation-log part too); at most kMaxLogSize.
  uint32_t log_size = 256u * 1024u;
  // KTC over TLS with this certificate and key; with a client CA, clients must show a
  // certificate it issued.
  bool tls = false;
  std::string tls_cert;
  std::string tls_key;
  std::string tls_client_ca;
  // Ramps from the moment the lidar listens (they move even without live values).
  std::vector<Excursion> excursions;
};

class RegisterBank;
struct BankVariable;
class ReplyPath;
class UdpEmitter;
class PtyPair;
struct KtcRequest;

class VirtualLidar {
 public:
  using Transfer = TransferRecord;

  explicit VirtualLidar(SimOptions options);
  ~VirtualLidar();
  VirtualLidar(const VirtualLidar&) = delete;
  VirtualLidar& operator=(const VirtualLidar&) = delete;

  // Loads the table and opens everything; false with a readable reason.
  bool Start(std::string* error);
  void Stop();

  uint16_t port() const { return port_.load(); }
  // Pseudo-terminal paths in serial mode: UART commands and RS485 data ("" otherwise).
  std::string command_port_path() const;
  std::string data_port_path() const;

  // cmd -1 = every command. A mode set for one command wins over the every-command one.
  void SetFailure(FailureMode mode, int cmd = -1, int param = 0);
  void ClearFailures();
  // A silent command is counted but never answered (meant for the probes 7 and 8).
  void SetSilent(uint8_t cmd, bool silent);
  // Nothing leaves the sensor while the link is lost: no reply, no datagram, no serial byte.
  void SetLinkLost(bool lost);

  // What arrived: KTC requests by command byte (payload whole), extended ones by code
  // (payload after the code), serial command frames by command code.
  uint64_t CommandCount(uint8_t cmd) const;
  std::vector<uint8_t> LastPayload(uint8_t cmd) const;
  uint64_t ExtendedCount(uint32_t code) const;
  std::vector<uint8_t> LastExtendedPayload(uint32_t code) const;
  uint64_t SerialCommandCount(uint8_t cmd) const;
  std::vector<uint8_t> LastSerialPayload(uint8_t cmd) const;
  void ResetCounters();

  // The text the program shows for a variable, by var_id or name ("" when unknown).
  std::string Value(const std::string& var_name_or_id) const;
  bool SetValue(const std::string& var_name_or_id, const std::string& text);
  std::vector<std::string> VariableIds() const;

  std::optional<Transfer> LastTransfer() const;
  // Firmware upgrades: files that arrived whole on the table's upgrade command. The
  // version their image announces (docs/virtual-lidar.md) becomes the "Firmware Version"
  // at the next restart command.
  uint64_t UpgradesReceived() const;
  std::optional<std::string> PendingFirmwareVersion() const;
  uint32_t BaudRate() const { return baud_rate_.load(); }
  // Every baud rate the sensor was told to take, refused ones included, in order.
  struct BaudRequest {
    uint32_t rate = 0;
    bool taken = false;
  };
  std::vector<BaudRequest> BaudRateRequests() const;
  static bool SupportedBaudRate(uint32_t rate);

  // OTA images and Marvo components, in the order they ended (well or not), whichever
  // line brought them (docs/upgrade.md).
  std::vector<OtaRecord> OtaRecords() const;
  // Files that arrived whole on 0x83 at a small sensor over KTC: junction-box upgrades.
  uint64_t JunctionBoxUpgrades() const;

  // The field of view behind 0x23/0x22, in hundredths of a degree (start 0, end 36000).
  void SetFov(const FovBlock::Angles& start, const FovBlock::Angles& end) { fov_.Set(start, end); }
  FovBlock::Angles FovStart() const { return fov_.Start(); }
  FovBlock::Angles FovEnd() const { return fov_.End(); }

  SmallSensorState SmallSensor() const;
  void SetSmallSensor(const SmallSensorState& state);
  // Datagrams sent, and of them those whose destination is another host (never on the wire).
  uint64_t DatagramsSent() const;
  uint64_t DatagramsWithheld() const;

  // Restart and reset (the set commands of the table's "Restart" and "Reset" variables):
  // restarts begun and resets done since Start. A reset counts as a restart too.
  uint64_t RestartCount() const;
  uint64_t ResetCount() const;
  // KTC connections accepted since construction (ResetCounters leaves it).
  uint64_t ConnectionsAccepted() const { return connections_accepted_.load(); }
  // KTC connections still being served. Once a client has closed its side and this is 0,
  // every request it sent has been read and acted on (a restart among them has begun).
  size_t KtcConnectionsOpen() const;
  // Takes effect from the next restart.
  void SetRestartDelay(int ms);
  // Takes effect from the next log request; clamped to kMaxLogSize.
  void SetLogSize(uint32_t bytes);

  // Logs: the table's "raw" variables with a get command and no set command, by var_name.
  std::vector<std::string> LogNames() const;
  // The exact body the sensor sends for a log now. The operation log wants the selector of
  // one of its parts (first selector byte in the high half: 0x0101 is 01 01); the other
  // logs want none. nullopt for an unknown log or a selector that does not fit it.
  std::optional<std::vector<uint8_t>> LogBody(const std::string& log_name,
                                              std::optional<uint16_t> selector = std::nullopt) const;

  static constexpr uint32_t kDefaultBaudRate = 115200;
  // The reply holding a log is built in memory (twice, briefly), so its size is capped far
  // below what the 32-bit length field could carry.
  static constexpr uint32_t kMaxLogSize = 1u << 30;
  // Command 0x74 with an empty payload answers the model table file.
  static constexpr uint8_t kTableReadCmd = 0x74;

 private:
  struct Connection;
  struct Reply;
  struct FailureSpec {
    FailureMode mode = FailureMode::kNone;
    int param = 0;
  };
  enum class Lifecycle { kNone, kRestart, kReset };
  // A log of the table: its get command and the payload that asks for it.
  struct LogVar {
    std::string name;
    CommandKey key;
    std::vector<uint8_t> payload;
    bool operation = false;  // the operation log: payload + two selector bytes
  };
  // Where a restart stands: a connection thread asks (kRequested), the accept thread closes
  // the listening socket (kListenerClosed), the connection thread sends its reply
  // (kReplied), the accept thread drops every connection, waits and listens again (kNone).
  enum class RestartStep { kNone, kRequested, kListenerClosed, kReplied };

  bool StartKtc(std::string* error);
  // Learns the restart and reset commands and the logs from the table.
  void FindMaintenanceVariables(const std::vector<BankVariable>& vars);
  // A listening socket on opt_.host:port, or -1 with a reason.
  int OpenListener(uint16_t port, std::string* error);
  bool StartSerial(std::string* error);
  void AcceptLoop();
  // Shuts every KTC connection down and joins its thread.
  void DropConnections();
  void Serve(Connection* conn);
  Reply Dispatch(const KtcRequest& req, const Connection* conn);
  Reply OnPiece(uint8_t cmd, const CommandKey& key, const std::vector<uint8_t>& code_prefix,
                const std::vector<uint8_t>& piece, const Connection* conn);
  // During a restart: a firmware image received whole takes effect.
  void ApplyPendingUpgrade();
  // The answer to a field-of-view read or write; nullopt for other commands.
  std::optional<Reply> FovAnswer(uint8_t cmd, const std::vector<uint8_t>& payload);
  // The answer to a log request; nullopt when the command is no log's.
  std::optional<Reply> LogAnswer(const CommandKey& key, const std::vector<uint8_t>& payload);
  // What the request starts once answered: a restart or reset when it is the set command
  // of the table's "Restart"/"Reset" variable and the bank took it.
  Lifecycle LifecycleOf(const CommandKey& key, uint8_t return_code) const;
  // Connection thread: asks for a restart and waits until the listening socket is closed;
  // false when a restart is already under way or the sensor is stopping.
  bool BeginRestart(Lifecycle kind);
  // Connection thread: its reply is out; the accept thread goes on with the restart.
  void RestartReplySent();
  // Accept thread: the rest of the restart.
  void RunRestart();
  // The answer of "Zelto-KTC" and "Marvo-KTC" to the small-sensor commands (serial
  // requests 2 and 3 carried by KTC, 0x08, 0x20); nullopt for other models and commands.
  std::optional<Reply> SmallSensorKtcAnswer(uint8_t cmd, const std::vector<uint8_t>& payload);
  bool SmallSensorOverKtc() const;
  // The answer (status) to one OTA frame from either line, after the file-piece failure
  // modes set for command 0x84; nullopt: no answer. `drop_line`: the line goes dead after
  // this answer.
  std::optional<uint8_t> AnswerOta(uint8_t type, uint32_t value1, uint32_t value2, const std::vector<uint8_t>& data,
                                   bool& drop_line);
  void RecordOta(const std::optional<OtaRecord>& record, const std::string& note);
  FailureSpec FailureFor(uint8_t cmd) const;
  void Count(const KtcRequest& req);
  void SerialLoop();
  // Waits ms or until Stop; true when stopping.
  bool Pause(int ms);

  SimOptions opt_;
  std::unique_ptr<ReplyPath> path_;
  std::unique_ptr<RegisterBank> bank_;
  std::unique_ptr<UdpEmitter> udp_;
  std::unique_ptr<PtyPair> cmd_pty_;
  std::unique_ptr<PtyPair> data_pty_;
  varkel::sim::SmallSensor small_;
  FovBlock fov_;

  std::atomic<bool> running_{false};
  std::atomic<uint16_t> port_{0};
  std::atomic<uint32_t> baud_rate_{kDefaultBaudRate};
  ServerContext tls_ctx_;  // set by Start when serving TLS
  int listen_fd_ = -1;     // the accept thread's once it runs (it closes and reopens it on restart)
  bool ktc_started_ = false;
  // A connection thread's byte here wakes the accept thread for a restart.
  int wake_pipe_[2] = {-1, -1};
  std::atomic<int> restart_delay_ms_;
  std::atomic<uint32_t> log_size_;
  // Set in Start from the table, before any connection thread runs; read-only afterwards.
  std::optional<CommandKey> restart_key_;
  std::optional<CommandKey> reset_key_;
  std::optional<CommandKey> upgrade_key_;
  std::vector<LogVar> logs_;
  std::vector<uint8_t> table_bytes_;
  std::thread accept_thread_;
  std::thread serial_thread_;

  // Keeps apart the accept thread (adds connections), the connection threads (close their
  // own socket) and Stop (shuts the sockets down and joins the threads).
  mutable std::mutex conn_mu_;
  std::vector<std::unique_ptr<Connection>> connections_;

  // Keeps apart the connection and serial threads (counting, reading failure modes,
  // receiving file pieces) and the embedding thread (setting modes, reading counters).
  mutable std::mutex state_mu_;
  std::map<int, FailureSpec> failures_;
  std::map<uint8_t, bool> silent_;
  std::map<uint8_t, uint64_t> counts_;
  std::map<uint8_t, std::vector<uint8_t>> last_payload_;
  std::map<uint32_t, uint64_t> ext_counts_;
  std::map<uint32_t, std::vector<uint8_t>> ext_last_payload_;
  std::map<uint8_t, uint64_t> serial_counts_;
  std::map<uint8_t, std::vector<uint8_t>> serial_last_payload_;
  FileReceiver files_;
  const Connection* transfer_owner_ = nullptr;
  uint64_t restarts_ = 0;
  uint64_t resets_ = 0;
  std::atomic<uint64_t> connections_accepted_{0};
  uint64_t upgrades_received_ = 0;
  uint64_t junction_box_upgrades_ = 0;
  std::vector<BaudRequest> baud_requests_;
  std::vector<OtaRecord> ota_records_;
  // Serial line after a disconnect-after-pieces: OTA frames go unanswered until a start.
  bool serial_ota_dead_ = false;
  bool upgrade_pending_ = false;
  std::optional<std::string> pending_version_;

  // Lets Pause() wake at once when Stop is called, and carries the restart hand-over
  // between a connection thread and the accept thread.
  std::mutex stop_mu_;
  std::condition_variable stop_cv_;
  bool stopping_ = false;
  RestartStep restart_step_ = RestartStep::kNone;
  Lifecycle restart_kind_ = Lifecycle::kNone;
};

}  // namespace varkel::sim
