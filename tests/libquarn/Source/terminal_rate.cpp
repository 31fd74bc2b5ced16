// Kept apart: the arbitrary-rate terminal interface clashes with the C library's terminal header.
#include <asm/termbits.h>
#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cstdint>
#include <string>

namespace quarn::lidar {

uint32_t TerminalRate(const std::string& path) {
  const int fd = ::open(path.c_str(), O_RDWR | O_NOCTTY);
  if (fd < 0) return 0;
  termios2 tio{};
  const int r = ::ioctl(fd, TCGETS2, &tio);
  ::close(fd);
  return r == 0 ? tio.c_ospeed : 0;
}

}  // namespace quarn::lidar
