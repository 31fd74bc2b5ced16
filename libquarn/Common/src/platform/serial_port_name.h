#pragma once
// How this platform spells serial port names. Kept apart from the socket shim: only the
// serial source needs it.

#include <cstdlib>
#include <string>

#ifndef _WIN32
#include <climits>
#endif

namespace quarn::lidar::serial_platform {

// Windows opens COM10 and above only through the device namespace; the rule keys on the
// name's length, so COM3 stays as it is and COM12 becomes "\\.\COM12". A name that
// already carries the prefix is left alone.
inline std::string WithDeviceNamespacePrefix(const std::string& name) {
  static const std::string kPrefix = "\\\\.\\";
  if (name.size() <= 4 || name.compare(0, kPrefix.size(), kPrefix) == 0) return name;
  return kPrefix + name;
}

// The name handed to the operating system. Elsewhere names open as given ("/dev/ttyUSB0").
inline std::string NativePortName(const std::string& name) {
#ifdef _WIN32
  return WithDeviceNamespacePrefix(name);
#else
  return name;
#endif
}

// True when the name (after following links) is a pseudo-terminal slave. Such ports carry
// no modem lines, which the serial library insists on reading, so they take another road.
inline bool IsPseudoTerminal(const std::string& name) {
#ifdef _WIN32
  (void)name;
  return false;
#else
  char resolved[PATH_MAX];
  if (realpath(name.c_str(), resolved) == nullptr) return false;
  return std::string(resolved).rfind("/dev/pts/", 0) == 0;
#endif
}

}  // namespace quarn::lidar::serial_platform
