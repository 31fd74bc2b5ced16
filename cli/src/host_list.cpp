#include "host_list.h"

#include <fstream>
#include <set>
#include <utility>

#include "cli_session.h"

namespace varkel::cli {
namespace {

std::string Trim(const std::string& text) {
  const size_t first = text.find_first_not_of(" \t\r\n");
  if (first == std::string::npos) return "";
  return text.substr(first, text.find_last_not_of(" \t\r\n") - first + 1);
}

[[noreturn]] void Bad(const std::string& entry, const std::string& why) {
  throw CliError(kExitBadInput, "bad entry in --hosts '" + entry + "': " + why);
}

// Four decimal parts 0..255 without leading zeros; false for anything else, names included.
bool ParseAddress(const std::string& text, uint32_t* out) {
  uint32_t value = 0;
  size_t pos = 0;
  for (int part = 0; part < 4; ++part) {
    if (part > 0) {
      if (pos >= text.size() || text[pos] != '.') return false;
      ++pos;
    }
    const size_t start = pos;
    uint32_t octet = 0;
    while (pos < text.size() && text[pos] >= '0' && text[pos] <= '9' && pos - start < 3)
      octet = octet * 10 + static_cast<uint32_t>(text[pos++] - '0');
    if (pos == start || octet > 255 || (text[start] == '0' && pos - start > 1)) return false;
    value = value << 8 | octet;
  }
  if (pos != text.size()) return false;
  *out = value;
  return true;
}

std::string AddressText(uint32_t value) {
  return std::to_string(value >> 24) + "." + std::to_string(value >> 16 & 0xFF) + "." +
         std::to_string(value >> 8 & 0xFF) + "." + std::to_string(value & 0xFF);
}

void AddEntry(const std::string& entry, uint16_t default_port, std::vector<HostTarget>& out) {
  std::string addresses = entry;
  uint16_t port = default_port;
  bool port_given = false;
  const size_t colon = entry.rfind(':');
  if (colon != std::string::npos) {
    const std::string port_text = entry.substr(colon + 1);
    unsigned long value = 0;
    bool digits = !port_text.empty() && port_text.size() <= 5;
    for (char c : port_text) digits = digits && c >= '0' && c <= '9';
    if (digits) value = std::stoul(port_text);
    if (!digits || value == 0 || value > 65535) Bad(entry, "the port must be a number from 1 to 65535");
    port = static_cast<uint16_t>(value);
    port_given = true;
    addresses = entry.substr(0, colon);
  }
  const size_t dash = addresses.find('-');
  uint32_t first = 0, last = 0;
  if (!ParseAddress(addresses.substr(0, dash), &first) ||
      (dash != std::string::npos && !ParseAddress(addresses.substr(dash + 1), &last)))
    Bad(entry, "not an IPv4 address or range (names are not looked up)");
  if (dash == std::string::npos) last = first;
  if (last < first) Bad(entry, "the range ends before it starts");
  if (last - first >= kMostRangeAddresses)
    Bad(entry, "the range holds " + std::to_string(uint64_t{last} - first + 1) + " addresses, more than " +
                   std::to_string(kMostRangeAddresses));
  for (uint64_t a = first; a <= last; ++a) {
    const std::string address = AddressText(static_cast<uint32_t>(a));
    out.push_back(HostTarget{address, port, port_given ? address + ":" + std::to_string(port) : address});
  }
}

}  // namespace

std::vector<HostTarget> ParseHostList(const std::string& text, uint16_t default_port) {
  std::vector<HostTarget> targets;
  size_t start = 0;
  while (start <= text.size()) {
    const size_t comma = std::min(text.find(',', start), text.size());
    const std::string entry = Trim(text.substr(start, comma - start));
    start = comma + 1;
    if (entry.empty()) throw CliError(kExitBadInput, "--hosts has an empty entry");
    if (entry[0] != '@') {
      AddEntry(entry, default_port, targets);
      continue;
    }
    const std::string file = entry.substr(1);
    std::ifstream in(file);
    if (file.empty() || !in) Bad(entry, "cannot read the file");
    for (std::string line; std::getline(in, line);) {
      line = Trim(line.substr(0, line.find('#')));
      if (line.empty()) continue;
      // One entry per line; a file does not name further files.
      if (line[0] == '@' || line.find(',') != std::string::npos) Bad(line, "one address or range per line in " + file);
      AddEntry(line, default_port, targets);
    }
  }
  std::set<std::pair<std::string, uint16_t>> seen;
  for (const HostTarget& t : targets)
    if (!seen.insert({t.address, t.port}).second)
      throw CliError(kExitBadInput, "--hosts names " + t.address + ":" + std::to_string(t.port) + " twice");
  return targets;
}

}  // namespace varkel::cli
