#pragma once
// The one controller the user interface talks to: connection settings, the connection to
// the lidar, the variable table of the selected model and everything the pages show.
//
// Threads: invokables and property reads run on the UI thread; connect workers and the
// page-refresh thread write the controller and emit its signals from their own threads.
// Flags are atomic, texts sit behind small locks, the client handles are swapped under a
// lock and used through copies, and the value texts of the table are guarded by one
// lock shared by every reader and writer. The destructor ends and joins every thread the
// controller started.

#include <QObject>
#include <QString>
#include <QUrl>
#include <QVariantList>

#include <array>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <initializer_list>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <vector>

class QFile;
class MonitorModel;
class QProcess;
class StreamMonitorModel;
struct VarInfo;

namespace quarn::lidar {
class KtcClient;
class KtcSerialClient;
class SerialClient;
class SerialSource;
}  // namespace quarn::lidar

namespace varkel {
struct ManagerCatalogue;
struct MonitorPlan;
}  // namespace varkel
namespace quarn::journal {
struct Site;
}
class JournalHistory;

class VarkelManager : public QObject {
  Q_OBJECT

  Q_PROPERTY(QVariantList myMap READ getMyMap NOTIFY myMapChanged)
  Q_PROPERTY(QString ip_address READ getIpAddress WRITE setIpAddress NOTIFY initInfoChanged)
  Q_PROPERTY(QString udpPort READ getUdpPort WRITE setUdpPort NOTIFY initInfoChanged)
  Q_PROPERTY(QString port READ getPort WRITE setPort NOTIFY initInfoChanged)
  // KTC over verified TLS on the network connection, with its files (kept in the settings)
  // and, while so connected, who issued the sensor's certificate.
  Q_PROPERTY(bool tlsEnabled READ getTlsEnabled WRITE setTlsEnabled NOTIFY tlsChanged)
  Q_PROPERTY(QString tlsCaFile READ getTlsCaFile WRITE setTlsCaFile NOTIFY tlsChanged)
  Q_PROPERTY(QString tlsCertFile READ getTlsCertFile WRITE setTlsCertFile NOTIFY tlsChanged)
  Q_PROPERTY(QString tlsKeyFile READ getTlsKeyFile WRITE setTlsKeyFile NOTIFY tlsChanged)
  Q_PROPERTY(QString tlsIssuer READ getTlsIssuer NOTIFY tlsChanged)
  Q_PROPERTY(QString serial_port_485 READ getSerialPort485 WRITE setSerialPort485 NOTIFY initInfoChanged)
  Q_PROPERTY(QString serial_port_232 READ getSerialPort232 WRITE setSerialPort232 NOTIFY initInfoChanged)
  Q_PROPERTY(QString baud_rate READ getBaudRate WRITE setBaudRate NOTIFY initInfoChanged)
  Q_PROPERTY(QString errorMessage READ getErrorMessage NOTIFY errorMessageChanged)
  Q_PROPERTY(QString successMessage READ getSuccessMessage NOTIFY successMessageChanged)
  Q_PROPERTY(QString SendKtcCommandReturnHeader READ commandReturnHeader NOTIFY sendCommandHistoryChanged)
  Q_PROPERTY(QString SendKtcCommandReturnPayload READ commandReturnPayload NOTIFY sendCommandHistoryChanged)
  Q_PROPERTY(int CommandLogCnt READ getCommandLogCnt NOTIFY sendCommandHistoryChanged)
  Q_PROPERTY(QVariantList SendCommandHistory READ getSendCommandHistory NOTIFY sendCommandHistoryChanged)
  Q_PROPERTY(bool IsConnected READ getIsConnected NOTIFY isConnectedChanged)
  Q_PROPERTY(QVariantList FovList READ getFovList NOTIFY fovConfigChanged)
  Q_PROPERTY(QVariantList FovReadNotes READ getFovReadNotes NOTIFY fovConfigChanged)
  Q_PROPERTY(bool IsUpgrading READ getIsUpgrading NOTIFY isUpgradingChanged)
  Q_PROPERTY(bool IsDownloadLog READ getIsDownloadLog WRITE setIsDownloadLog NOTIFY isDownloadLogChanged)
  Q_PROPERTY(QVariantList LidarModelList READ getLidarModelList NOTIFY lidarModelListChanged)
  Q_PROPERTY(int upgradeProgress READ getUpgradeProgress)
  Q_PROPERTY(int upgradeProgressTotalLen READ getUpgradeProgressTotalLen)
  Q_PROPERTY(int connectType READ getConnectType NOTIFY connectTypeChanged)
  Q_PROPERTY(QVariantList level1List READ getLevel1List NOTIFY lidarModelChanged)
  Q_PROPERTY(QVariantList level2List READ getLevel2List NOTIFY lidarModelChanged)
  Q_PROPERTY(QVariantList ZeltoLidarInfo READ getZeltoLidarInfo NOTIFY zeltoLidarInfoChanged)
  Q_PROPERTY(QVariantList ZeltoLidarVersionInfo READ getZeltoLidarVersionInfo NOTIFY zeltoLidarInfoChanged)
  Q_PROPERTY(bool isGetPBLVersion READ getIsGetPBLVersion NOTIFY isGetPBLVersionChanged)
  Q_PROPERTY(QVariantList logRepeaterModel READ getLogRepeaterModel NOTIFY lidarModelChanged)
  // The Data Stream page's figures and diagnosis (stream_monitor_model.h).
  Q_PROPERTY(QObject* streamMonitor READ getStreamMonitor CONSTANT)
  Q_PROPERTY(QObject* history READ history CONSTANT)  // the History page (journal_history.h)
  // The Monitor page's charts, limits and recording (a MonitorModel).
  Q_PROPERTY(QObject* monitor READ monitor CONSTANT)

