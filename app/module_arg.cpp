#include "module_arg.h"

#include <cstring>

namespace varkel::app {

QString ParseModuleVmArg(int argc, const char* const* argv) {
  const size_t prefix_len = std::strlen(kModuleVmPrefix);
  for (int i = 1; i < argc; ++i) {
    if (argv[i] != nullptr && std::strncmp(argv[i], kModuleVmPrefix, prefix_len) == 0) {
      return QString::fromLocal8Bit(argv[i] + prefix_len);
    }
  }
  return {};
}

}  // namespace varkel::app
