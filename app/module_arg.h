#pragma once
// The one command-line argument: "-moduleVM=<model>" picks the model the window opens with.

#include <QString>

namespace varkel::app {

inline constexpr const char* kModuleVmPrefix = "-moduleVM=";

// Scans argv[1..]; the first argument starting with the prefix (case-sensitive) gives the
// text behind it, and later ones are ignored. Empty when there is none.
QString ParseModuleVmArg(int argc, const char* const* argv);

}  // namespace varkel::app
