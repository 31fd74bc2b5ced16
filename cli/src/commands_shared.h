#pragma once
// What the value commands (commands_values.cpp) and restore (commands_restore.cpp) share:
// comparing value texts, the window's walk and checks, tables on the terminal, backups.

#include <ostream>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "cli_session.h"

namespace varkel::cli {

using Json = nlohmann::ordered_json;

// Texts the sensor gives back may be spelled differently from what was sent ("85" is
// read as "85.00"); numbers compare by value, to the two decimals the window shows.
bool SameValue(const std::string& a, const std::string& b);

// Every record in the order the window meets it: page by page, then the rest in file order.
std::vector<VarInfo*> WalkOrder(const ConfigParser& table);

// Columns two blanks apart, the last one unpadded.
void PrintTable(std::ostream& out, const std::vector<std::vector<std::string>>& rows);

// Reads every variable named, or fails naming the first that could not be read.
void ReadOrFail(Session& session, const std::vector<VarInfo*>& vars);

struct Change {
  VarInfo* var;
  std::string value;
};
// The checks the window makes before Save, and the codec's own refusal, before anything
// is sent; `force` skips the range and option checks, never the codec.
void CheckChange(const Change& change, bool force);

// A backup file checked for its format and version, every entry with an id and a value.
Json LoadBackup(const std::string& file);

}  // namespace varkel::cli
