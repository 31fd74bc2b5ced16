#pragma once
// Where a Varkel program finds its data (Config/varID/, png/, fonts/): beside its bin/
// folder as in the build tree and a `cmake --install` root, else in <prefix>/share/varkel
// for a program in <prefix>/bin, as a Debian package lays it out.

#include <string>
#include <vector>

namespace quarn {

// The folders asked, in order, for a program in `bin_dir`: its parent, the folder itself,
// then <parent>/share/varkel. Absolute and without "..".
std::vector<std::string> DataRootCandidates(const std::string& bin_dir);

// The first candidate holding `marker` (a file or folder relative to the root); empty
// when none does.
std::string FindDataRoot(const std::string& bin_dir, const std::string& marker);

// The model tables for a program at `executable_path`: Config/varID below its data root,
// else ./Config/varID.
std::string DefaultModelTableDir(const std::string& executable_path);

// The running program's own path (empty when the system does not say).
std::string ExecutablePath();

}  // namespace quarn
