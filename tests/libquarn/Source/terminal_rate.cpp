// Kept apart: the arbitrary-rate terminal interface clashes with the C library's terminal header.
#include <asm/termbits.h>
#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cstdint>
#include <string>

namespace quarn::lidar {

uint32_t TerminalRate(const std::string& path) {
  termios2 tio{};
  const int fd = ::open(path.c_str(), O_RDWR | O_NOCTTY);
  const bool ok = fd >= 0 && ::ioctl(fd, TCGETS2, &tio) == 0;
  if (fd >= 0) ::close(fd);
  return ok ? tio.c_ospeed : 0;
}

}  // namespace quarn::lidar