 public:
  // Created on the first call, once per process; later calls return the same object and
  // ignore their arguments. The caller (the main window) owns and deletes it.
  static VarkelManager* GetInstance(bool flag, const QString& config_path);

  ~VarkelManager() override;
  QObject* history();
  VarkelManager(const VarkelManager&) = delete;
  VarkelManager& operator=(const VarkelManager&) = delete;

  // The connection settings file: documents folder + "/VelmoraDataFiles/RecvSettings.ini".
  static QString SettingsFilePath();

  // Called by the main window with the model given on the command line.
  void SetVMNowName(QString name);

  // Property accessors.
  QObject* monitor() const;
  QVariantList getMyMap();
  QString getIpAddress() const;
  void setIpAddress(const QString& text);
  QString getUdpPort() const;
  // Throws std::invalid_argument("invalid stoi argument") or
  // std::out_of_range("stoi argument out of range"); the value then stays.
  void setUdpPort(const QString& text);
  QString getPort() const;
  void setPort(const QString& text);
  bool getTlsEnabled() const;
  void setTlsEnabled(bool on);
  // The file setters take a path or a file URL (what a file dialog gives).
  QString getTlsCaFile() const;
  void setTlsCaFile(const QString& path);
  QString getTlsCertFile() const;
  void setTlsCertFile(const QString& path);
  QString getTlsKeyFile() const;
  void setTlsKeyFile(const QString& path);
  QString getTlsIssuer() const;
  QString getSerialPort485() const;
  void setSerialPort485(const QString& text);
  QString getSerialPort232() const;
  void setSerialPort232(const QString& text);
  QString getBaudRate() const;
  void setBaudRate(const QString& text);
  QString getErrorMessage() const;
  QString getSuccessMessage() const;
  QString commandReturnHeader() const;
  QString commandReturnPayload() const;
  int getCommandLogCnt() const;
  QVariantList getSendCommandHistory() const;
  bool getIsConnected() const { return is_connected_.load(); }
  QVariantList getFovList() const;
  // Per FOV value, as ReadNote says; "" also for a value the user edited since the last write.
  QVariantList getFovReadNotes() const;
  bool getIsUpgrading() const { return is_upgrading_.load(); }
  bool getIsDownloadLog() const { return is_download_log_.load(); }
  void setIsDownloadLog(bool value);
  QVariantList getLidarModelList() const;
  int getUpgradeProgress() const { return static_cast<int>(upgrade_progress_.load()); }
  int getUpgradeProgressTotalLen() const { return upgrade_progress_total_len_.load(); }
  int getConnectType() const { return connect_type_.load(); }
  QVariantList getLevel1List() const;
  QVariantList getLevel2List() const;
  QVariantList getZeltoLidarInfo() const;
  QVariantList getZeltoLidarVersionInfo() const;
  bool getIsGetPBLVersion() const { return is_get_pbl_version_.load(); }
  QVariantList getLogRepeaterModel() const;
  QObject* getStreamMonitor();

