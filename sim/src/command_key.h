#pragma once
// A command as the tables write it. Texts of up to four characters ("0x1A") are plain
// KTC commands; longer ones ("0x1A05") are extended: KTC command 0xFF carrying the code
// as four big-endian bytes ahead of the payload, and the reply carries them back ahead
// of its fields.

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

// Texts shorter than five characters are numbers in automatic base: "0x1A" -> plain 0x1A,
// "010" -> plain 8, "21" -> plain 21 (the low byte is the command). Longer ones are
// hexadecimal extended codes: "0x1A05" -> extended 0x00001A05. nullopt for an empty text
// or one that is no such number.
std::optional<CommandKey> ParseCommandText(const std::string& text);

}  // namespace varkel::sim
