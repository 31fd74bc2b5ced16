#pragma once
// The sensors a command works on: `--hosts` text parsed into addresses and ports. Pure: it
// reads the @FILE entries it names and nothing else, and never looks a name up.

#include <cstdint>
#include <string>
#include <vector>

namespace varkel::cli {

struct HostTarget {
  std::string address;  // dotted IPv4
  uint16_t port = 0;
  // As rows show it: the address, with ":port" when the entry gave one.
  std::string label;
};

// A range names at most this many addresses; a larger one is a typing mistake.
constexpr uint32_t kMostRangeAddresses = 1024;

// Comma-separated entries, each "A.B.C.D[:PORT]", "A.B.C.D-E.F.G.H[:PORT]" or "@FILE" (one
// entry per line, '#' starts a comment). `default_port` for entries without one. Throws
// CliError (status 2) naming the first bad entry; the same address and port twice is one.
std::vector<HostTarget> ParseHostList(const std::string& text, uint16_t default_port);

}  // namespace varkel::cli