  // For the data-stream page (varkel_manager_stream.cpp). A variable's value read from the
  // sensor now, by name; nullopt when not connected, not in the table or not answered.
  std::optional<std::string> ReadNamedValue(const std::string& name);
  // Writes name=value pairs as the Save of their page does, then reads them back; "" when
  // the sensor holds them all, else the reason.
  std::string WriteNamedValues(const std::vector<std::pair<std::string, std::string>>& values);

  // Invokables, in the order the meta-object keeps them.
  Q_INVOKABLE void InitConfigFileParser(QString model_name = "Quenta");
  Q_INVOKABLE bool ConnectLidar();
  Q_INVOKABLE bool CheckLidarConnection();
  // Writes the pending set commands of page `module`; the outcome arrives as messages.
  Q_INVOKABLE void Run(int module);
  Q_INVOKABLE void Stop();
  // Records one edit: type 1 the variable's value, 2 its switch's value, 3 an option index.
  Q_INVOKABLE void SetText(int type, int level1, int level2, int level3, QString text);
  Q_INVOKABLE void ClearSetMap();
  Q_INVOKABLE int getSetMapSize();
  Q_INVOKABLE void StartGetConfigFile();
  // Sends a command typed as hexadecimal text (code, and payload bytes separated by
  // blanks) and keeps the reply texts and the history; results arrive as signals.
  Q_INVOKABLE void SendCommand(QString cmd_qs, QString payload_qs);
  Q_INVOKABLE QString getSendKtcCommandReturnHeader();
  Q_INVOKABLE QString getSendKtcCommandReturnPayload();
  // Send the table's "Restart" / "Reset" command; 0, -1 when refused or not in the table,
  // or the sensor's return code. Success disconnects.
  Q_INVOKABLE int Restart();
  Q_INVOKABLE int Reset();
  // Network firmware upgrade with the command of the variable at page `level1`, group
  // `level2`, row `level3`. -1 refused (no open client, an upgrade or log download
  // running, no table); 0 otherwise, also when the file or the command cannot be used
  // (nothing starts then). The outcome arrives as IsUpgrading falling and a message.
  Q_INVOKABLE int UpgradeLidar(QUrl fileUrl, int level1, int level2, int level3);
  // Small sensors (docs/upgrade.md): the file with the upgrade mode last set, over the
  // serial OTA frames (connection types 1, 2) or the KTC file transfer (junction box).
  // -1 refused, with a message; 0 otherwise (nothing starts when the file will not open).
  Q_INVOKABLE int ZeltoUpgradeLidar(QUrl fileUrl);
  // The Marvo's component package over connection type 2: 0 started, -1 refused (with a
  // message).
  Q_INVOKABLE int MarvoUpgradeLidar(QUrl fileUrl);
  // Log downloads on a worker thread: 0 started, -1 refused (not connected, upgrading, or
  // a download already running). `fileUrl` names the archive (operation log) or the folder.
  Q_INVOKABLE int DownloadOperationLog(QUrl fileUrl);
  // The operation log's four parts into one archive, on the calling thread.
  Q_INVOKABLE void DownloadOperationLogThread(QUrl fileUrl);
  Q_INVOKABLE int DownloadLog(QUrl fileUrl, QString type);
  Q_INVOKABLE void GetLidarModuleInfo(int module);
  Q_INVOKABLE bool UpdateSingleVarInfo(QString qs_var_info, QString search_type = "var_name");
  Q_INVOKABLE bool CheckVarIsWithinRange(QString qs_var_info, QString search_type = "var_name");
  Q_INVOKABLE bool CheckModuleVarsWithinRange(int module);
  // Stores FOV value `index` (0-9), marks it edited (reads leave it alone until the next
  // write) and marks "0x22" pending.
  Q_INVOKABLE void SetMultiFovConfig(int index, QString fov);
  Q_INVOKABLE void UpdateUI();
  Q_INVOKABLE void setErrorMsg(QString str);
  Q_INVOKABLE void setSuccessMsg(QString str);
  Q_INVOKABLE void SetLogBytesFlowStatus(bool flag);
  Q_INVOKABLE bool GetIsConnectingLidar();
  Q_INVOKABLE bool CheckVarExistsInConfigFileByName(QString qs_var_info);
  Q_INVOKABLE QString getLidarSN();
  Q_INVOKABLE QString getLidarPN();
  Q_INVOKABLE void setModuleIndexUse(int index);
  // The small serial sensors' functions (docs/small-sensors.md): one exchange each, on the
  // calling thread; failures arrive as errorMessage and an "ERROR" log line.
  Q_INVOKABLE void ZeltoSetStandby(int standby);
  Q_INVOKABLE void ZeltoSetSpinRate(int rate);
  Q_INVOKABLE void ZeltoSetReturnMode(int mode);
  // Writes the correction data to `path` (a file path or a file URL): 0, or an error code.
  Q_INVOKABLE int ZeltoGetCorrection(QString path);
  // [state text, fault codes...]; empty on failure.
  Q_INVOKABLE QVariantList ZeltoGetLidarFunctionSafety();
  Q_INVOKABLE QString ZeltoGetBaudRate();
  Q_INVOKABLE void ZeltoSetBaudRateFromUI(QString baudRateStr);
  // [destination address, port] as texts; empty on failure. `silent`: no byte log.
  Q_INVOKABLE QVariantList ZeltoGetDestinationConfig(bool silent = false);
  Q_INVOKABLE bool ZeltoSetDestinationIPandPort(QString ip, int port);
  // 0 "APP+FPGA", 1 "PBL", 2 junction box; kept until set again. No check, no signal.
  Q_INVOKABLE void ZeltoSetUpgradeMode(int mode);
  Q_INVOKABLE void MarvoSetIMURange(int angularRangeIndex, int accelRangeIndex);
  Q_INVOKABLE QString getVMNowName();
  Q_INVOKABLE bool isTimerUpdate(int i, int j, int k);

