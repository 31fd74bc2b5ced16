#pragma once
// Running a helper program (tar) without a shell, with a time limit.

#include <string>
#include <vector>

namespace varkel {

// Runs `args` (no shell: names are never read as commands) in `dir`, its output merged
// into *output. Its exit status, or -1 when it could not start, was killed or overran.
int RunProgram(const std::vector<std::string>& args, const std::string& dir, int timeout_ms, std::string* output);

}  // namespace varkel
