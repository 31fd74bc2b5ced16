#pragma once
// The variable catalogue of one lidar model, built from its CSV table: the records, the
// get and set commands with their variables in payload order, the pages (modules) with
// their groups, the switches, and where each variable lies in each payload.

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <stdexcept>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "csv_reader.h"
#include "var_info.h"

// A load that stopped on an error. what() names the file and, when the error came from
// a row, the data row (the first row under the header is row 1), followed by the
// original message unchanged, e.g. "Config/varID/X.csv, data row 7: invalid stoi argument".
class ConfigLoadError : public std::runtime_error {
 public:
  ConfigLoadError(const std::string& file, int row, const std::string& reason);
  const std::string& file() const { return file_; }
  int row() const { return row_; }  // 0 when no row was being read
  const std::string& reason() const { return reason_; }

 private:
  std::string file_;
  int row_;
  std::string reason_;
};

// Where a kind-2 place with a fifth number stands, and that number.
struct SwitchPlace {
  int32_t module = 0;  // from 0
  int32_t group = 0;   // from 0
  int32_t value = 0;   // the fifth number
};

class ConfigParser {
 public:
  ConfigParser() = default;
  ConfigParser(const ConfigParser&) = delete;
  ConfigParser& operator=(const ConfigParser&) = delete;

  // Reads the file into the CSV reader and empties the catalogue. False when the file
  // cannot be read or has no header row (the reason is in open_error()).
  bool Open(const std::string& path);
  // Same, for table text held in memory; `name` stands for the path in messages.
  bool OpenText(const std::string& text, const std::string& name);
  const std::string& open_error() const { return open_error_; }

  // Builds the catalogue from the opened reader, row by row. False only when no reader
  // is open. A missing column or a cell that must be a number and is not ends it with
  // the standard exception ("Can't find a column named X", "invalid stoi argument").
  bool ExtractConfigInfo();

  // Open + ExtractConfigInfo, from scratch; the file's text is let go afterwards. Throws
  // ConfigLoadError; after a failure the catalogue is empty, never half-built.
  void Load(const std::string& path);
  void LoadText(const std::string& text, const std::string& name);

  // (start, length) of var_id's field in cmd's payload: the set position when cmd is a
  // set command, else the get position. payload_length matters only for the variable
  // named "Shared Secret Key", which spans the whole payload.
  bool GetVarPosOffset(const std::string& cmd, const std::string& var_id, uint32_t payload_length,
                       std::pair<uint32_t, uint32_t>& pos_offset);

  // Null when absent. By name, the first record in file order carrying it.
  VarInfo* FindById(const std::string& var_id) const;
  VarInfo* FindByName(const std::string& var_name) const;
  // Every record once, in the file order of its first row.
  const std::vector<VarInfo*>& records() const { return records_; }

  // The selectable models: base names (up to the first dot) of the files in `folder`,
  // sorted without regard to case, without "Marvo-KTC" (it has a page of its own).
  static std::vector<std::string> ListModels(const std::string& folder);

  // The catalogue, rebuilt by every load.
  std::string file_path;
  std::map<std::string, std::unique_ptr<VarInfo>> var_map;
  std::map<std::string, std::string> cmd_kind_map;  // command text -> "get" or "set"
  std::map<std::string, std::vector<VarInfo*>> get_cmd_map;
  std::map<std::string, std::vector<VarInfo*>> set_cmd_map;
  std::vector<std::vector<std::string>> module_titles;  // page title, then group titles
  std::vector<std::vector<std::vector<VarInfo*>>> module_vars;
  std::vector<VarInfo*> standalone_vars;
  std::map<VarInfo*, SwitchPlace> switch_map;
  std::set<std::string> set_only_names;

 private:
  void ClearCatalogue();
  void ReadRow(const csv::Row& row);
  void ReadModuleRow(const csv::Row& row);
  void Detach(VarInfo* var);
  void PlaceVar(VarInfo* var, const std::string& function_module);
  void LayOutPayloads();
  void LinkSwitches();

  // Positions of the columns the rows are read by, found once per load; -1 when the
  // header lacks one, which is an error only when a row asks for it.
  enum Column {
    kGroupId,
    kIndex,
    kGet,
    kSet,
    kSetIndex,
    kVarName,
    kPermission,
    kVarType,
    kDefaultValue,
    kOptions,
    kUnit,
    kCoefficient,
    kOptionDescription,
    kFunctionModule,
    kVarLen,
    kTimerUpdate,
    kSetCoefficient,
    kGetCmdPayload,
    kColumnCount
  };
  const std::string& Cell(const csv::Row& row, Column column) const;

  // Builds the catalogue from the open reader, or throws naming `name`, the row and the reason.
  void ExtractOrThrow(const std::string& name, bool opened);
  // Opens a fresh reader named `name` (a path, or a label for text) with `read`.
  bool OpenWith(const std::string& name, const std::function<bool(csv::Reader&)>& read);

  std::unique_ptr<csv::Reader> reader_;
  long column_positions_[kColumnCount] = {};
  std::string open_error_;
  int current_row_ = 0;
  std::vector<VarInfo*> records_;
  std::unordered_map<std::string, VarInfo*> by_name_;
};
