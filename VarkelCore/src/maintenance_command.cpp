#include "maintenance_command.h"

#include <stdexcept>

#include "config_parser.h"
#include "var_info.h"

namespace varkel {
namespace {

NamedCommand Build(const std::string& text, const std::vector<uint8_t>& payload) {
  quarn::lidar::KtcCommandText command;
  if (!quarn::lidar::ParseKtcCommandText(text, command)) throw std::invalid_argument("invalid stoi argument");
  return NamedCommand{command, quarn::lidar::BuildCommandPayload(command, payload)};
}

}  // namespace

NamedCommand LogCommandOf(const VarInfo& var, const std::vector<uint8_t>& extra) {
  std::vector<uint8_t> payload = var.get_cmd_payload_bytes;
  payload.insert(payload.end(), extra.begin(), extra.end());
  return Build(var.get_cmd.empty() ? var.set_cmd : var.get_cmd, payload);
}

NamedCommand ActionCommandOf(const VarInfo& var) {
  return Build(var.set_cmd.empty() ? var.get_cmd : var.set_cmd, var.get_cmd_payload_bytes);
}

VarInfo* FindNamedVar(const ConfigParser& table, std::initializer_list<const char*> spellings) {
  for (const char* name : spellings)
    if (VarInfo* var = table.FindByName(name)) return var;
  return nullptr;
}

}  // namespace varkel
