#pragma once
// The commands of the table's maintenance rows (restart, reset, logs), as the window and
// the command line send them.

#include <array>
#include <cstdint>
#include <initializer_list>
#include <vector>

#include "ktc_command_text.h"

class ConfigParser;
struct VarInfo;

namespace varkel {

struct NamedCommand {
  quarn::lidar::KtcCommandText command;
  std::vector<uint8_t> payload;  // the request payload, the code ahead when extended
};

// A log's command and request payload, `extra` after the variable's own payload. Logs are
// read with their get command; a table may give only a set command. Throws
// std::invalid_argument for a command text that is no number.
NamedCommand LogCommandOf(const VarInfo& var, const std::vector<uint8_t>& extra);

// The restart or reset row's command: it changes the sensor, so the set command names it,
// else the get command. Throws std::invalid_argument when there is none or it is no number.
NamedCommand ActionCommandOf(const VarInfo& var);

// The first variable by any of `spellings`, or null.
VarInfo* FindNamedVar(const ConfigParser& table, std::initializer_list<const char*> spellings);

// The operation log's four parts: the two selector bytes after the variable's payload,
// and the prefix of each part's file.
struct OperationLogPart {
  const char* prefix;
  uint8_t selector[2];
};
constexpr std::array<OperationLogPart, 4> kOperationLogParts{{{"bsw_warning_", {0x00, 0x00}},
                                                              {"asw_warning_", {0x00, 0x01}},
                                                              {"bsw_error_", {0x01, 0x00}},
                                                              {"asw_error_", {0x01, 0x01}}}};

}  // namespace varkel
