#pragma once
// One variable of a model table. A plain record: the table catalogue owns it, everybody
// else holds pointers that stay valid until the next table load. Whoever shares a
// record between threads (the value texts are written by the refresh thread) guards it.

#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

struct VarInfo {
  std::string var_id;      // GroupID + "-" + Index
  int32_t index = -1;      // order within the get reply
  int32_t set_index = -1;  // order within the set payload
  std::string get_cmd;
  std::string set_cmd;
  std::string var_type;
  std::string var_name;
  std::string unit;  // " (" + Unit + ")", or empty
  uint32_t get_start_pos = 0;
  uint32_t set_start_pos = 0;
  uint32_t var_len = 0;      // field length in bytes in both payloads
  int32_t permission = 0;    // non-zero: the user may edit it
  float coefficient = 1.0f;  // shown = raw * coefficient
  float set_coefficient = 1.0f;
  std::string default_val;
  std::string current_val;  // display form
  std::vector<int32_t> options;
  // (module, group), both from 0 -> position within that group.
  std::map<std::pair<int32_t, int32_t>, int32_t> module_places;
  int32_t option_num = 0;
  int32_t component_type = -1;  // kind of the last FunctionModule place; -1 when it has none
  bool has_switch = false;
  VarInfo* switch_var = nullptr;  // the kind-2 variable that switches this one
  std::map<int32_t, std::string> option_labels;
  std::string option_description;
  int32_t range_min = 0;
  int32_t range_max = 0;
  bool timer_update = false;
  std::string get_cmd_payload;  // hexadecimal digits without "0x"
  std::vector<uint8_t> get_cmd_payload_bytes;
};
