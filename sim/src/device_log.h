#pragma once
// The logs the simulated sensor hands out: time-stamped text lines made up from the log's
// name alone, so the same name and size always give the same bytes and a test can compare
// a downloaded file with what the sensor sent.

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace varkel::sim {

// The operation log comes in four parts, picked by two selector bytes after the variable's
// own payload.
struct OperationLogPart {
  uint16_t selector;  // first selector byte in the high half
  const char* name;   // also the start of the program's file name for the part
};

constexpr OperationLogPart kOperationLogParts[] = {
    {0x0000, "bsw_warning"},
    {0x0001, "asw_warning"},
    {0x0100, "bsw_error"},
    {0x0101, "asw_error"},
};

// The part a selector picks; nullopt for any other selector.
std::optional<OperationLogPart> OperationLogPartOf(uint16_t selector);

// Exactly `size` bytes of lines "YYYY-MM-DD hh:mm:ss.mmm <title> #n <level> <text>\n"; the
// last line is cut short when needed so that the body still ends in '\n' (a size of 0
// gives an empty body). Every line names `title`, so different logs never look alike.
std::vector<uint8_t> BuildLogBody(const std::string& title, size_t size);

}  // namespace varkel::sim
