#pragma once
// Command line of varkel-sim.

#include <string>
#include <vector>

#include "virtual_lidar.h"

namespace varkel::sim {

struct FailureRequest {
  FailureMode mode = FailureMode::kNone;
  int cmd = -1;
  int param = 0;
  std::string address;  // with --fleet: the one member that misbehaves ("" = every member)
};

struct SimCommandLine {
  SimOptions options;
  std::vector<FailureRequest> failures;
  size_t fleet = 0;  // members of a fleet on consecutive loopback addresses; 0 = one sensor
  bool help = false;
  bool version = false;
};

// false with a message for the user when the arguments make no sense.
bool ParseSimCommandLine(const std::vector<std::string>& args, SimCommandLine* out, std::string* error);
std::string SimUsage();
std::string SimVersion();  // "varkel-sim 1.0.1"

// Where the model tables are when --config-dir is not given: Config/varID below the
// program's data root (beside bin/, else <prefix>/share/varkel), else ./Config/varID.
std::string DefaultConfigDir(const std::string& executable_path);

}  // namespace varkel::sim
