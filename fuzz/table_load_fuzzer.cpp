// Feeds arbitrary bytes to the table loader as a model table, then walks what it built
// the way the controller does: positions of every variable in every command, look-ups,
// switch links, and the codec of each variable on its default text.
#include <cstdint>
#include <cstdio>
#include <stdexcept>
#include <string>

#include "config_parser.h"
#include "str_parser.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  // Warnings about odd rows are expected here; printing them would only slow the run.
  if (std::freopen("/dev/null", "w", stdout) == nullptr) return 0;
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  ConfigParser parser;
  try {
    parser.LoadText(std::string(reinterpret_cast<const char*>(data), size), "fuzz.csv");
  } catch (const ConfigLoadError&) {
    if (!parser.var_map.empty()) __builtin_trap();  // a failed load must leave nothing behind
    return 0;
  }

  for (const VarInfo* var : parser.records()) {
    if (parser.FindById(var->var_id) != var) __builtin_trap();
    if (parser.FindByName(var->var_name) == nullptr) __builtin_trap();
    std::pair<uint32_t, uint32_t> pos;
    for (const auto& [cmd, kind] : parser.cmd_kind_map) parser.GetVarPosOffset(cmd, var->var_id, 64, pos);
    if (var->switch_var != nullptr && parser.switch_map.count(var->switch_var) == 0) __builtin_trap();
    if (auto codec = MakeStrParser(var->var_type)) {
      try {
        codec->ParseToBytes(var->default_val, var->set_coefficient);
      } catch (const std::invalid_argument&) {
      }
    }
  }
  for (const auto& module : parser.module_vars)
    for (const auto& group : module)
      for (const VarInfo* var : group)
        if (parser.FindById(var->var_id) != var) __builtin_trap();
  return 0;
}
