#pragma once
// Writes datagrams to a pcap file that standard capture tools open: raw IPv4 frames, each
// an IPv4 and a UDP header made up around the payload with its real sender, its port and
// its arrival time.

#include <cstdint>
#include <memory>
#include <string>

struct pcap;
struct pcap_dumper;

namespace quarn::lidar {

class PcapRecorder {
 public:
  struct Limits {
    uint64_t max_bytes = 0;  // size of the file; 0: no bound
    double max_seconds = 0;  // since the first datagram; 0: no bound
  };

  // nullptr with the reason when the file cannot be made.
  static std::unique_ptr<PcapRecorder> Open(const std::string& file, const Limits& limits, std::string* error);
  ~PcapRecorder();
  PcapRecorder(const PcapRecorder&) = delete;
  PcapRecorder& operator=(const PcapRecorder&) = delete;

  // Addresses in network order, ports in host order, time on the wall clock. False once
  // the recording has stopped (a bound reached or a write failed); stopped() says why.
  bool Write(uint32_t from_address, uint16_t from_port, uint32_t to_address, uint16_t to_port, int64_t time_ns,
             const uint8_t* data, uint32_t size);
  // Flushes; a failure stops the recording like a failed write.
  bool Flush();
  const std::string& stopped() const { return stopped_; }
  uint64_t records() const { return records_; }
  uint64_t file_bytes() const { return bytes_; }

 private:
  PcapRecorder() = default;
  void Finish(const std::string& why);

  pcap* handle_ = nullptr;
  pcap_dumper* dumper_ = nullptr;
  std::string file_;
  Limits limits_;
  uint64_t bytes_ = 0;
  uint64_t records_ = 0;
  int64_t first_ns_ = -1;
  uint16_t ip_id_ = 0;
  std::string stopped_;
};

}  // namespace quarn::lidar
