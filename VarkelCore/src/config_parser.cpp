#include "config_parser.h"

#include <functional>

#include <algorithm>
#include <cctype>
#include <filesystem>
#include <iostream>
#include <limits>

#include "number_text.h"

namespace {

// Longest field a table may declare. Positions are 32-bit, and no real variable comes
// near this; a larger number is a typing error in the table.
constexpr int kMaxVarLen = 1 << 20;

// One line on standard output, written at once so that lines from several threads
// never mix.
void Print(const char* function, const std::string& text) {
  std::cout << (std::string("ConfigParser::") + function + "(): " + text + "\n") << std::flush;
}

std::string Trim(const std::string& text) {
  const char* blanks = " \t\r\f\v";
  const size_t first = text.find_first_not_of(blanks);
  if (first == std::string::npos) return "";
  return text.substr(first, text.find_last_not_of(blanks) - first + 1);
}

std::vector<std::string> Split(const std::string& text, char separator) {
  std::vector<std::string> pieces;
  size_t start = 0;
  while (true) {
    const size_t at = text.find(separator, start);
    if (at == std::string::npos) {
      pieces.push_back(text.substr(start));
      return pieces;
    }
    pieces.push_back(text.substr(start, at - start));
    start = at + 1;
  }
}

template <typename T>
void EraseAll(std::vector<T>& list, const T& value) {
  list.erase(std::remove(list.begin(), list.end(), value), list.end());
}

bool IsSetOnly(const VarInfo& var) {
  return !var.set_cmd.empty() && var.get_cmd.empty();
}

const char* const kSharedSecretKey = "Shared Secret Key";

const char* const kColumnNames[] = {
    "GroupID",           "Index",          "Get",          "Set",         "SetIndex",       "VarName",
    "Permission",        "VarType",        "DefaultValue", "Options",     "Unit",           "Coefficient",
    "OptionDescription", "FunctionModule", "VarLen",       "TimerUpdate", "SetCoefficient", "GetCmdPayload"};

}  // namespace

ConfigLoadError::ConfigLoadError(const std::string& file, int row, const std::string& reason)
    : std::runtime_error(row > 0 ? file + ", data row " + std::to_string(row) + ": " + reason : file + ": " + reason),
      file_(file),
      row_(row),
      reason_(reason) {}

void ConfigParser::ClearCatalogue() {
  switch_map.clear();
  standalone_vars.clear();
  module_vars.clear();
  module_titles.clear();
  set_cmd_map.clear();
  get_cmd_map.clear();
  cmd_kind_map.clear();
  set_only_names.clear();
  by_name_.clear();
  records_.clear();
  var_map.clear();
}

bool ConfigParser::Open(const std::string& path) {
  return OpenWith(path, [&](csv::Reader& reader) { return reader.ReadFile(path); });
}

bool ConfigParser::OpenText(const std::string& text, const std::string& name) {
  return OpenWith(name, [&](csv::Reader& reader) { return reader.ReadText(text); });
}

bool ConfigParser::OpenWith(const std::string& name, const std::function<bool(csv::Reader&)>& read) {
  ClearCatalogue();
  file_path = name;
  reader_ = std::make_unique<csv::Reader>();
  if (read(*reader_)) {
    open_error_.clear();
    return true;
  }
  open_error_ = reader_->error();
  reader_.reset();
  return false;
}

void ConfigParser::Load(const std::string& path) {
  ExtractOrThrow(path, Open(path));
}

void ConfigParser::LoadText(const std::string& text, const std::string& name) {
  ExtractOrThrow(name, OpenText(text, name));
}

void ConfigParser::ExtractOrThrow(const std::string& name, bool opened) {
  if (!opened) throw ConfigLoadError(name, 0, open_error_);
  try {
    ExtractConfigInfo();
  } catch (const std::exception& e) {
    const int row = current_row_;
    ClearCatalogue();
    reader_.reset();
    throw ConfigLoadError(name, row, e.what());
  }
  reader_.reset();  // the rows are in the catalogue now
}

bool ConfigParser::ExtractConfigInfo() {
  ClearCatalogue();
  if (!reader_) {
    Print("ExtractConfigInfo", "error with csv_reader_, loc = " + file_path);
    return false;
  }
  static_assert(sizeof kColumnNames / sizeof kColumnNames[0] == kColumnCount, "one name per column");
  for (int c = 0; c < kColumnCount; ++c) column_positions_[c] = reader_->ColumnPosition(kColumnNames[c]);
  current_row_ = 0;
  for (const csv::Row& row : reader_->rows()) {
    ++current_row_;
    // Spreadsheet programs save blank lines as rows of empty cells.
    if (row.AllEmpty()) continue;
    ReadRow(row);
  }
  current_row_ = 0;
  LayOutPayloads();
  LinkSwitches();
  for (VarInfo* var : records_) by_name_.emplace(var->var_name, var);
  return true;
}

