#pragma once
// The version a firmware image announces: a line "VERSION=<text>" anywhere in the image
// (at its start or right after a line feed), ended by CR, LF, NUL or the end of the image.
// The text is what the "Firmware Version" field shows afterwards, e.g. "1.5.0 (2026-11-23)".

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace varkel::sim {

// nullopt when the image has no such line or its text is empty or longer than 64 bytes.
std::optional<std::string> ImageVersion(const std::vector<uint8_t>& image);

}  // namespace varkel::sim
