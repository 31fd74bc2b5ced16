#include "pcap_recorder.h"

#include <arpa/inet.h>
#include <pcap/pcap.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "platform/net.h"

namespace quarn::lidar {
namespace {

constexpr uint32_t kFileHeader = 24;
constexpr uint32_t kRecordHeader = 16;
constexpr uint32_t kIpHeader = 20;
constexpr uint32_t kUdpHeader = 8;
constexpr uint32_t kSnapLength = 65535;

void Put16(uint8_t* p, uint16_t v) {
  p[0] = static_cast<uint8_t>(v >> 8);
  p[1] = static_cast<uint8_t>(v);
}

uint16_t HeaderChecksum(const uint8_t* h) {
  uint32_t sum = 0;
  for (uint32_t i = 0; i < kIpHeader; i += 2) sum += static_cast<uint32_t>(h[i] << 8 | h[i + 1]);
  while (sum >> 16) sum = (sum & 0xFFFF) + (sum >> 16);
  return static_cast<uint16_t>(~sum);
}

}  // namespace

std::unique_ptr<PcapRecorder> PcapRecorder::Open(const std::string& file, const Limits& limits, std::string* error) {
  std::unique_ptr<PcapRecorder> r(new PcapRecorder());
  r->file_ = file;
  r->limits_ = limits;
  r->handle_ = pcap_open_dead_with_tstamp_precision(DLT_RAW, kSnapLength, PCAP_TSTAMP_PRECISION_MICRO);
  if (!r->handle_) {
    if (error) *error = "cannot start a pcap recording";
    return nullptr;
  }
  errno = 0;
  r->dumper_ = pcap_dump_open(r->handle_, file.c_str());
  if (!r->dumper_) {
    if (error) *error = "cannot write " + file + ": " + pcap_geterr(r->handle_);
    return nullptr;
  }
  r->bytes_ = kFileHeader;
  return r;
}

PcapRecorder::~PcapRecorder() {
  if (dumper_) pcap_dump_close(dumper_);
  if (handle_) pcap_close(handle_);
}

void PcapRecorder::Finish(const std::string& why) {
  if (!stopped_.empty()) return;
  stopped_ = why;
  if (dumper_) {
    if (pcap_dump_flush(dumper_) != 0 && why.find("cannot write") == std::string::npos)
      stopped_ = "cannot write " + file_ + ": " + net::ErrorText(errno);
    pcap_dump_close(dumper_);
    dumper_ = nullptr;
  }
}

bool PcapRecorder::Write(uint32_t from_address, uint16_t from_port, uint32_t to_address, uint16_t to_port,
                         int64_t time_ns, const uint8_t* data, uint32_t size) {
  if (!dumper_) return false;
  if (first_ns_ < 0) first_ns_ = time_ns;
  if (limits_.max_seconds > 0 && static_cast<double>(time_ns - first_ns_) / 1e9 >= limits_.max_seconds) {
    Finish("the time limit was reached");
    return false;
  }
  const uint32_t wire = kIpHeader + kUdpHeader + size;
  const uint32_t caplen = wire < kSnapLength ? wire : kSnapLength;
  if (limits_.max_bytes > 0 && bytes_ + kRecordHeader + caplen > limits_.max_bytes) {
    Finish("the size limit was reached");
    return false;
  }
  uint8_t frame[kSnapLength];
  uint8_t* ip = frame;
  std::memset(ip, 0, kIpHeader + kUdpHeader);
  ip[0] = 0x45;
  Put16(ip + 2, static_cast<uint16_t>(wire > 0xFFFF ? 0xFFFF : wire));
  Put16(ip + 4, ip_id_++);
  ip[8] = 64;  // TTL
  ip[9] = 17;  // UDP
  std::memcpy(ip + 12, &from_address, 4);
  std::memcpy(ip + 16, &to_address, 4);
  Put16(ip + 10, HeaderChecksum(ip));
  uint8_t* udp = ip + kIpHeader;
  Put16(udp, from_port);
  Put16(udp + 2, to_port);
  Put16(udp + 4, static_cast<uint16_t>(kUdpHeader + size));
  // Checksum 0: "not computed", which IPv4 allows.
  std::memcpy(udp + kUdpHeader, data, caplen - kIpHeader - kUdpHeader);

  pcap_pkthdr h{};
  h.ts.tv_sec = static_cast<time_t>(time_ns / 1000000000);
  h.ts.tv_usec = static_cast<suseconds_t>((time_ns % 1000000000) / 1000);
  h.caplen = caplen;
  h.len = wire;
  pcap_dump(reinterpret_cast<u_char*>(dumper_), &h, frame);
  if (std::ferror(pcap_dump_file(dumper_))) {
    Finish("cannot write " + file_ + ": " + net::ErrorText(errno));
    return false;
  }
  bytes_ += kRecordHeader + caplen;
  ++records_;
  return true;
}

bool PcapRecorder::Flush() {
  if (!dumper_) return false;
  if (pcap_dump_flush(dumper_) != 0) {
    Finish("cannot write " + file_ + ": " + net::ErrorText(errno));
    return false;
  }
  return true;
}

}  // namespace quarn::lidar