const std::string& ConfigParser::Cell(const csv::Row& row, Column column) const {
  const long position = column_positions_[column];
  if (position < 0) throw std::runtime_error(std::string("Can't find a column named ") + kColumnNames[column]);
  return row[static_cast<size_t>(position)];
}

void ConfigParser::ReadRow(const csv::Row& row) {
  const std::string& group_id = Cell(row, kGroupId);
  const std::string& index_text = Cell(row, kIndex);
  if (group_id.empty() || index_text.empty()) {
    Print("ExtractConfigInfo", "WARNING: something with config file - Some var lacks \"GroupID\" or \"Index\"");
    std::cout << ("---Detailed Infomation: file path = " + file_path + ", var name = " + Cell(row, kVarName) + "\n")
              << std::flush;
    return;
  }
  if (group_id == "0") {
    ReadModuleRow(row);
    return;
  }

  const std::string& get_cmd = Cell(row, kGet);
  const std::string& set_cmd = Cell(row, kSet);
  if (get_cmd.empty() && set_cmd.empty()) return;
  if (!get_cmd.empty()) cmd_kind_map.emplace(get_cmd, "get");
  if (!set_cmd.empty()) cmd_kind_map.emplace(set_cmd, "set");

  // Cells are asked for in this order, so a table lacking several columns is told about
  // the first of them.
  const std::string& set_index = Cell(row, kSetIndex);
  const std::string& var_name = Cell(row, kVarName);
  const std::string& permission = Cell(row, kPermission);
  const std::string& var_type = Cell(row, kVarType);
  const std::string& default_value = Cell(row, kDefaultValue);
  const std::string& options = Cell(row, kOptions);
  const std::string& unit = Cell(row, kUnit);
  const std::string& coefficient = Cell(row, kCoefficient);
  const std::string& option_description = Cell(row, kOptionDescription);
  const std::string& function_module = Cell(row, kFunctionModule);
  const std::string& var_len = Cell(row, kVarLen);
  const std::string& timer_update = Cell(row, kTimerUpdate);
  const std::string& set_coefficient = Cell(row, kSetCoefficient);
  const std::string& get_cmd_payload = Cell(row, kGetCmdPayload);

  VarInfo v;
  v.var_id = group_id + "-" + index_text;
  v.index = varkel::Stoi(index_text);
  v.set_index = set_index.empty() ? -1 : varkel::Stoi(set_index);
  v.get_cmd = get_cmd;
  v.set_cmd = set_cmd;
  v.var_type = var_type;
  v.var_name = var_name;
  v.unit = unit.empty() ? "" : " (" + unit + ")";
  v.permission = permission.empty() ? 0 : varkel::Stoi(permission);
  v.coefficient = coefficient.empty() ? 1.0f : varkel::Stof(coefficient);
  v.set_coefficient = set_coefficient.empty() ? 1.0f : varkel::Stof(set_coefficient);
  v.default_val = default_value;
  v.current_val = default_value;
  v.timer_update = !timer_update.empty() && varkel::Stoi(timer_update) == 1;

  if (!var_len.empty()) {
    const int len = varkel::Stoi(var_len);
    if (len < 0 || len > kMaxVarLen)
      throw std::out_of_range("VarLen must lie between 0 and " + std::to_string(kMaxVarLen));
    v.var_len = static_cast<uint32_t>(len);
  }
  // Its length is that of each payload it is sent in.
  if (var_name == kSharedSecretKey) v.var_len = 0;

  if (get_cmd_payload.size() >= 4 && get_cmd_payload[0] == '0' &&
      (get_cmd_payload[1] == 'x' || get_cmd_payload[1] == 'X')) {
    v.get_cmd_payload = get_cmd_payload.substr(2);
    // Digits are taken in pairs; an odd last digit is dropped.
    for (size_t i = 0; i + 1 < v.get_cmd_payload.size(); i += 2)
      v.get_cmd_payload_bytes.push_back(static_cast<uint8_t>(varkel::Stoi(v.get_cmd_payload.substr(i, 2), 16)));
  }

  if (options.find('|') != std::string::npos) {
    for (const std::string& piece : Split(options, '|')) v.options.push_back(varkel::Stoi(piece));
  } else if (const size_t tilde = options.find('~'); tilde != std::string::npos) {
    v.range_min = varkel::Stoi(options.substr(0, tilde));
    v.range_max = varkel::Stoi(options.substr(tilde + 1));
  } else if (!options.empty()) {
    v.options.push_back(varkel::Stoi(options));
  }
  v.option_num = static_cast<int32_t>(v.options.size());

  v.option_description = option_description;
  for (const std::string& line : Split(option_description, '\n')) {
    if (Trim(line).empty()) continue;
    const size_t underscore = line.find('_');
    const std::string value = Trim(line.substr(0, underscore));
    const std::string label = underscore == std::string::npos ? "" : Trim(line.substr(underscore + 1));
    v.option_labels[varkel::Stoi(value)] = label;
  }

  VarInfo* var = nullptr;
  auto existing = var_map.lower_bound(v.var_id);
  if (existing == var_map.end() || existing->first != v.var_id) {
    auto owned = std::make_unique<VarInfo>(std::move(v));
    var = owned.get();
    var_map.emplace_hint(existing, var->var_id, std::move(owned));
    records_.push_back(var);
  } else {
    var = existing->second.get();
    Print("ExtractConfigInfo",
          "ERROR with config file. There are vars with the same var_id. Some of them will be overwritten");
    Print("ExtractConfigInfo",
          "--- Details: file path = " + file_path + ", var_id =" + v.var_id + ", var_name = " + v.var_name);
    // The later row wins wholly: the earlier row's places and command entries go too.
    Detach(var);
    *var = std::move(v);
  }

  PlaceVar(var, function_module);

  if (IsSetOnly(*var)) {
    if (set_only_names.count(var->var_name) != 0) {
      var->var_name += "_" + var->set_cmd;
      Print("ExtractConfigInfo", var->var_name + " is used in other cmd");
    } else {
      set_only_names.insert(var->var_name);
    }
  }
  if (!var->set_cmd.empty()) set_cmd_map[var->set_cmd].push_back(var);
  if (!var->get_cmd.empty()) get_cmd_map[var->get_cmd].push_back(var);
}

