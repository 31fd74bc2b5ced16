#include "stream_monitor.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>

#include "platform/net.h"

namespace quarn::lidar {
namespace {

using Clock = std::chrono::steady_clock;

constexpr size_t kBatch = 32;
constexpr size_t kDatagramMax = 65536;
constexpr int kPollMs = 100;

int64_t WallNs() {
  timespec ts{};
  clock_gettime(CLOCK_REALTIME, &ts);
  return static_cast<int64_t>(ts.tv_sec) * 1000000000 + ts.tv_nsec;
}

double Seconds(Clock::duration d) {
  return std::chrono::duration<double>(d).count();
}

}  // namespace

std::string Ipv4Text(uint32_t address) {
  char text[INET_ADDRSTRLEN] = {};
  in_addr a{};
  a.s_addr = address;
  inet_ntop(AF_INET, &a, text, sizeof(text));
  return text;
}

bool IsMulticastText(const std::string& address) {
  in_addr a{};
  return inet_pton(AF_INET, address.c_str(), &a) == 1 && (ntohl(a.s_addr) >> 28) == 0xE;
}

bool StreamMonitor::Start(const Options& options, std::string* error) {
  Stop();
  options_ = options;
  auto fail = [&](const std::string& why) {
    if (error) *error = why;
    if (fd_ >= 0) ::close(fd_);
    fd_ = -1;
    return false;
  };
  fd_ = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (fd_ < 0) return fail("cannot open a UDP socket: " + net::ErrorText(errno));
  const int size = static_cast<int>(options.receive_buffer);
  ::setsockopt(fd_, SOL_SOCKET, SO_RCVBUF, &size, sizeof(size));
  const int on = 1;
  drops_known_ = ::setsockopt(fd_, SOL_SOCKET, SO_RXQ_OVFL, &on, sizeof(on)) == 0;
  ::setsockopt(fd_, SOL_SOCKET, SO_TIMESTAMPNS, &on, sizeof(on));
  ::setsockopt(fd_, IPPROTO_IP, IP_PKTINFO, &on, sizeof(on));
  // No address reuse: a port another program holds must fail here, not share the stream.
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_addr.s_addr = htonl(INADDR_ANY);
  addr.sin_port = htons(options.port);
  if (::bind(fd_, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0) {
    const int err = errno;
    if (err == EADDRINUSE)
      return fail("port " + std::to_string(options.port) +
                  " is in use by another program; close it or listen on another port");
    return fail("cannot listen on UDP port " + std::to_string(options.port) + ": " + net::ErrorText(err));
  }
  socklen_t len = sizeof(addr);
  ::getsockname(fd_, reinterpret_cast<sockaddr*>(&addr), &len);
  port_ = ntohs(addr.sin_port);
  if (!options.group.empty()) {
    ip_mreq m{};
    if (inet_pton(AF_INET, options.group.c_str(), &m.imr_multiaddr) != 1 || !IsMulticastText(options.group))
      return fail(options.group + " is not a multicast group address");
    m.imr_interface.s_addr = htonl(INADDR_ANY);
    if (!options.interface_address.empty() &&
        inet_pton(AF_INET, options.interface_address.c_str(), &m.imr_interface) != 1)
      return fail(options.interface_address + " is not an IPv4 address");
    if (::setsockopt(fd_, IPPROTO_IP, IP_ADD_MEMBERSHIP, &m, sizeof(m)) != 0)
      return fail("cannot join the multicast group " + options.group + " on " +
                  (options.interface_address.empty() ? std::string("any interface") : options.interface_address) +
                  ": " + net::ErrorText(errno));
  }
  if (::pipe2(wake_, O_CLOEXEC) != 0) return fail("cannot make a wake-up pipe: " + net::ErrorText(errno));
  Reset();
  thread_ = std::thread(&StreamMonitor::Run, this);
  return true;
}

void StreamMonitor::Stop() {
  if (thread_.joinable()) {
    const char byte = 0;
    [[maybe_unused]] const ssize_t n = ::write(wake_[1], &byte, 1);
    thread_.join();
  }
  for (int* fd : {&fd_, &wake_[0], &wake_[1]}) {
    if (*fd >= 0) ::close(*fd);
    *fd = -1;
  }
  StopRecording();
}

void StreamMonitor::Reset() {
  std::lock_guard<std::mutex> lock(mu_);
  started_ = tick_ = Clock::now();
  last_arrival_ = {};
  datagrams_ = bytes_ = tick_datagrams_ = tick_bytes_ = 0;
  senders_.clear();
  size_counts_.assign(kDatagramMax, 0);
  size_min_ = size_max_ = 0;
  last_time_ns_ = 0;
  last_interval_ns_ = -1;
  jitter_ns_ = 0;
  longest_gap_ns_ = 0;
  drops_ = 0;
  rate_datagrams_ = rate_mbit_ = 0;
}

bool StreamMonitor::StartRecording(const std::string& file, const PcapRecorder::Limits& limits, std::string* error) {
  auto recorder = PcapRecorder::Open(file, limits, error);
  if (!recorder) return false;
  std::lock_guard<std::mutex> lock(mu_);
  recorder_ = std::move(recorder);
  recording_file_ = file;
  recording_stopped_.clear();
  recorded_ = 0;
  return true;
}

void StreamMonitor::StopRecording() {
  std::unique_ptr<PcapRecorder> done;
  {
    std::lock_guard<std::mutex> lock(mu_);
    done = std::move(recorder_);
    if (done && recording_stopped_.empty()) recording_stopped_ = "ended";
  }
  if (done) done->Flush();
}

void StreamMonitor::Count(const Arrival& a) {
  ++datagrams_;
  bytes_ += a.size;
  last_arrival_ = Clock::now();
  auto it = std::find_if(senders_.begin(), senders_.end(),
                         [&](const StreamSender& s) { return s.address == a.from_address && s.port == a.from_port; });
  if (it == senders_.end()) it = senders_.insert(senders_.end(), StreamSender{a.from_address, a.from_port, 0, 0});
  ++it->datagrams;
  ++size_counts_[std::min<size_t>(a.size, kDatagramMax - 1)];
  size_min_ = datagrams_ == 1 ? a.size : std::min(size_min_, a.size);
  size_max_ = std::max(size_max_, a.size);
  if (datagrams_ > 1) {
    const int64_t interval = std::max<int64_t>(0, a.time_ns - last_time_ns_);
    longest_gap_ns_ = std::max(longest_gap_ns_, interval);
    if (last_interval_ns_ >= 0) {
      // Smoothed as RTP receivers do, so one late datagram does not swamp the figure.
      const double d = static_cast<double>(std::llabs(interval - last_interval_ns_));
      jitter_ns_ += (d - jitter_ns_) / 16.0;
    }
    last_interval_ns_ = interval;
  }
  last_time_ns_ = a.time_ns;
  if (recorder_ && recording_stopped_.empty() &&
      !recorder_->Write(a.from_address, a.from_port, a.to_address, port_, a.time_ns, a.data, a.size))
    recording_stopped_ = recorder_->stopped();
  if (recorder_) recorded_ = recorder_->records();
}

void StreamMonitor::Tick(Clock::time_point now) {
  std::lock_guard<std::mutex> lock(mu_);
  const double s = Seconds(now - tick_);
  if (s < 1.0) return;
  rate_datagrams_ = static_cast<double>(datagrams_ - tick_datagrams_) / s;
  rate_mbit_ = static_cast<double>(bytes_ - tick_bytes_) * 8.0 / s / 1e6;
  tick_ = now;
  tick_datagrams_ = datagrams_;
  tick_bytes_ = bytes_;
  // A recording reaches the disk at least once a second, and a full disk shows up then.
  if (recorder_ && recording_stopped_.empty() && !recorder_->Flush()) recording_stopped_ = recorder_->stopped();
}

void StreamMonitor::Run() {
  struct Slot {
    uint8_t data[kDatagramMax];
    sockaddr_in from;
    iovec iov;
    alignas(cmsghdr) uint8_t control[256];
  };
  std::vector<Slot> slots(kBatch);
  std::vector<mmsghdr> msgs(kBatch);
  pollfd fds[2] = {{fd_, POLLIN, 0}, {wake_[0], POLLIN, 0}};
  for (;;) {
    const int ready = ::poll(fds, 2, kPollMs);
    if (ready > 0 && (fds[1].revents & POLLIN)) return;
    Tick(Clock::now());
    if (ready <= 0) continue;
    // Drains what is queued, a batch per call, before waiting again.
    for (;;) {
      for (size_t i = 0; i < kBatch; ++i) {
        Slot& s = slots[i];
        s.iov = {s.data, sizeof(s.data)};
        msgs[i].msg_hdr = {};
        msgs[i].msg_hdr.msg_name = &s.from;
        msgs[i].msg_hdr.msg_namelen = sizeof(s.from);
        msgs[i].msg_hdr.msg_iov = &s.iov;
        msgs[i].msg_hdr.msg_iovlen = 1;
        msgs[i].msg_hdr.msg_control = s.control;
        msgs[i].msg_hdr.msg_controllen = sizeof(s.control);
      }
      const int n = ::recvmmsg(fd_, msgs.data(), kBatch, MSG_DONTWAIT, nullptr);
      if (n <= 0) break;
      const int64_t fallback_ns = WallNs();
      std::lock_guard<std::mutex> lock(mu_);
      for (int i = 0; i < n; ++i) {
        Slot& s = slots[static_cast<size_t>(i)];
        Arrival a{s.from.sin_addr.s_addr,
                  ntohs(s.from.sin_port),
                  0,
                  msgs[static_cast<size_t>(i)].msg_len,
                  fallback_ns,
                  s.data};
        msghdr& h = msgs[static_cast<size_t>(i)].msg_hdr;
        for (cmsghdr* c = CMSG_FIRSTHDR(&h); c; c = CMSG_NXTHDR(&h, c)) {
          if (c->cmsg_level == SOL_SOCKET && c->cmsg_type == SO_RXQ_OVFL) {
            uint32_t dropped = 0;
            std::memcpy(&dropped, CMSG_DATA(c), sizeof(dropped));
            drops_ = dropped;  // the socket's running total
          } else if (c->cmsg_level == SOL_SOCKET && c->cmsg_type == SO_TIMESTAMPNS) {
            timespec ts{};
            std::memcpy(&ts, CMSG_DATA(c), sizeof(ts));
            a.time_ns = static_cast<int64_t>(ts.tv_sec) * 1000000000 + ts.tv_nsec;
          } else if (c->cmsg_level == IPPROTO_IP && c->cmsg_type == IP_PKTINFO) {
            in_pktinfo info{};
            std::memcpy(&info, CMSG_DATA(c), sizeof(info));
            a.to_address = info.ipi_addr.s_addr;
          }
        }
        Count(a);
      }
      if (n < static_cast<int>(kBatch)) break;
    }
  }
}

StreamFigures StreamMonitor::Figures() const {
  StreamFigures f;
  const auto now = Clock::now();
  std::lock_guard<std::mutex> lock(mu_);
  f.port = port_;
  f.group = options_.group;
  f.datagrams = datagrams_;
  f.bytes = bytes_;
  f.datagrams_per_s = rate_datagrams_;
  f.mbit_per_s = rate_mbit_;
  f.senders = senders_;
  for (auto& s : f.senders) s.share = datagrams_ ? static_cast<double>(s.datagrams) / datagrams_ : 0;
  std::stable_sort(f.senders.begin(), f.senders.end(),
                   [](const StreamSender& a, const StreamSender& b) { return a.datagrams > b.datagrams; });
  f.size_min = size_min_;
  f.size_max = size_max_;
  if (datagrams_ > 0) {
    // The lower median: the size of datagram number ceil(n/2) in size order.
    uint64_t seen = 0;
    for (uint32_t size = size_min_; size <= size_max_; ++size) {
      seen += size_counts_[size];
      if (seen * 2 >= datagrams_) {
        f.size_median = size;
        break;
      }
    }
  }
  f.jitter_ms = jitter_ns_ / 1e6;
  f.longest_gap_ms = static_cast<double>(longest_gap_ns_) / 1e6;
  if (drops_known_) f.kernel_drops = drops_;
  f.listening_s = Seconds(now - started_);
  f.quiet_s = Seconds(now - (datagrams_ ? last_arrival_ : started_));
  f.silent = f.quiet_s >= std::chrono::duration<double>(options_.quiet_period).count();
  f.recording_file = recording_file_;
  f.recorded = recorded_;
  f.recording_stopped = recording_stopped_;
  return f;
}

}  // namespace quarn::lidar
