#include "atomic_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>

namespace quarn {
namespace {

std::string Folder(const std::string& path) {
  const size_t slash = path.find_last_of('/');
  if (slash == std::string::npos) return ".";
  return slash == 0 ? "/" : path.substr(0, slash);
}

bool Fail(std::string* error, const std::string& path, const std::string& reason) {
  if (error) *error = "cannot write " + path + ": " + reason;
  return false;
}

}  // namespace

bool WriteFileAtomically(const std::string& path, const void* data, size_t size, std::string* error) {
  if (path.empty() || path.back() == '/') return Fail(error, path, std::strerror(EISDIR));
  // A name no other writer picks: the process and a counter, retried if it exists anyway.
  static std::atomic<unsigned> counter{0};
  const std::string stem = path + ".tmp-" + std::to_string(::getpid()) + "-";
  std::string temp;
  int fd = -1;
  for (int attempt = 0; fd < 0 && attempt < 100; ++attempt) {
    temp = stem + std::to_string(counter.fetch_add(1));
    fd = ::open(temp.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
    if (fd < 0 && errno != EEXIST) return Fail(error, path, std::strerror(errno));
  }
  if (fd < 0) return Fail(error, path, "no free temporary name");

  // A file being replaced keeps its permissions; a new one gets 0666 less the umask.
  struct stat old {};
  if (::stat(path.c_str(), &old) == 0 && S_ISREG(old.st_mode)) ::fchmod(fd, old.st_mode & 07777);

  const char* at = static_cast<const char*>(data);
  size_t left = size;
  int err = 0;
  while (left > 0 && err == 0) {
    const ssize_t n = ::write(fd, at, left);
    if (n < 0) {
      if (errno != EINTR) err = errno;
    } else {
      at += n;
      left -= static_cast<size_t>(n);
    }
  }
  if (err == 0 && ::fsync(fd) != 0) err = errno;
  if (::close(fd) != 0 && err == 0) err = errno;
  if (err == 0 && ::rename(temp.c_str(), path.c_str()) != 0) err = errno;
  if (err != 0) {
    ::unlink(temp.c_str());
    return Fail(error, path, std::strerror(err));
  }
  // The rename itself reaches the disk with the folder.
  const int dir = ::open(Folder(path).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (dir >= 0) {
    ::fsync(dir);
    ::close(dir);
  }
  return true;
}

}  // namespace quarn