void ConfigParser::ReadModuleRow(const csv::Row& row) {
  std::vector<std::string> titles;
  for (size_t i = 0; i < row.size(); ++i)
    if (static_cast<long>(i) != column_positions_[kGroupId] && !row[i].empty()) titles.push_back(row[i]);
  module_titles.push_back(std::move(titles));
  module_vars.resize(module_titles.size());
  for (size_t m = 0; m < module_titles.size(); ++m) {
    const size_t groups = module_titles[m].empty() ? 0 : module_titles[m].size() - 1;
    if (module_vars[m].size() < groups) module_vars[m].resize(groups);
  }
}

void ConfigParser::Detach(VarInfo* var) {
  auto drop_from = [var](std::map<std::string, std::vector<VarInfo*>>& map, const std::string& cmd) {
    auto it = map.find(cmd);
    if (it == map.end()) return;
    EraseAll(it->second, var);
    if (it->second.empty()) map.erase(it);
  };
  drop_from(get_cmd_map, var->get_cmd);
  drop_from(set_cmd_map, var->set_cmd);
  for (const auto& place : var->module_places) {
    const auto [m, g] = place.first;
    if (m >= 0 && static_cast<size_t>(m) < module_vars.size() && g >= 0 &&
        static_cast<size_t>(g) < module_vars[m].size())
      EraseAll(module_vars[m][g], var);
  }
  EraseAll(standalone_vars, var);
  switch_map.erase(var);
  if (IsSetOnly(*var)) set_only_names.erase(var->var_name);
}

void ConfigParser::PlaceVar(VarInfo* var, const std::string& function_module) {
  for (const std::string& place : Split(function_module, '|')) {
    if (place.empty()) continue;
    const std::vector<std::string> numbers = Split(place, '_');
    if (numbers.size() < 4) continue;
    const int m = varkel::Stoi(numbers[0]);
    const int g = varkel::Stoi(numbers[1]);
    const int p = varkel::Stoi(numbers[2]);
    const int t = varkel::Stoi(numbers[3]);
    // Pages and groups count from 1; a smaller number places nothing (and m - 1 of the
    // smallest int would overflow).
    const bool numbered = m >= 1 && g >= 1;
    if (numbered) var->module_places[{m - 1, g - 1}] = p;
    var->component_type = t;
    if (t == 6) {
      if (std::find(standalone_vars.begin(), standalone_vars.end(), var) == standalone_vars.end())
        standalone_vars.push_back(var);
      continue;
    }
    if (t == 2 && numbers.size() >= 5) {
      if (numbered) switch_map[var] = SwitchPlace{m - 1, g - 1, varkel::Stoi(numbers[4])};
      var->has_switch = true;
    }
    if (!numbered || static_cast<size_t>(m) > module_vars.size()) continue;
    if (static_cast<size_t>(g) > module_vars[m - 1].size()) continue;
    module_vars[m - 1][g - 1].push_back(var);
  }
}

