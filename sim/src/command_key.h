#pragma once
// A command as the tables write it. Texts of up to four characters are plain KTC
// commands, read with automatic base ("0x1A" hexadecimal, "010" octal, "26" decimal; the
// low byte is the command). Longer ones ("0x1A05") are hexadecimal extended codes: KTC
// command 0xFF carrying the code as four big-endian bytes ahead of the payload, and the
// reply carries them back ahead of its fields.

#include <cstdint>
#include <optional>
#include <string>

namespace varkel::sim {

constexpr uint8_t kExtendedCommand = 0xFF;

struct CommandKey {
  bool extended = false;
  uint32_t code = 0;  // the command byte, or the extended code

  bool operator<(const CommandKey& o) const { return extended != o.extended ? extended < o.extended : code < o.code; }
  bool operator==(const CommandKey& o) const { return extended == o.extended && code == o.code; }
};

// "0x1A", "032" or "26" -> plain 0x1A; "0x1A05" -> extended 0x00001A05. Blanks around
// the text are ignored. nullopt for an empty text, one that is not a number of its base,
// or one over 32 bits.
std::optional<CommandKey> ParseCommandText(const std::string& text);

}  // namespace varkel::sim
