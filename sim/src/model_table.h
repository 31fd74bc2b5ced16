#pragma once
// Reads a model table with the program's own table parser and keeps what the register
// bank needs of each variable.

#include <optional>
#include <string>
#include <vector>

#include "register_bank.h"

namespace varkel::sim {

std::optional<std::vector<BankVariable>> LoadModelTable(const std::string& path, std::string* error);

// The set command of the firmware upgrade row (page control 4); nullopt when none.
std::optional<CommandKey> UpgradeCommand(const std::vector<BankVariable>& vars);

}  // namespace varkel::sim