void ConfigParser::LayOutPayloads() {
  for (auto& [cmd, vars] : get_cmd_map) {
    std::stable_sort(vars.begin(), vars.end(), [](const VarInfo* a, const VarInfo* b) { return a->index < b->index; });
    // A command written with a sub-command ("0x1A05") answers with four leading bytes.
    uint32_t pos = cmd.size() >= 5 ? 4 : 0;
    for (VarInfo* var : vars) {
      var->get_start_pos = pos;
      pos += var->var_len;
    }
  }
  for (auto& [cmd, vars] : set_cmd_map) {
    std::stable_sort(vars.begin(), vars.end(),
                     [](const VarInfo* a, const VarInfo* b) { return a->set_index < b->set_index; });
    uint32_t pos = 0;
    for (VarInfo* var : vars) {
      var->set_start_pos = pos;
      pos += var->var_len;
    }
  }
}

void ConfigParser::LinkSwitches() {
  for (const auto& [switch_var, place] : switch_map) {
    if (place.value < 0) continue;
    // A switch placed on a page or group that does not exist switches nothing.
    if (place.module < 0 || static_cast<size_t>(place.module) >= module_vars.size()) continue;
    auto& group_vars = module_vars[place.module];
    if (place.group < 0 || static_cast<size_t>(place.group) >= group_vars.size()) continue;
    for (VarInfo* var : group_vars[place.group])
      if (var->module_places.at({place.module, place.group}) == place.value) var->switch_var = switch_var;
  }
}

bool ConfigParser::GetVarPosOffset(const std::string& cmd, const std::string& var_id, uint32_t payload_length,
                                   std::pair<uint32_t, uint32_t>& pos_offset) {
  auto it = var_map.find(var_id);
  if (it == var_map.end()) {
    Print("GetVarPosOffset",
          "ERROR. This var_id does not exist. Detail: var_id = " + var_id + ", file_path = " + file_path);
    return false;
  }
  auto kind = cmd_kind_map.find(cmd);
  if (kind == cmd_kind_map.end()) {
    Print("GetVarPosOffset", "don't have this command");
    return false;
  }
  VarInfo& var = *it->second;
  if (var.set_cmd.empty() && var.get_cmd.empty()) {
    Print("GetVarPosOffset", "this var not supported. var_name = " + var.var_name);
    return false;
  }
  pos_offset = {kind->second == "set" ? var.set_start_pos : var.get_start_pos, var.var_len};
  if (var.var_name == kSharedSecretKey) {
    pos_offset = {0, payload_length};
    var.set_start_pos = 0;
    var.var_len = payload_length;
  }
  return true;
}

VarInfo* ConfigParser::FindById(const std::string& var_id) const {
  auto it = var_map.find(var_id);
  return it == var_map.end() ? nullptr : it->second.get();
}

VarInfo* ConfigParser::FindByName(const std::string& var_name) const {
  auto it = by_name_.find(var_name);
  return it == by_name_.end() ? nullptr : it->second;
}

std::vector<std::string> ConfigParser::ListModels(const std::string& folder) {
  namespace fs = std::filesystem;
  std::vector<std::string> models;
  std::error_code ec;
  for (fs::directory_iterator it(folder, ec), end; !ec && it != end; it.increment(ec)) {
    if (!it->is_regular_file(ec)) continue;
    const std::string file = it->path().filename().string();
    const std::string base = file.substr(0, file.find('.'));
    if (base.empty() || base == "Marvo-KTC") continue;
    if (std::find(models.begin(), models.end(), base) == models.end()) models.push_back(base);
  }
  auto lower = [](std::string s) {
    for (char& c : s) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return s;
  };
  std::sort(models.begin(), models.end(), [&](const std::string& a, const std::string& b) {
    const std::string la = lower(a), lb = lower(b);
    return la != lb ? la < lb : a < b;
  });
  return models;
}
