#pragma once
// The backup file: the model, the serial number, the firmware version and every readable
// variable's value text. `varkel-cli backup` writes it from a fresh read, the window's
// support bundle from the values it last read; `restore` and `diff` read it back.

#include <string>
#include <vector>

#include <nlohmann/json.hpp>

class ConfigParser;
struct VarInfo;

namespace varkel {

extern const char kBackupFormat[];
constexpr int kBackupVersion = 1;

// Variables a full read (and so a backup) covers: a get command, a type with a text, not a log.
bool IsReadable(const VarInfo& var);
// Variables a value can be written to: editable, a set command, a codec for text.
bool IsWritable(const VarInfo& var);

// The readable variables of `table`, in its order.
std::vector<const VarInfo*> BackedUp(const ConfigParser& table);

// The backup of `vars` with their value texts as they stand, stamped now (UTC). The serial
// number and firmware version are the table's "SN" and "Firmware Version" texts.
nlohmann::ordered_json BackupJson(const ConfigParser& table, const std::string& model,
                                  const std::vector<const VarInfo*>& vars);

}  // namespace varkel
