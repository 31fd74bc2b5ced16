#pragma once
// What every command of varkel-cli shares: the connection options and their defaults, the
// model table, the connection to the sensor, and the table host through which the shared
// reads and writes (variable_io.h) keep their values.

#include <array>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

#include "backup_file.h"  // IsReadable, IsWritable
#include "config_parser.h"
#include "journal.h"
#include "ktc_client.h"
#include "variable_io.h"

namespace varkel::cli {

// Exit statuses: 1 is diff's "they differ".
constexpr int kExitDiffers = 1;
constexpr int kExitBadInput = 2;
constexpr int kExitSensor = 3;

// A failure with the one line the user sees and the exit status it ends with.
class CliError : public std::runtime_error {
 public:
  CliError(int status, const std::string& what) : std::runtime_error(what), status_(status) {}
  int status() const { return status_; }

 private:
  int status_;
};

struct ConnectionOptions {
  std::string model = "Quenta";
  std::string host = "192.168.1.201";
  uint16_t port = 9347;
  int ktc_version = 1;
  uint32_t timeout_ms = 2000;
  std::string config_dir;  // empty: beside the program, else ./Config/varID
  // KTC over verified TLS; only from the command line, never from the window's settings.
  bool tls = false;
  std::string ca;  // empty: the system's certificate store
  std::string cert;
  std::string key;
};

// The sensor refused the TLS connection, or its certificate was refused.
class TlsRefused : public CliError {
 public:
  using CliError::CliError;
};

// The window's settings file (documents folder + "/VelmoraDataFiles/RecvSettings.ini"),
// found as the window finds it; address and port there become the defaults.
std::string SettingsFilePath();
void ApplySettingsFile(const std::string& path, ConnectionOptions& options);

// Config/varID below the program's data root (beside bin/, else <prefix>/share/varkel),
// else ./Config/varID.
std::string DefaultConfigDir();

// The table of `model`, or CliError naming the model and the models there are.
std::unique_ptr<ConfigParser> LoadModel(const std::string& dir, const std::string& model);

// By id first, then by name; CliError "unknown variable" otherwise.
VarInfo& FindVariable(const ConfigParser& table, const std::string& key);

// Keeps the values in the table's records; a value set by the user is not replaced by a
// read until it has been written, as in the window.
class CliHost : public varkel::TableHost {
 public:
  explicit CliHost(quarn::lidar::KtcClient* client) : client_(client) {}
  std::string Value(const VarInfo& var) override { return var.current_val; }
  bool Edited(const VarInfo& var) override { return edited_.count(var.var_id) != 0; }
  void StoreRead(VarInfo& var, const std::string& text) override;
  bool FromSensor(const VarInfo& var) override { return from_sensor_.count(var.var_id) != 0; }
  // The start angles the sensor reports, read when a field-of-view write needs them.
  std::array<float, quarn::lidar::kFovRanges> FovValues() override;

  void Edit(VarInfo& var, const std::string& text);
  void ClearEdits() { edited_.clear(); }
  const std::map<std::string, std::string>& edits() const { return edited_; }

 private:
  quarn::lidar::KtcClient* client_;
  std::map<std::string, std::string> edited_;
  std::set<std::string> from_sensor_;  // values read on this connection, not edited since
};

// An open, answering KTC connection with the model's table loaded.
class Session {
 public:
  // Throws CliError naming what failed: the model, the address, or a peer that is no sensor.
  // `opened` hears the session once it answers, before the command uses it.
  explicit Session(const ConnectionOptions& options, const std::function<void(Session&)>& opened = nullptr);
  ConfigParser& table() { return *table_; }
  quarn::lidar::KtcClient& client() { return *client_; }
  CliHost& host() { return host_; }
  const ConnectionOptions& options() const { return options_; }
  // Over TLS: who issued the sensor's verified certificate; empty over plain TCP.
  std::string TlsIssuer() const { return client_->PeerIssuer(); }
  // The sensor as the change journal names it (reads its serial number when not yet read).
  quarn::journal::Site JournalSite();

  // Reads `vars` with one query per get command and payload. The variables that could not
  // be read are returned with the reason.
  std::map<std::string, std::string> Read(const std::vector<VarInfo*>& vars);
  std::vector<VarInfo*> Readable() const;

 private:
  ConnectionOptions options_;
  std::unique_ptr<ConfigParser> table_;
  std::unique_ptr<quarn::lidar::KtcClient> client_;
  CliHost host_{nullptr};
};

// Why a TCP connection to host:port cannot be made ("" when it can): "connection refused",
// "no answer within N ms", ... The round trip in *rtt_ms when given.
std::string TcpReachable(const std::string& host, uint16_t port, uint32_t timeout_ms, double* rtt_ms = nullptr);

}  // namespace varkel::cli
