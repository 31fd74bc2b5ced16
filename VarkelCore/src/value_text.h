#pragma once
// Turns the bytes of one variable, cut out of a get reply, into the text the pages show.
// Qt-free so that the conversions can be tested and reused without the controller.

#include <cstdint>
#include <string>
#include <vector>

namespace varkel {

struct ValueText {
  bool ok = false;
  // The display text when ok; otherwise the configuration fault to log (the value stays).
  std::string text;
};

// `type` is the table's VarType, compared exactly. Multi-byte values are big-endian.
// Numeric slices longer than their type use their last (least significant) bytes;
// shorter ones count as if padded with leading zero bytes.
ValueText BytesToValueText(const std::string& type, const std::vector<uint8_t>& slice, float coefficient);

// Whole-slice helpers, exposed for the types whose layout is fixed in docs/value-formats.md.
std::string IpText(const std::vector<uint8_t>& slice);
std::string DurationText(const std::vector<uint8_t>& slice);

}  // namespace varkel