 signals:
  void isConnectedChanged();
  void lidarModelChanged();
  void lidarClearModel();
  void lidarShowModel();
  void myMapChanged();
  void fovConfigChanged();
  void isUpgradingChanged();
  void sendCommandHistoryChanged();
  void errorMessageChanged();
  void successMessageChanged();
  void isDownloadLogChanged();
  void lidarModelListChanged();
  // Never emitted; declared so that the window's connection to it stays valid.
  void isResetAllSettingsVisibleChanged();
  void sendLogMessage(QString msg, QString type);
  void downloadFinished();
  void downloadOperationLogFinished(bool result);
  void someVarOutOfRange(QString var_name);
  void connectTypeChanged();
  void zeltoLidarInfoChanged();
  void isGetPBLVersionChanged();
  void initInfoChanged();
  void myTimerMapChanged();
  // Added after the existing signals, whose order stays.
  void tlsChanged();

 protected:
  // Only GetInstance makes the program's controller; tests derive to make their own.
  VarkelManager(bool flag, const QString& config_path);

  // A variable of the loaded table by "var_id"/"id" or "var_name"/"name"; null otherwise.
  VarInfo* searchVarPtr(const std::string& key, const std::string& search_type);

  // Connect workers, one per connection type; each runs on its own thread.
  void Init();
  void InitKtcForSerial();
  bool InitSerial();
  // The serial line of a type-1 connection; tests put failing sources in its place.
  virtual std::shared_ptr<quarn::lidar::SerialSource> MakeSerialSource(const std::string& port,
                                                                       uint32_t baud_rate_type1,
                                                                       uint32_t baud_rate_type0);

