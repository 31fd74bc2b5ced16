// Pseudo-terminals as serial lines: plain terminal-device calls, raw mode. The rate goes
// through the arbitrary-rate interface, so 3125000 is set the same way as 9600.
#include <asm/termbits.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>

#include "platform/net.h"
#include "serial_port.h"

namespace quarn::lidar {
namespace {

class TerminalSerialPort final : public SerialPort {
 public:
  ~TerminalSerialPort() override { Close(); }

  int Open(const std::string& name, uint32_t baud_rate) override {
    Close();
    fd_ = ::open(name.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
    if (fd_ < 0) return Fail("open failed");
    termios2 tio{};
    if (::ioctl(fd_, TCGETS2, &tio) != 0) return FailAndClose("line settings unreadable");
    tio.c_iflag &= ~static_cast<tcflag_t>(IGNBRK | BRKINT | PARMRK | ISTRIP | INLCR | IGNCR | ICRNL | IXON | IXOFF |
                                          IXANY | INPCK);
    tio.c_oflag &= ~static_cast<tcflag_t>(OPOST);
    tio.c_lflag &= ~static_cast<tcflag_t>(ECHO | ECHONL | ICANON | ISIG | IEXTEN);
    tio.c_cflag &= ~static_cast<tcflag_t>(CSIZE | PARENB | CSTOPB | CRTSCTS | CBAUD | (CBAUD << IBSHIFT));
    tio.c_cflag |= CS8 | CREAD | CLOCAL | BOTHER | (BOTHER << IBSHIFT);
    tio.c_ispeed = baud_rate;
    tio.c_ospeed = baud_rate;
    tio.c_cc[VMIN] = 0;
    tio.c_cc[VTIME] = 0;
    if (::ioctl(fd_, TCSETS2, &tio) != 0) return FailAndClose("line settings refused");
    termios2 check{};
    if (::ioctl(fd_, TCGETS2, &check) != 0 || check.c_ospeed != baud_rate) {
      errno = EINVAL;
      return FailAndClose("baud rate not taken");
    }
    SetLastError({});
    return 0;
  }

  void Close() override {
    if (fd_ < 0) return;
    ::close(fd_);
    fd_ = -1;
  }

  bool IsOpen() const override { return fd_ >= 0; }

  int WaitReadable(uint32_t timeout_ms) override {
    if (fd_ < 0) return -1;
    pollfd p{fd_, POLLIN, 0};
    const int ready = ::poll(&p, 1, static_cast<int>(timeout_ms == 0 ? 1 : timeout_ms));
    if (ready < 0) {
      if (errno == EINTR) return 0;
      Fail("wait failed");
      return -1;
    }
    // A hang-up also wakes the wait; the read then reports it.
    return ready == 0 ? 0 : 1;
  }

  int ReadAvailable(uint8_t* out, size_t capacity) override {
    if (fd_ < 0) return -1;
    const ssize_t n = ::read(fd_, out, capacity);
    if (n > 0) return static_cast<int>(n);
    if (n < 0 && errno != EAGAIN && errno != EINTR) {
      Fail("read failed");
      return -1;
    }
    // A raw terminal reads 0 both when idle and when the other end is gone; the hang-up
    // flag tells them apart.
    pollfd p{fd_, POLLIN, 0};
    if (::poll(&p, 1, 0) > 0 && (p.revents & (POLLHUP | POLLERR | POLLNVAL)) != 0) {
      errno = ENXIO;
      Fail("device gone");
      return -1;
    }
    return 0;
  }

  int Write(const uint8_t* data, size_t length, uint32_t timeout_ms) override {
    if (fd_ < 0) return -1;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
    size_t done = 0;
    while (done < length) {
      const ssize_t n = ::write(fd_, data + done, length - done);
      if (n > 0) {
        done += static_cast<size_t>(n);
        continue;
      }
      if (n < 0 && errno != EAGAIN && errno != EINTR) {
        Fail("write failed");
        return -1;
      }
      const auto left =
          std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now()).count();
      if (left <= 0) break;
      pollfd p{fd_, POLLOUT, 0};
      if (::poll(&p, 1, static_cast<int>(left)) < 0 && errno != EINTR) {
        Fail("wait failed");
        return -1;
      }
      if ((p.revents & (POLLERR | POLLHUP | POLLNVAL)) != 0) {
        errno = ENXIO;
        Fail("device gone");
        return -1;
      }
    }
    return static_cast<int>(done);
  }

  bool FlushInput() override { return fd_ >= 0 && ::ioctl(fd_, TCFLSH, TCIFLUSH) == 0; }
  bool FlushOutput() override { return fd_ >= 0 && ::ioctl(fd_, TCFLSH, TCOFLUSH) == 0; }

 private:
  int Fail(const char* what) {
    SetLastError(std::string(what) + ": " + quarn::lidar::net::ErrorText(errno));
    return -1;
  }
  int FailAndClose(const char* what) {
    Fail(what);
    Close();
    return -1;
  }

  int fd_ = -1;
};

}  // namespace

std::unique_ptr<SerialPort> MakeTerminalSerialPort() {
  return std::make_unique<TerminalSerialPort>();
}

}  // namespace quarn::lidar
