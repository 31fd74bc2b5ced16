#pragma once
// Replacing a file so that a failure never leaves it cut off: the bytes go to a temporary
// file in the same folder, which is flushed to disk and then renamed over the target.

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace quarn {

// Writes `size` bytes to `path`. On success the file holds exactly them; on failure the
// file that was there (or none) is left as it was, no temporary remains, and *error
// (when given) names the file and the reason.
bool WriteFileAtomically(const std::string& path, const void* data, size_t size, std::string* error = nullptr);
inline bool WriteFileAtomically(const std::string& path, const std::string& text, std::string* error = nullptr) {
  return WriteFileAtomically(path, text.data(), text.size(), error);
}
inline bool WriteFileAtomically(const std::string& path, const std::vector<uint8_t>& bytes,
                                std::string* error = nullptr) {
  return WriteFileAtomically(path, bytes.data(), bytes.size(), error);
}

}  // namespace quarn
