#pragma once
// The window's command line: "-moduleVM=<model>" picks the model the window opens with;
// --help and --version answer before any window or screen exists.

#include <QString>

namespace varkel::app {

inline constexpr const char* kModuleVmPrefix = "-moduleVM=";

// Scans argv[1..]; the first argument starting with the prefix (case-sensitive) gives the
// text behind it, and later ones are ignored. Empty when there is none.
QString ParseModuleVmArg(int argc, const char* const* argv);

// The text --help or --version (the first of them in argv[1..]) prints; empty when neither
// is given and the window should start.
QString EarlyAnswer(int argc, const char* const* argv);

}  // namespace varkel::app
