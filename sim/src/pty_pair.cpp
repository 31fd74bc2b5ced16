#include "pty_pair.h"
#include "platform/net.h"

#include <fcntl.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace varkel::sim {

PtyPair::~PtyPair() {
  Close();
}

bool PtyPair::Open(std::string* error) {
  auto fail = [&](const char* what) {
    if (error) *error = std::string(what) + ": " + quarn::lidar::net::ErrorText(errno);
    Close();
    return false;
  };
  master_ = posix_openpt(O_RDWR | O_NOCTTY);
  if (master_ < 0) return fail("posix_openpt");
  if (grantpt(master_) != 0) return fail("grantpt");
  if (unlockpt(master_) != 0) return fail("unlockpt");
  char name[128];
  if (ptsname_r(master_, name, sizeof(name)) != 0) return fail("ptsname_r");
  path_ = name;
  slave_ = ::open(name, O_RDWR | O_NOCTTY);
  if (slave_ < 0) return fail("open pty slave");
  termios tio{};
  if (tcgetattr(slave_, &tio) != 0) return fail("tcgetattr");
  cfmakeraw(&tio);
  if (tcsetattr(slave_, TCSANOW, &tio) != 0) return fail("tcsetattr");
  const int flags = fcntl(master_, F_GETFL, 0);
  if (flags < 0 || fcntl(master_, F_SETFL, flags | O_NONBLOCK) != 0) return fail("fcntl");
  return true;
}

void PtyPair::Close() {
  if (slave_ >= 0) ::close(slave_);
  if (master_ >= 0) ::close(master_);
  slave_ = master_ = -1;
}

}  // namespace varkel::sim
