#include "module_arg.h"

#include <cstring>

#include "varkel_version.h"

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

QString EarlyAnswer(int argc, const char* const* argv) {
  for (int i = 1; i < argc; ++i) {
    if (argv[i] == nullptr) continue;
    if (std::strcmp(argv[i], "--version") == 0) return QStringLiteral("varkel " VARKEL_VERSION "\n");
    if (std::strcmp(argv[i], "--help") == 0 || std::strcmp(argv[i], "-h") == 0) {
      return QStringLiteral(
          "Usage: varkel [-moduleVM=MODEL] [-platform NAME]\n"
          "Inspect and configure a lidar sensor.\n"
          "\n"
          "  -moduleVM=MODEL   open with this model chosen (a table in Config/varID)\n"
          "  -platform NAME    the display system to draw on (xcb, wayland, offscreen, ...)\n"
          "  -h, --help        this text\n"
          "  --version         the program's version\n");
    }
  }
  return {};
}

}  // namespace varkel::app