  // Reads one variable; true when its value text was refreshed.
  bool GetInfoFromLidar(VarInfo* var);
  // Reads a group of variables sharing one get command and payload with one query;
  // `fov_read` sends a 0x23 group through the multi-FOV read (fills the FOV values the
  // user has not edited since the last write), otherwise
  // 0x23 is an ordinary get; `timer_round` marks a refresh round. Returns the number of
  // values refreshed (a value with a pending edit counts as fresh and is kept,
  // see StoreReadValue), or -1
  // when the query failed. Throws std::invalid_argument for a malformed group.
  int GetInfoFromLidarWithSameCmd(const std::vector<VarInfo*>& vars, bool fov_read, bool timer_round = false);
  // The refresh thread's body: one round every 100 ms while the page-timer flag is set.
  void updatePagesTimer();
  // Hands the monitor one sample of the variables `plan` names; those in `failed` were not read.
  void SampleMonitor(const std::string& model, const varkel::MonitorPlan& plan, int64_t t_ms,
                     const std::set<const VarInfo*>& failed);
  // Cuts `var` out of `output` (the reply to `cmd`) and stores its text. True when stored.
  // `timer_round` reports a given variable's cutting fault to the log pane only once.
  // `fresh` (a write's read, by var_id) keeps the bytes cut.
  bool updateSingleVarFromOutput(VarInfo* var, const std::string& cmd, const std::vector<uint8_t>& output,
                                 std::vector<uint8_t>& slice, bool timer_round,
                                 std::map<std::string, std::vector<uint8_t>>* fresh = nullptr);

  std::shared_ptr<quarn::lidar::KtcClient> KtcClientHandle() const;
  // The first variable found under one of `spellings`, or null.
  VarInfo* FindNamedVar(std::initializer_list<const char*> spellings);
  // Client open, connected, no upgrade and no log download running.
  bool MaintenanceAllowed() const;
  int RestartOrReset(bool reset);
  void DownloadLogWorker(const QUrl& fileUrl, const QString& type);
  // Waits for a started tar: true once it ended by itself within its 30 s; false when it
  // failed, ran too long or the controller is closing (it is still running then).
  bool WaitForTar(QProcess& tar);
  // Sets IsDownloadLog, emitting isDownloadLogChanged on a change.
  void SetDownloadFlag(bool value);
  // Set by the upgrade for its whole run; emits isUpgradingChanged on a change.
  void SetUpgrading(bool value);
  // An empty upgrade file: its "... is empty" message, and true. Nothing is sent then.
  bool RefusedAsEmpty(const QFile& file);
  // Raises IsUpgrading (false when an upgrade runs already), sets the progress totals for a
  // file of `file_size` bytes and waits the settle time.
  bool BeginUpgrade(qint64 file_size);
  // The pause between a transmitted upgrade and the restart command (10 s). Tests shorten it.
  void SetRebootWait(std::chrono::milliseconds wait) { reboot_wait_ms_.store(wait.count()); }
  // The Marvo's settling pause after the change to upgrade mode (3 s). Tests shorten it.
  void SetModeSwitchWait(std::chrono::milliseconds wait) { mode_switch_wait_ms_.store(wait.count()); }
  // The longest silence a small sensor's upgrade waits out before it fails (10 s): each
  // serial OTA frame's reply wait, and each junction-box piece's. (A KTC OTA frame waits
  // the client's receive time-out, 5 s.) Applied when a transfer starts. Tests shorten it.
  void SetOtaReplyTimeout(std::chrono::milliseconds wait) { ota_reply_timeout_ms_.store(wait.count()); }
  // Every time-out of the KTC clients built from now on: the reply wait (4 s, 5 s for a
  // small sensor), a download's idle wait (10 s) and a file piece's wait (60 s). Tests that
  // walk through many failures shorten them all to one value; 0 restores the defaults.
  void SetKtcTimeouts(std::chrono::milliseconds wait) { ktc_timeout_override_ms_.store(wait.count()); }

