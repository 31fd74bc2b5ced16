#include "variable_io.h"

#include <algorithm>
#include <memory>
#include <regex>
#include <set>
#include <stdexcept>

#include "change_journal.h"
#include "config_parser.h"
#include "hex_text.h"
#include "ktc_client.h"
#include "number_text.h"
#include "str_parser.h"
#include "value_text.h"
#include "var_info.h"

namespace varkel {

const char kNetworkSetCmd[] = "0x21";
const char kFovSetCmd[] = "0x22";

namespace {

// The variables a set command carries, in payload order. The table may be shared with
// reading threads, so it is only ever looked up, never added to.
const std::vector<VarInfo*>& CarriedBy(const ConfigParser& parser, const std::string& set_cmd) {
  static const std::vector<VarInfo*> kNone;
  auto it = parser.set_cmd_map.find(set_cmd);
  return it == parser.set_cmd_map.end() ? kNone : it->second;
}

const std::regex kIpPattern("^((25[0-5]|2[0-4][0-9]|[01]?[0-9][0-9]?)\\.){3}(25[0-5]|2[0-4][0-9]|[01]?[0-9][0-9]?)$");
// Hexadecimal pieces, while the codec reads decimal ones; both stand as they are.
const std::regex kMacPattern("^([0-9A-Fa-f]{2}[:]){5}([0-9A-Fa-f]{2})$");

}  // namespace

bool TableHost::Position(ConfigParser& parser, const std::string& cmd, const std::string& var_id,
                         uint32_t payload_length, std::pair<uint32_t, uint32_t>& pos) {
  return parser.GetVarPosOffset(cmd, var_id, payload_length, pos);
}

int TableHost::Refresh(quarn::lidar::KtcClient& client, ConfigParser& parser, const std::vector<VarInfo*>& vars,
                       ReadBytes& fresh) {
  return ReadGroupValues(*this, client, parser, vars, &fresh);
}

std::string ReadGroupKey(const VarInfo& var) {
  return var.get_cmd + " " + var.get_cmd_payload;
}

namespace {
// The group as the user reads it: the command, and its payload only when it has one.
std::string GroupName(const VarInfo& var) {
  return var.get_cmd_payload.empty() ? var.get_cmd : var.get_cmd + " payload " + var.get_cmd_payload;
}
}  // namespace

std::vector<ReadGroup> GroupForReading(const std::vector<VarInfo*>& vars) {
  std::vector<ReadGroup> groups;
  std::map<std::string, size_t> at;
  for (VarInfo* var : vars) {
    if (var->get_cmd.empty()) continue;
    const std::string key = ReadGroupKey(*var);
    auto it = at.find(key);
    if (it == at.end()) {
      it = at.emplace(key, groups.size()).first;
      groups.push_back(ReadGroup{key, {}});
    }
    groups[it->second].vars.push_back(var);
  }
  return groups;
}

std::vector<uint8_t> GetRequest(const VarInfo& first, quarn::lidar::KtcCommandText& command) {
  std::string error;
  if (!quarn::lidar::ParseKtcCommandText(first.get_cmd, command, &error))
    throw std::invalid_argument("bad get command \"" + first.get_cmd + "\": " + error);
  return quarn::lidar::BuildCommandPayload(command, first.get_cmd_payload_bytes);
}

int QueryGroup(quarn::lidar::KtcClient& client, const VarInfo& first, std::vector<uint8_t>& reply) {
  quarn::lidar::KtcCommandText command;
  const std::vector<uint8_t> payload = GetRequest(first, command);
  reply.clear();
  if (client.QueryCommand(payload, reply, command.cmd) != 0) return -1;
  return reply.empty() ? kEmptyReply : 0;
}

CutResult CutValue(TableHost& host, ConfigParser& parser, VarInfo& var, const std::string& cmd,
                   const std::vector<uint8_t>& reply, std::vector<uint8_t>& slice, std::string* fault,
                   ReadBytes* fresh) {
  if (reply.empty()) throw std::invalid_argument("no reply to cut " + var.var_name + " from");
  if (var.var_type.empty()) throw std::invalid_argument(var.var_name + " has no type");
  std::pair<uint32_t, uint32_t> pos{0, 0};
  if (!host.Position(parser, cmd, var.var_id, static_cast<uint32_t>(reply.size()), pos)) return CutResult::kNoPosition;
  if (pos.second == 0 || static_cast<uint64_t>(pos.first) + pos.second > reply.size()) return CutResult::kOutsideReply;
  slice.assign(reply.begin() + pos.first, reply.begin() + pos.first + pos.second);
  // Bytes that make no text are still what the sensor holds, and go back as they came.
  if (fresh) (*fresh)[var.var_id] = slice;

  const ValueText text = BytesToValueText(var.var_type, slice, var.coefficient);
  if (!text.ok) {
    if (fault) *fault = text.text;
    return CutResult::kBadValue;
  }
  host.StoreRead(var, text.text);
  return CutResult::kStored;
}

int ReadGroupValues(TableHost& host, quarn::lidar::KtcClient& client, ConfigParser& parser,
                    const std::vector<VarInfo*>& vars, ReadBytes* fresh) {
  if (vars.empty()) return 0;
  std::vector<uint8_t> reply;
  if (QueryGroup(client, *vars.front(), reply) != 0) return -1;
  int stored = 0;
  std::vector<uint8_t> slice;
  for (VarInfo* var : vars)
    if (CutValue(host, parser, *var, vars.front()->get_cmd, reply, slice, nullptr, fresh) == CutResult::kStored)
      ++stored;
  return stored;
}

WritePlan PlanWrite(const ConfigParser& parser, const std::vector<VarInfo*>& walk,
                    const std::map<std::string, bool>& pending) {
  WritePlan plan;
  bool network_pending = false;
  std::map<std::string, size_t> group_at;
  std::set<const VarInfo*> in_groups;
  for (VarInfo* var : walk) {
    if (var->set_cmd.empty() || !pending.count(var->set_cmd)) continue;
    if (var->set_cmd == kNetworkSetCmd) {
      network_pending = true;
    } else if (std::find(plan.send_list.begin(), plan.send_list.end(), var->set_cmd) == plan.send_list.end()) {
      plan.send_list.push_back(var->set_cmd);
    }
    // The untouched fields of the payload must be read first, grouped by how they are read.
    for (VarInfo* carried : CarriedBy(parser, var->set_cmd)) {
      if (carried->get_cmd.empty() || !in_groups.insert(carried).second) continue;
      const std::string key = ReadGroupKey(*carried);
      auto it = group_at.find(key);
      if (it == group_at.end()) {
        it = group_at.emplace(key, plan.refresh.size()).first;
        plan.refresh.push_back(ReadGroup{key, {}});
      }
      plan.refresh[it->second].vars.push_back(carried);
    }
  }
  if (network_pending) plan.send_list.push_back(kNetworkSetCmd);
  return plan;
}

namespace {

// The bytes one field of a set payload carries: as the fresh read cut them when the user
// left it alone, else its text through its codec.
std::vector<uint8_t> FieldBytes(TableHost& host, const VarInfo& var, const ReadBytes& fresh) {
  if (var.get_cmd.empty() && var.var_type != "raw")
    throw std::invalid_argument(
        "There are undefined cases in the csv config file where there is a line with 'set' and no 'get', but "
        "the var_type is not 'raw'.");
  const bool edited = host.Edited(var);
  // The raw codec makes no bytes of a text: zeros would go out in place of a secret.
  if (edited && var.var_type == "raw")
    throw std::invalid_argument(var.var_name + " cannot be written: its bytes are not defined for this model");
  const auto read = fresh.find(var.var_id);
  if (!edited) {
    if (read == fresh.end()) {
      if (var.var_len == 0) return {};
      // A secret nobody can read: writing its neighbours would overwrite it with zeros.
      if (var.get_cmd.empty())
        throw std::invalid_argument(var.var_name + " cannot be carried in " + var.set_cmd +
                                    ": the sensor gives no way to read it");
      throw std::invalid_argument("could not read " + var.var_name + " from the reply to " + var.get_cmd +
                                  " before writing");
    }
    if (var.set_coefficient == var.coefficient) return read->second;
  }

  const std::string value = host.Value(var);
  std::unique_ptr<StrParser> codec = MakeStrParser(var.var_type);
  if (!codec) {
    host.Trace("(): This var_type \"" + var.var_type + "\" is not supported currently.");
    host.Trace("strParser == nullptr, var_name:" + var.var_name + ", var_type:" + var.var_type +
               ", current_val:" + value);
    throw std::invalid_argument("Error with var type");
  }
  if (value.empty())
    throw std::invalid_argument("Unknown error with this var: It has no current_val. var_name = " + var.var_name);
  return codec->ParseToBytes(value, var.set_coefficient);
}

}  // namespace

PreparedSet PrepareSet(TableHost& host, ConfigParser& parser, const std::string& set_cmd, const ReadBytes& fresh) {
  PreparedSet set;
  set.set_cmd = set_cmd;
  const std::vector<VarInfo*>& vars = CarriedBy(parser, set_cmd);
  for (const VarInfo* var : vars) set.names += (set.names.empty() ? "" : ", ") + var->var_name;

  if (set_cmd == kFovSetCmd) {
    set.fov = true;
    const std::string channel = vars.empty() ? std::string() : host.Value(*vars.front());
    int value = -1;
    try {
      value = Stoi(channel);
    } catch (const std::exception&) {
    }
    if (value < 0 || value > 0xFF) throw std::invalid_argument("set channel fov failed");
    set.fov_channel = static_cast<uint8_t>(value);
    set.fov_values = host.FovValues();
    return set;
  }

  std::string error;
  if (!quarn::lidar::ParseKtcCommandText(set_cmd, set.command, &error))
    throw std::invalid_argument("bad set command \"" + set_cmd + "\": " + error);

  uint32_t length = 0;
  for (const VarInfo* var : vars) length = std::max(length, var->set_start_pos + var->var_len);
  std::vector<uint8_t> fields(length, 0);
  for (VarInfo* var : vars) {
    const std::vector<uint8_t> bytes = FieldBytes(host, *var, fresh);
    std::pair<uint32_t, uint32_t> pos{0, 0};
    if (!host.Position(parser, set_cmd, var->var_id, static_cast<uint32_t>(fields.size()), pos))
      throw std::invalid_argument("no set position for " + var->var_name);
    if (bytes.size() > pos.second || static_cast<uint64_t>(pos.first) + pos.second > fields.size())
      throw std::invalid_argument(var->var_name + ": " + std::to_string(bytes.size()) +
                                  " bytes do not fit its field of " + std::to_string(pos.second));
    // Big-endian values narrower than their field keep the leading bytes zero.
    std::copy(bytes.begin(), bytes.end(), fields.begin() + pos.first + (pos.second - bytes.size()));
  }
  set.payload = quarn::lidar::BuildCommandPayload(set.command, fields);
  return set;
}

SendOutcome SendSet(TableHost& host, quarn::lidar::KtcClient& client, const PreparedSet& set) {
  if (set.fov) {
    if (quarn::lidar::SetChannelFov(client, set.fov_channel, set.fov_values) != 0)
      return SendOutcome{SendResult::kFailed, client.GetLastReturnCode()};
    return SendOutcome{SendResult::kWritten, 0};
  }
  host.Trace("(): QueryCommand send cmd:    " + set.set_cmd);
  host.Trace("(): QueryCommand send payload:" + quarn::lidar::ToHexSpaced(set.payload) +
             ", length =" + std::to_string(set.payload.size()));
  std::vector<uint8_t> result;
  const int ret = client.QueryCommand(set.payload, result, set.command.cmd);
  const std::string result_text = quarn::lidar::ToHexSpaced(result);
  if (ret == 0) {
    host.Trace("(): QueryCommand SUCCESS, get result =" + result_text);
    return SendOutcome{SendResult::kWritten, 0};
  }
  host.Trace("(): QueryCommand FAILED, get result =" + result_text);
  const int code = client.GetLastReturnCode();
  if (set.set_cmd == kNetworkSetCmd && code == quarn::lidar::kKtcHeaderReadFailed)
    return SendOutcome{SendResult::kReplyLost, code};
  return SendOutcome{SendResult::kFailed, code};
}

void ExecuteWrite(TableHost& host, quarn::lidar::KtcClient& client, ConfigParser& parser, const WritePlan& plan,
                  const std::function<void(const PreparedSet&, const SendOutcome&)>& sent, const char* what) {
  // Refresh: a payload must never carry a stale field, so a failed read stops the write
  // before anything is sent.
  ReadBytes fresh;
  for (const ReadGroup& group : plan.refresh) {
    if (host.Refresh(client, parser, group.vars, fresh) < 0)
      throw std::invalid_argument("could not read the present values for " + GroupName(*group.vars.front()) +
                                  " before writing");
  }
  // Assembly of every payload first: a refused value stops the write with nothing sent.
  std::vector<PreparedSet> prepared;
  prepared.reserve(plan.send_list.size());
  for (const std::string& set_cmd : plan.send_list) prepared.push_back(PrepareSet(host, parser, set_cmd, fresh));

  // Writing, in order; a failure stops here and what was written stays written.
  if (prepared.empty()) return;
  const quarn::journal::Site site = ChangeSite(host, client, parser);
  for (const PreparedSet& set : prepared) {
    auto changes = SetChanges(host, parser, set, fresh, what);
    const SendOutcome outcome = SendSet(host, client, set);
    RecordSet(site, std::move(changes), outcome);
    if (sent) sent(set, outcome);
    if (outcome.result != SendResult::kFailed) continue;
    if (set.fov) throw std::invalid_argument("set channel fov failed");
    throw std::invalid_argument(set.set_cmd + " SET " + " ret_code: " + std::to_string(outcome.code));
  }
}

RangeVerdict CheckValueRange(const VarInfo& var, const std::string& value) {
  if (var.var_type == "raw") return value.size() <= var.var_len ? RangeVerdict::kOk : RangeVerdict::kOutOfRange;
  if (var.var_type == "IP") return std::regex_match(value, kIpPattern) ? RangeVerdict::kOk : RangeVerdict::kBadIp;
  if (var.var_type == "MAC") return std::regex_match(value, kMacPattern) ? RangeVerdict::kOk : RangeVerdict::kBadMac;
  // A range with a bound of 0 is no range; comparing it would fail every numeric variable
  // the table gives no range.
  if (var.range_min == 0 || var.range_max == 0) return RangeVerdict::kOk;
  const int number = Stoi(value);
  return number >= var.range_min && number <= var.range_max ? RangeVerdict::kOk : RangeVerdict::kOutOfRange;
}

}  // namespace varkel
