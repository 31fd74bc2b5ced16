#include "impaired_link.h"

#include <fcntl.h>
#include <linux/if.h>
#include <linux/if_tun.h>
#include <poll.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <deque>
#include <vector>

namespace vktest {
namespace {

using Clock = std::chrono::steady_clock;

// Runs a shell command; its exit status, with what it printed in `out`.
int Run(const std::string& command, std::string* out) {
  out->clear();
  FILE* pipe = popen((command + " 2>&1").c_str(), "r");
  if (!pipe) return -1;
  char buffer[512];
  size_t n;
  while ((n = fread(buffer, 1, sizeof buffer, pipe)) > 0) out->append(buffer, n);
  const int status = pclose(pipe);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

int OpenTun(const std::string& name, std::string* error) {
  const int fd = open("/dev/net/tun", O_RDWR | O_CLOEXEC | O_NONBLOCK);
  if (fd < 0) {
    *error = std::string("cannot open /dev/net/tun: ") + std::strerror(errno);
    return -1;
  }
  ifreq ifr{};
  ifr.ifr_flags = IFF_TUN | IFF_NO_PI;
  std::strncpy(ifr.ifr_name, name.c_str(), IFNAMSIZ - 1);
  if (ioctl(fd, TUNSETIFF, &ifr) != 0) {
    *error = "cannot make TUN device " + name + ": " + std::strerror(errno);
    close(fd);
    return -1;
  }
  return fd;
}

}  // namespace

ImpairedLink::~ImpairedLink() {
  Destroy();
}

std::string ImpairedLink::Create() {
  if (geteuid() != 0) return "needs root to make a network namespace and TUN devices";
  std::string out;
  if (Run("ip -V", &out) != 0) return "needs iproute2's ip";

  // Names and a /30 of the benchmarking range, unique to this process.
  const unsigned id = static_cast<unsigned>(getpid()) % 32768u;
  ns_ = "varkel-net-" + std::to_string(getpid());
  const std::string out_dev = "vkt" + std::to_string(id) + "o";
  const std::string in_dev = "vkt" + std::to_string(id) + "i";
  const unsigned base = id * 4u;  // 198.18.0.0/15 holds 32768 of them
  const std::string prefix =
      "198." + std::to_string(18 + (base >> 16)) + "." + std::to_string((base >> 8) & 0xFF) + ".";
  outside_ip_ = prefix + std::to_string((base & 0xFF) + 1);
  inside_ip_ = prefix + std::to_string((base & 0xFF) + 2);

  if (Run("ip netns add " + ns_, &out) != 0) {
    ns_.clear();
    return "cannot make a network namespace: " + out;
  }
  std::string error;
  fd_out_ = OpenTun(out_dev, &error);
  if (fd_out_ >= 0) fd_in_ = OpenTun(in_dev, &error);
  if (fd_in_ < 0) return error;
  const char* steps[] = {
      "ip link set %IN netns %NS", "ip addr add %OUTIP peer %INIP dev %OUT",
      "ip link set %OUT up",       "ip -n %NS addr add %INIP peer %OUTIP dev %IN",
      "ip -n %NS link set %IN up", "ip -n %NS link set lo up",
  };
  for (const char* step : steps) {
    std::string command = step;
    auto put = [&](const std::string& key, const std::string& value) {
      for (size_t at; (at = command.find(key)) != std::string::npos;) command.replace(at, key.size(), value);
    };
    put("%NS", ns_);
    put("%INIP", inside_ip_);
    put("%OUTIP", outside_ip_);
    put("%IN", in_dev);
    put("%OUT", out_dev);
    if (Run(command, &out) != 0) return "`" + command + "` failed: " + out;
  }
  if (pipe2(wake_, O_CLOEXEC | O_NONBLOCK) != 0) return "cannot make a pipe";
  pump_ = std::thread(&ImpairedLink::Pump, this);
  return "";
}

void ImpairedLink::Destroy() {
  if (pump_.joinable()) {
    const char stop = 1;
    (void)!write(wake_[1], &stop, 1);
    pump_.join();
  }
  for (int* fd : {&fd_out_, &fd_in_, &wake_[0], &wake_[1]}) {
    if (*fd >= 0) close(*fd);
    *fd = -1;
  }
  // Closing the descriptors removed the devices; the namespace goes last.
  if (!ns_.empty()) {
    std::string out;
    Run("ip netns del " + ns_, &out);
    ns_.clear();
  }
}

bool ImpairedLink::RunInside(const std::function<void()>& f) {
  bool entered = false;
  std::thread t([&] {
    const int fd = open(("/var/run/netns/" + ns_).c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return;
    entered = setns(fd, CLONE_NEWNET) == 0;
    close(fd);
    if (entered) f();
  });
  t.join();
  return entered;
}

void ImpairedLink::SetLoss(double p) {
  std::lock_guard<std::mutex> lock(loss_mutex_);
  loss_ = p;
}

void ImpairedLink::Pump() {
  struct Packet {
    Clock::time_point due;
    int to;
    std::vector<uint8_t> bytes;
  };
  // The delay is the same for every packet, so each direction stays in order.
  std::deque<Packet> queue;
  std::vector<uint8_t> buffer(65536);
  while (true) {
    int wait_ms = 50;
    if (!queue.empty()) {
      const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(queue.front().due - Clock::now());
      wait_ms = static_cast<int>(std::max<int64_t>(0, std::min<int64_t>(left.count() + 1, 50)));
    }
    pollfd fds[3] = {{fd_out_, POLLIN, 0}, {fd_in_, POLLIN, 0}, {wake_[0], POLLIN, 0}};
    poll(fds, 3, wait_ms);
    if (fds[2].revents & POLLIN) return;
    for (int side = 0; side < 2; ++side) {
      if (!(fds[side].revents & POLLIN)) continue;
      const int from = side == 0 ? fd_out_ : fd_in_;
      const int to = side == 0 ? fd_in_ : fd_out_;
      ssize_t n;
      while ((n = read(from, buffer.data(), buffer.size())) > 0) {
        bool lost = down_.load();
        if (!lost) {
          std::lock_guard<std::mutex> lock(loss_mutex_);
          lost = loss_ > 0 && std::uniform_real_distribution<double>(0, 1)(random_) < loss_;
        }
        if (lost) {
          dropped_.fetch_add(1);
          continue;
        }
        queue.push_back({Clock::now() + std::chrono::milliseconds(delay_ms_.load()), to,
                         std::vector<uint8_t>(buffer.begin(), buffer.begin() + n)});
      }
    }
    const auto now = Clock::now();
    while (!queue.empty() && queue.front().due <= now) {
      // A wire cut while a packet was on it loses that packet too.
      if (down_.load()) {
        dropped_.fetch_add(1);
      } else {
        (void)!write(queue.front().to, queue.front().bytes.data(), queue.front().bytes.size());
        carried_.fetch_add(1);
      }
      queue.pop_front();
    }
  }
}

}  // namespace vktest