 private:
  // The shared reads and writes reach the table through it (varkel_manager_host.h).
  class TableHost;
  // The connected sensor as the change journal names it (varkel_manager_journal.cpp).
  quarn::journal::Site JournalSite();
  JournalHistory* history_ = nullptr;
  struct Worker {
    std::thread thread;
    std::shared_ptr<std::atomic<bool>> done;
  };

  void ReadSettings();
  void WriteSettings();
  // One query for `vars` (same command and payload), then each cut out of the reply; a
  // write's read keeps the bytes cut in `fresh`, by var_id.
  int QueryAndCut(const char* operation, const std::vector<VarInfo*>& vars, bool timer_round,
                  std::map<std::string, std::vector<uint8_t>>* fresh = nullptr);
  // The 0x23 group through the multi-FOV read. Same result as QueryAndCut.
  int ReadFov(const std::vector<VarInfo*>& vars);
  // Marks `var`'s set command pending with `text` as its edited value, unless unchanged.
  void RecordEdit(VarInfo* var, const std::string& text);
  // Stores a value read from the lidar unless the user's edit of `var` is pending; either
  // way `var` counts as read now. Every successful read goes through here.
  void StoreReadValue(VarInfo* var, const std::string& text);
  // Values read so far no longer count as read (a new connection, another table).
  void ForgetReads();
  // What the window says of a value last read at `read_ms` (ms since the epoch, 0 never):
  // "" while connected and read, "not read from the sensor", or, after a disconnect, the
  // time of the last read.
  QString ReadNote(int64_t read_ms) const;
  // Run's body once the guards passed; throws with the reason of a failed write.
  void WriteModule(int module);
  std::shared_ptr<const varkel::ManagerCatalogue> Catalogue() const;
  void SetCatalogue(std::shared_ptr<const varkel::ManagerCatalogue> catalogue);
  void SetKtcClient(std::shared_ptr<quarn::lidar::KtcClient> client);
  void InstallKtcLogCallback(quarn::lidar::KtcClient& client);
  void OnClientLog(const std::string& line);
  // Probe with commands 7 then 8, without byte log. True when either answered.
  bool ProbeLidar(quarn::lidar::KtcClient& client);
  // Shared first steps of the two KTC connect workers: a fresh client, opened or thrown.
  std::shared_ptr<quarn::lidar::KtcClient> OpenKtcConnection(const char* operation, uint32_t timeout_ms);
  // Runs a connect worker's body; any error it throws becomes `failure_notice`, the
  // "Connection Error: " log line and a cleared connecting flag.
  void RunConnectWorker(const char* operation, const char* failure_notice, const std::function<void()>& body);
  // InitSerial's body: opens both serial sources and the serial client.
  bool OpenSerialConnection();
  // Ends the running page-refresh or information thread and starts `body` in its place;
  // the page-timer flag is set for the new one (null: the flag alone, no thread). Safe
  // from several threads at once.
  void RestartRefreshThread(void (VarkelManager::*body)());
  // Clears the page-timer flag and joins the running thread, if any.
  void StopRefreshThread();
  // Ends every exchange in flight on the connection's links and fails the later ones: the
  // KTC client is interrupted, the serial sources closed, a transfer cancelled. For a
  // disconnect or a close, so that joining a thread waits no exchange out.
  void CutExchangesShort();
  void EndRefreshThreadLocked();
  void SetSnValuesUnknown();
  // Closes the KTC client, the serial sources and the serial client, whichever are open.
  void CloseTransports();

