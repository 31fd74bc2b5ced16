// The stream monitor against a plain recvfrom loop on the same paced loopback stream
// (100,000 datagrams/s of 1,200 bytes), with and without a pcap recording, and the CPU
// the monitor takes at the virtual lidar's default rate (10 datagrams/s).
#include <arpa/inet.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "stream_monitor.h"

using namespace quarn::lidar;
using Clock = std::chrono::steady_clock;

namespace {

constexpr int kRate = 100000;
constexpr size_t kSize = 1200;
constexpr auto kRun = std::chrono::seconds(2);

// Sends `rate` datagrams/s to the loopback port for `run`; returns how many went out.
uint64_t Pace(uint16_t port, int rate, size_t size, Clock::duration run) {
  const int fd = ::socket(AF_INET, SOCK_DGRAM, 0);
  sockaddr_in to{};
  to.sin_family = AF_INET;
  to.sin_port = htons(port);
  to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  const std::vector<uint8_t> data(size, 0xA5);
  const auto start = Clock::now();
  uint64_t sent = 0;
  for (auto now = start; now - start < run; now = Clock::now()) {
    const double due = std::chrono::duration<double>(now - start).count() * rate;
    while (sent < due)
      if (::sendto(fd, data.data(), data.size(), 0, reinterpret_cast<sockaddr*>(&to), sizeof(to)) > 0) ++sent;
    // A millisecond's burst at high rates; at low rates a sleep until the next one is due.
    const auto next = start + std::chrono::duration_cast<Clock::duration>(
                                  std::chrono::duration<double>(static_cast<double>(sent + 1) / rate));
    std::this_thread::sleep_until(std::max(now + std::chrono::milliseconds(1), next));
  }
  ::close(fd);
  return sent;
}

// The baseline: one blocking recvfrom after another, same receive buffer as the monitor's.
uint64_t PlainLoop(uint64_t* sent) {
  const int fd = ::socket(AF_INET, SOCK_DGRAM, 0);
  const int size = static_cast<int>(StreamMonitor::Options().receive_buffer);
  ::setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &size, sizeof(size));
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t len = sizeof(a);
  ::bind(fd, reinterpret_cast<sockaddr*>(&a), len);
  ::getsockname(fd, reinterpret_cast<sockaddr*>(&a), &len);
  std::atomic<bool> done{false};
  uint64_t received = 0;
  std::thread reader([&] {
    std::vector<uint8_t> buf(65536);
    pollfd p{fd, POLLIN, 0};
    while (!done.load()) {
      if (::poll(&p, 1, 100) <= 0) continue;
      sockaddr_in from{};
      socklen_t n = sizeof(from);
      if (::recvfrom(fd, buf.data(), buf.size(), 0, reinterpret_cast<sockaddr*>(&from), &n) > 0) ++received;
    }
  });
  *sent = Pace(ntohs(a.sin_port), kRate, kSize, kRun);
  std::this_thread::sleep_for(std::chrono::milliseconds(200));  // the queue drains
  done.store(true);
  reader.join();
  ::close(fd);
  return received;
}

uint64_t MonitorLoop(const std::string& pcap, uint64_t* sent, uint64_t* drops) {
  StreamMonitor m;
  std::string error;
  if (!m.Start(StreamMonitor::Options(), &error)) {
    std::fprintf(stderr, "%s\n", error.c_str());
    return 0;
  }
  if (!pcap.empty() && !m.StartRecording(pcap, {}, &error)) std::fprintf(stderr, "%s\n", error.c_str());
  *sent = Pace(m.port(), kRate, kSize, kRun);
  std::this_thread::sleep_for(std::chrono::milliseconds(200));
  const StreamFigures f = m.Figures();
  *drops = f.kernel_drops.value_or(0);
  return f.datagrams;
}

double CpuSeconds() {
  rusage u{};
  getrusage(RUSAGE_SELF, &u);
  return static_cast<double>(u.ru_utime.tv_sec + u.ru_stime.tv_sec) +
         static_cast<double>(u.ru_utime.tv_usec + u.ru_stime.tv_usec) / 1e6;
}

}  // namespace

int main() {
  const double run_s = std::chrono::duration<double>(kRun).count();
  std::printf("stream monitor, %d datagrams/s of %zu bytes on loopback for %.0f s each\n", kRate, kSize, run_s);
  // Compared as the share of what was sent that each counted: a loaded machine may not send
  // the whole rate, and not the same amount in every run.
  uint64_t sent = 0, drops = 0;
  const uint64_t plain = PlainLoop(&sent);
  const double plain_share = sent ? static_cast<double>(plain) / sent : 0.0;
  std::printf("  plain recvfrom loop:  %8llu of %8llu sent (%.0f/s sent)\n", static_cast<unsigned long long>(plain),
              static_cast<unsigned long long>(sent), sent / run_s);
  auto report = [&](const char* what, uint64_t counted, const char* bound) {
    const double share = sent ? static_cast<double>(counted) / sent : 0.0;
    std::printf("  %-20s  %8llu of %8llu sent (%.0f/s sent), kernel drops %llu, ratio to plain %.3f (%s)\n", what,
                static_cast<unsigned long long>(counted), static_cast<unsigned long long>(sent), sent / run_s,
                static_cast<unsigned long long>(drops), plain_share > 0 ? share / plain_share : 0.0, bound);
  };
  const uint64_t counted = MonitorLoop("", &sent, &drops);
  report("monitor:", counted, "at least 0.9");
  const std::string file = (std::filesystem::temp_directory_path() / "varkel-stream-bench.pcap").string();
  const uint64_t recorded = MonitorLoop(file, &sent, &drops);
  report("monitor + pcap:", recorded, "at least 0.8");
  std::filesystem::remove(file);

  // The usual rate: CPU of the whole process (monitor thread and a sender of 10/s).
  StreamMonitor m;
  std::string error;
  m.Start(StreamMonitor::Options(), &error);
  const auto idle_run = std::chrono::seconds(5);
  const double cpu0 = CpuSeconds();
  const auto t0 = Clock::now();
  Pace(m.port(), 10, 516, idle_run);
  const double wall = std::chrono::duration<double>(Clock::now() - t0).count();
  const double cpu = CpuSeconds() - cpu0;
  std::printf("  at 10 datagrams/s:    %llu counted, CPU %.3f %% of one core (under 1 %%)\n",
              static_cast<unsigned long long>(m.Figures().datagrams), 100.0 * cpu / wall);
  return 0;
}
