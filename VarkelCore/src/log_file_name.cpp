#include "log_file_name.h"

namespace varkel {

std::string SafeLogFileStem(const std::string& name) {
  std::string out;
  out.reserve(name.size());
  for (char c : name) {
    const auto byte = static_cast<unsigned char>(c);
    const bool unsafe = c == '/' || c == '\\' || c == ':' || byte < 0x20 || byte == 0x7F;
    out += unsafe ? '_' : c;
  }
  for (size_t at = out.find(".."); at != std::string::npos; at = out.find("..", at)) out.replace(at, 2, "__");
  if (!out.empty() && out.front() == '.') out.front() = '_';
  return out.empty() ? "log" : out;
}

}  // namespace varkel