  // ---- small serial sensors (varkel_manager_small_sensor.cpp) ----
  // The get/set link of the connection: over the serial client when there is one, else
  // over the KTC client; null when neither exists.
  std::shared_ptr<quarn::lidar::KtcSerialClient> SmallSensorLink();
  // The common precondition; on refusal sets `refusal` as the error message.
  std::shared_ptr<quarn::lidar::KtcSerialClient> SmallSensorReady(const char* refusal);
  // Operations that work over either link first switch connectType to 2 (kept on purpose).
  void SwitchToKtcSerialType();
  void ReportSmallSensorFailure(const char* prefix, int code);
  // The information thread of connection types 1 and 2.
  void SmallSensorInfoThread();
  void ReadSmallSensorIdentity(quarn::lidar::KtcSerialClient& link);
  void ReadSmallSensorVersions(quarn::lidar::KtcSerialClient& link);
  void ReadSmallSensorSafetyState(quarn::lidar::KtcSerialClient& link);
  // Back to the placeholders, as before any reply.
  void ResetSmallSensorInfo();
  void SetSmallSensorText(size_t index, const std::string& text);
  // Runs `body` on a thread that the destructor joins; finished ones are reaped here.
  void StartWorker(std::function<void()> body);
  void JoinWorkers();
  // The generic upgrade's worker: the transfer, then the message and the restart.
  void UpgradeWorker(std::vector<uint8_t> data, std::string command_text);
  // The small sensors' upgrade workers.
  void ZeltoUpgradeWorker(std::vector<uint8_t> data, int connect_type, int mode);
  void MarvoUpgradeWorker(std::vector<uint8_t> data);
  // The link an OTA transfer runs on, kept so that closing can cancel it; null to forget.
  void SetUpgradeLink(std::shared_ptr<quarn::lidar::KtcSerialClient> link);
  // Waits until `deadline` or until the controller closes; true when it closed.
  bool WaitUnlessClosing(std::chrono::steady_clock::time_point deadline);
  void Trace(const char* operation, const std::string& text) const;
  void StoreValue(VarInfo* var, const std::string& text);
  std::string ValueOf(const VarInfo* var) const;
  // Drops the user's edits; a model change and a disconnect both do.
  void ClearPendingWrites();

  StreamMonitorModel* stream_monitor_ = nullptr;
  // Page (module) last announced by the UI.
  std::atomic<int> module_index_use_{0};
  std::atomic<bool> page_timer_flag_{false};
  // Held across every stop and start of page_timer_thread_.
  std::mutex page_timer_thread_mutex_;
  std::thread page_timer_thread_;
  // Fed by the refresh thread; a child, so it outlives that thread.
  MonitorModel* monitor_ = nullptr;
  std::mutex page_timer_wait_mutex_;
  std::condition_variable page_timer_wait_;

  // Pending writes, guarded by fields_mutex_. set_map_: set command text -> pending.
  // edited_values_: var_id -> the text the user entered. Reads never overwrite a value
  // listed there, so the refresh before a write brings the untouched fields of a set
  // payload up to date and leaves the user's edits alone. Both are cleared together.
  std::map<std::string, bool> set_map_;
  std::map<std::string, std::string> edited_values_;
  // FOV values the user edited since the last write of "0x22"; a read leaves these alone.
  std::array<bool, 10> fov_edited_{};
  // When each FOV value was last filled by a read (ms since the epoch, 0 not since the
  // connection began). Guarded by fields_mutex_.
  std::array<int64_t, 10> fov_read_ms_{};
  std::atomic<bool> is_get_pbl_version_{false};
  const bool creation_flag_;
  const std::string config_file_path_;

  mutable std::mutex clients_mutex_;
  // Held for the whole of Stop. A connect worker waits for a Stop under way (an upgrade
  // worker lets the line go after its message) before it builds the new connection, so
  // the old Stop cannot close the new client.
  std::mutex disconnect_mutex_;
  std::shared_ptr<quarn::lidar::KtcClient> ktc_client_;
  std::shared_ptr<quarn::lidar::SerialClient> serial_client_;
  std::shared_ptr<quarn::lidar::SerialSource> serial_source_485_;
  std::shared_ptr<quarn::lidar::SerialSource> serial_source_232_;
  std::shared_ptr<quarn::lidar::KtcSerialClient> small_link_;
  // Cleared when a connection starts; set once its versions have been read (the Marvo
  // version read does it on the connect worker, the information thread otherwise).
  std::atomic<bool> small_versions_read_{false};

