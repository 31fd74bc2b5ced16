#pragma once
// Reading and writing the variables of a model table over KTC, without Qt: the one
// implementation the window's controller and the command line share.
//
// Reading: the variables are grouped by get command and payload; each group is one query,
// and each variable is cut out of the reply at its table position and turned into text.
// Writing: a plan names the set commands to send (in the order the caller walks the
// table, the network command last) and the read groups that bring the untouched fields
// of those payloads up to date; then every payload is assembled before anything is sent,
// and the commands go out in order until one fails. A field the user did not edit goes
// back as the bytes that fresh read cut for it, never through its text: a text and its
// codec need not agree (a MAC is shown in hexadecimal but typed in decimal), and a field
// the read did not reach must not go out stale.
//
// Whoever holds the table decides how value texts are kept (the controller keeps the
// user's edits against reads and locks the table, the command line keeps them plainly)
// through a TableHost.

#include <array>
#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "ktc_command_text.h"
#include "ktc_fov.h"

class ConfigParser;
struct VarInfo;

namespace quarn::lidar {
class KtcClient;
}

namespace varkel {

// The bytes a write's fresh read cut for each variable, by var_id.
using ReadBytes = std::map<std::string, std::vector<uint8_t>>;

// What a read or a write needs from whoever holds the table.
class TableHost {
 public:
  virtual ~TableHost() = default;
  // The text a set payload carries for `var`.
  virtual std::string Value(const VarInfo& var) = 0;
  // Whether the user changed `var` since it was last written: only such fields go
  // through their codec.
  virtual bool Edited(const VarInfo& var) = 0;
  // A value just read from the sensor (the controller keeps a pending edit instead).
  virtual void StoreRead(VarInfo& var, const std::string& text) = 0;
  // Whether the text in hand for `var` came from the sensor over this connection (not the
  // table's default, an earlier sensor's or the user's). A host that does not keep track
  // says no, and what needs the sensor's own value asks for it.
  virtual bool FromSensor(const VarInfo& /*var*/) { return false; }
  // The field of `var_id` in `cmd`'s payload. ConfigParser::GetVarPosOffset rewrites the
  // shared secret's record, so a host that shares the table between threads locks here.
  virtual bool Position(ConfigParser& parser, const std::string& cmd, const std::string& var_id,
                        uint32_t payload_length, std::pair<uint32_t, uint32_t>& pos);
  // Reads one group before a write, keeping the bytes cut for each variable in `fresh`;
  // the refreshed count or -1 when the query failed. By default ReadGroupValues with this host.
  virtual int Refresh(quarn::lidar::KtcClient& client, ConfigParser& parser, const std::vector<VarInfo*>& vars,
                      ReadBytes& fresh);
  // The five angles a field-of-view write (0x22) sends with the channel.
  virtual std::array<float, quarn::lidar::kFovRanges> FovValues() = 0;
  // Diagnostic lines of a write (the controller puts them on Qt's debug output).
  virtual void Trace(const std::string& /*text*/) {}
};

// ---- reading ----

// Variables sharing a get command and payload travel in one reply.
struct ReadGroup {
  std::string key;  // get command, blank, payload digits
  std::vector<VarInfo*> vars;
};
std::string ReadGroupKey(const VarInfo& var);
// The variables with a get command, grouped; groups in the order of their first member.
std::vector<ReadGroup> GroupForReading(const std::vector<VarInfo*>& vars);

// The get request of a group (the command of `first`, its payload, the code ahead for
// extended commands). Throws std::invalid_argument for a text that is no command.
std::vector<uint8_t> GetRequest(const VarInfo& first, quarn::lidar::KtcCommandText& command);

// One query for a group. 0 and the reply; -1 when the exchange failed (the client's last
// return code says why); -2 when the sensor answered with an empty payload.
// Throws std::invalid_argument for a get command text that is no command.
constexpr int kEmptyReply = -2;
int QueryGroup(quarn::lidar::KtcClient& client, const VarInfo& first, std::vector<uint8_t>& reply);

enum class CutResult {
  kStored,
  kNoPosition,    // the table gives no position for it in this command
  kOutsideReply,  // length 0, or the field reaches past the reply
  kBadValue,      // the bytes do not make a text of its type (the fault is in `fault`)
};
// Cuts `var` out of `reply` (the reply to `cmd`) into `slice` and stores its text through
// the host; the slice also goes into `fresh` when given, whether or not it makes a text.
// Throws std::invalid_argument for an empty reply or a variable without type.
CutResult CutValue(TableHost& host, ConfigParser& parser, VarInfo& var, const std::string& cmd,
                   const std::vector<uint8_t>& reply, std::vector<uint8_t>& slice, std::string* fault = nullptr,
                   ReadBytes* fresh = nullptr);

// QueryGroup then CutValue for each: the number of values stored, or -1 when the query
// failed or the reply was empty.
int ReadGroupValues(TableHost& host, quarn::lidar::KtcClient& client, ConfigParser& parser,
                    const std::vector<VarInfo*>& vars, ReadBytes* fresh = nullptr);

// ---- writing ----

// Network settings: a changed address makes the sensor's reply go astray, so this command
// is written last and a reply lost on the way counts as written.
extern const char kNetworkSetCmd[];
extern const char kFovSetCmd[];

struct WritePlan {
  std::vector<std::string> send_list;  // set commands in sending order
  std::vector<ReadGroup> refresh;      // read before assembling, in this order
};
// `walk`: the variables in the order the caller meets them (a page, or every page);
// `pending`: the set commands to send. Each command goes out once, at its first variable
// in the walk, the network command last.
WritePlan PlanWrite(const ConfigParser& parser, const std::vector<VarInfo*>& walk,
                    const std::map<std::string, bool>& pending);

// One command of the send list with everything needed to send it.
struct PreparedSet {
  std::string set_cmd;
  quarn::lidar::KtcCommandText command;
  std::vector<uint8_t> payload;  // the request payload (code ahead for extended commands)
  std::string names;             // the variables it carries, joined by ", "
  bool fov = false;
  uint8_t fov_channel = 0;
  std::array<float, quarn::lidar::kFovRanges> fov_values{};
};
// Assembles the whole payload of `set_cmd`: a payload as long as its furthest field, each
// field's bytes right-aligned in it. An edited field is its text through its codec; an
// unedited one the bytes `fresh` holds for it (through its text and codec when its set
// coefficient differs from its get coefficient, since then the read bytes are not the
// write bytes). Throws std::invalid_argument with the reason a value cannot be sent: an
// unedited field `fresh` lacks, an edited raw field, a codec's refusal.
PreparedSet PrepareSet(TableHost& host, ConfigParser& parser, const std::string& set_cmd, const ReadBytes& fresh);

enum class SendResult { kWritten, kReplyLost, kFailed };
struct SendOutcome {
  SendResult result = SendResult::kFailed;
  int code = 0;  // the client's last return code when not written
};
SendOutcome SendSet(TableHost& host, quarn::lidar::KtcClient& client, const PreparedSet& set);

// The whole write: refresh, assembly of every payload (a refused value stops it with
// nothing sent), then the commands in order. `sent` hears each outcome as it happens.
// Throws std::invalid_argument: "could not read the present values for <get command>[ payload
// <payload>] before writing", "could not read <name> from the reply to <get command> before
// writing", a refusal of PrepareSet, or "<cmd> SET  ret_code: <code>" for a refused command
// (what went out before stays written). Every command sent leaves its changed variables in
// the change journal as `what` ("set", or "restore" for a backup written back).
void ExecuteWrite(TableHost& host, quarn::lidar::KtcClient& client, ConfigParser& parser, const WritePlan& plan,
                  const std::function<void(const PreparedSet&, const SendOutcome&)>& sent, const char* what = "set");

// ---- range checks ----

enum class RangeVerdict { kOk, kBadIp, kBadMac, kOutOfRange };
// The check the window's Save runs on an editable value before writing it: IP and MAC by
// their pattern, raw by its length, numbers against the table's range when both bounds
// are non-zero. Throws std::invalid_argument / std::out_of_range when a ranged value is
// no integer.
RangeVerdict CheckValueRange(const VarInfo& var, const std::string& value);

}  // namespace varkel
