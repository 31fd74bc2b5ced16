#pragma once
// Watches the data port: counts the datagrams that reach it (it never reads what they
// carry), per sender, with sizes, gaps and the kernel's drop count, and can hand each one
// to a pcap recording. Its own socket, so the point-data source stays as it is.

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "pcap_recorder.h"

namespace quarn::lidar {

struct StreamSender {
  uint32_t address = 0;  // IPv4, network order
  uint16_t port = 0;     // host order
  uint64_t datagrams = 0;
  double share = 0;  // of all datagrams, 0..1
};

struct StreamFigures {
  uint16_t port = 0;
  std::string group;  // the multicast group joined, "" for none
  uint64_t datagrams = 0;
  uint64_t bytes = 0;
  // Over the last whole second (0 before the first one has passed).
  double datagrams_per_s = 0;
  double mbit_per_s = 0;
  std::vector<StreamSender> senders;  // most datagrams first
  uint32_t size_min = 0;
  uint32_t size_median = 0;
  uint32_t size_max = 0;
  // Smoothed mean deviation between consecutive inter-arrival times.
  double jitter_ms = 0;
  double longest_gap_ms = 0;
  // nullopt where the platform does not report it.
  std::optional<uint64_t> kernel_drops;
  double listening_s = 0;
  // Since the last datagram, or since listening began when none came.
  double quiet_s = 0;
  // Nothing came for the monitor's quiet period.
  bool silent = false;
  // The recording: its file ("" when none), what it holds, and why it stopped ("" while on).
  std::string recording_file;
  uint64_t recorded = 0;
  std::string recording_stopped;
};

class StreamMonitor {
 public:
  struct Options {
    uint16_t port = 0;  // 0: one the system picks (tests)
    // A group from 224.0.0.0 to 239.255.255.255 to join, and the local address of the
    // interface it is joined on ("" for any).
    std::string group;
    std::string interface_address;
    // How long nothing must arrive before the stream counts as silent.
    std::chrono::milliseconds quiet_period{3000};
    uint32_t receive_buffer = 8u << 20;
  };

  StreamMonitor() = default;
  ~StreamMonitor() { Stop(); }
  StreamMonitor(const StreamMonitor&) = delete;
  StreamMonitor& operator=(const StreamMonitor&) = delete;

  // Binds the port and starts counting on a thread of its own. False with the reason for
  // the user ("port 2368 is in use by another program; ...").
  bool Start(const Options& options, std::string* error);
  void Stop();
  bool running() const { return thread_.joinable(); }
  uint16_t port() const { return port_; }

  StreamFigures Figures() const;
  // Counts from zero again (the port stays open).
  void Reset();

  // Every datagram from now on goes to `file`; false with the reason when it cannot be
  // opened. A write error later stops the recording only.
  bool StartRecording(const std::string& file, const PcapRecorder::Limits& limits, std::string* error);
  void StopRecording();

 private:
  struct Arrival {
    uint32_t from_address;
    uint16_t from_port;
    uint32_t to_address;
    uint32_t size;
    int64_t time_ns;  // wall clock
    const uint8_t* data;
  };
  void Run();
  void Count(const Arrival& a);  // under mu_
  void Tick(std::chrono::steady_clock::time_point now);

  Options options_;
  int fd_ = -1;
  int wake_[2] = {-1, -1};
  uint16_t port_ = 0;
  bool drops_known_ = false;
  std::thread thread_;

  // Keeps apart the receiving thread (counts, records) and the readers of the figures.
  mutable std::mutex mu_;
  std::chrono::steady_clock::time_point started_;
  std::chrono::steady_clock::time_point last_arrival_;
  uint64_t datagrams_ = 0;
  uint64_t bytes_ = 0;
  std::vector<StreamSender> senders_;
  std::vector<uint32_t> size_counts_;  // datagrams by size
  uint32_t size_min_ = 0;
  uint32_t size_max_ = 0;
  int64_t last_time_ns_ = 0;
  int64_t last_interval_ns_ = -1;
  double jitter_ns_ = 0;
  int64_t longest_gap_ns_ = 0;
  uint64_t drops_ = 0;
  // The last whole second's rates.
  std::chrono::steady_clock::time_point tick_;
  uint64_t tick_datagrams_ = 0;
  uint64_t tick_bytes_ = 0;
  double rate_datagrams_ = 0;
  double rate_mbit_ = 0;
  std::unique_ptr<PcapRecorder> recorder_;
  std::string recording_file_;
  std::string recording_stopped_;
  uint64_t recorded_ = 0;
};

// "a.b.c.d" for an address in network order.
std::string Ipv4Text(uint32_t address);
// 224.0.0.0 to 239.255.255.255.
bool IsMulticastText(const std::string& address);

}  // namespace quarn::lidar