  mutable std::mutex catalogue_mutex_;
  std::shared_ptr<const varkel::ManagerCatalogue> catalogue_;
  // Guards the value texts (and the other fields a read may touch) of every table record.
  mutable std::mutex values_mutex_;
  std::atomic<uint64_t> values_version_{1};
  // var_id -> when the value was last read over this connection (ms since the epoch);
  // kept after a disconnect, emptied by ForgetReads. Guarded by values_mutex_.
  std::map<std::string, int64_t> read_ms_;
  // var_ids whose text in hand is the sensor's as read over this connection (an edit or a
  // connect drops the mark): the journal names the sensor by such a serial number without
  // asking again. Guarded by values_mutex_.
  std::set<std::string> from_sensor_;
  // The page maps as last built, guarded by values_mutex_; their read notes depend on
  // the connection too.
  QVariantList my_map_cache_;
  uint64_t my_map_cache_version_ = 0;
  bool my_map_cache_connected_ = false;

  // Texts and small tables, guarded by fields_mutex_.
  mutable std::mutex fields_mutex_;
  std::string ip_address_ = "192.168.1.201";
  std::string port_ = "9347";
  std::string send_ktc_command_return_header_;
  std::string send_ktc_command_return_payload_;
  std::string serial_port_485_ = "/dev/ttyUSB0";
  bool tls_enabled_ = false;
  std::string tls_ca_file_;
  std::string tls_cert_file_;
  std::string tls_key_file_;
  std::string tls_issuer_;  // of the open verified connection, else empty
  // The TLS text fields under the fields lock; a setter takes a path or a file URL.
  QString TlsText(const std::string VarkelManager::*field) const;
  void SetTlsPath(std::string VarkelManager::*field, const QString& path);
  std::string serial_port_232_ = "/dev/ttyUSB1";
  struct CommandRecord {
    std::string record_time;
    std::string send_cmd_history;
    std::string send_payload_history;
  };
  std::vector<CommandRecord> command_history_;  // newest first
  std::string vm_now_name_;
  std::array<float, 10> fov_{0, 0, 0, 0, 0, 360, 360, 360, 360, 360};
  std::string error_message_;
  std::string success_message_;
  std::map<std::string, std::string> small_lidar_map_;
  std::array<std::string, 4> small_lidar_texts_{"xx.xx.xx.xx", "xxxxxxxx", "xxxxxxxx", "xxxxxxxx"};

  std::atomic<int> baud_rate_{3000000};
  const int serial_command_baud_rate_ = 115200;
  const int serial_uart_baud_rate_ = 9600;
  std::atomic<uint16_t> udp_port_{2368};
  std::atomic<bool> is_connected_{false};
  std::atomic<bool> connecting_{false};
  std::atomic<bool> is_upgrading_{false};
  std::atomic<bool> is_download_log_{false};
  // Pieces of 1024 bytes sent so far, the one in flight included (the client's count).
  std::atomic<uint32_t> upgrade_progress_{0};
  std::atomic<int> upgrade_progress_total_len_{1};
  std::atomic<bool> log_bytes_flow_{false};
  std::atomic<int> connect_type_{0};

  // Set by the destructor: connect workers give up instead of starting a refresh thread.
  std::atomic<bool> closing_{false};
  // Wakes a worker's wait (the upgrade's reboot pause) when the controller closes.
  std::mutex closing_mutex_;
  std::condition_variable closing_cv_;
  std::atomic<int64_t> reboot_wait_ms_{10000};
  std::atomic<int64_t> mode_switch_wait_ms_{3000};
  std::atomic<int64_t> ota_reply_timeout_ms_{10000};
  std::atomic<int64_t> ktc_timeout_override_ms_{0};
  std::atomic<int> upgrade_mode_{0};
  // Guarded by clients_mutex_.
  std::shared_ptr<quarn::lidar::KtcSerialClient> upgrade_link_;
  std::mutex workers_mutex_;
  std::vector<Worker> workers_;
};
