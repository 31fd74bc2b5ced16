#include "model_table.h"

#include <exception>

#include "config_parser.h"

namespace varkel::sim {

std::optional<std::vector<BankVariable>> LoadModelTable(const std::string& path, std::string* error) {
  ConfigParser parser;
  try {
    parser.Load(path);
  } catch (const std::exception& e) {
    if (error) *error = std::string("cannot load model table: ") + e.what();
    return std::nullopt;
  }
  std::vector<BankVariable> vars;
  for (const VarInfo* v : parser.records()) {
    BankVariable b;
    b.var_id = v->var_id;
    b.var_name = v->var_name;
    b.get_cmd = v->get_cmd;
    b.set_cmd = v->set_cmd;
    b.var_type = v->var_type;
    b.default_val = v->default_val;
    b.get_start_pos = v->get_start_pos;
    b.set_start_pos = v->set_start_pos;
    b.var_len = v->var_len;
    b.coefficient = v->coefficient;
    b.set_coefficient = v->set_coefficient;
    b.get_payload = v->get_cmd_payload_bytes;
    b.options.assign(v->options.begin(), v->options.end());
    b.range_min = v->range_min;
    b.range_max = v->range_max;
    b.component_type = v->component_type;
    vars.push_back(std::move(b));
  }
  return vars;
}

std::optional<CommandKey> UpgradeCommand(const std::vector<BankVariable>& vars) {
  for (const BankVariable& v : vars)
    if (v.component_type == 4 && !v.set_cmd.empty()) return ParseCommandText(v.set_cmd);
  return std::nullopt;
}

}  // namespace varkel::sim
