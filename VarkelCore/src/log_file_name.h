#pragma once
// Log names come from the model table and become part of file names.

#include <string>

namespace varkel {

// `name` made safe as the start of a file name inside a chosen folder: path separators,
// control characters and ".." sequences become "_", so the file can never land outside
// the folder or under a hidden or device-like name. An empty result becomes "log".
std::string SafeLogFileStem(const std::string& name);

}  // namespace varkel
