#include "serial_source.h"

#include <algorithm>
#include <cstring>

#include "logger.h"

namespace quarn::lidar {
namespace {

using Clock = std::chrono::steady_clock;

// How long one wait on the port lasts before the running flag is looked at again.
constexpr uint32_t kReadSliceMs = 5;
// A line quiet this long ends a frame whose length byte promised more than came.
constexpr auto kIdleGap = std::chrono::milliseconds(20);

}  // namespace

SerialSource::SerialSource(const std::string& port_name, uint32_t baud_rate_type1, uint32_t baud_rate_type0)
    : port_name_(port_name),
      baud_rate_type1_(baud_rate_type1),
      baud_rate_type0_(baud_rate_type0),
      reply_ring_(kReplyRingSlots),
      data_ring_(kDataRingSlots),
      read_buffer_(FrameAssembler::kWorkBufferSize) {}

SerialSource::~SerialSource() {
  Close();
}

void SerialSource::SetReceiveType(uint32_t type) {
  receive_type_.store(type);
}
void SerialSource::SetAutoReceive(bool enabled) {
  auto_receive_.store(enabled);
}
void SerialSource::SetReceiveBufferSize(uint32_t /*size*/) {}

int SerialSource::OpenPort(uint32_t baud_rate) {
  auto port = MakeSerialPort(port_name_);
  if (port->Open(port_name_, baud_rate) != 0) {
    LOG_ERROR("SerialSource::Open(), port %s at %u baud: %s", port_name_.c_str(), baud_rate, port->LastError().c_str());
    return -1;
  }
  std::lock_guard<std::mutex> lock(assembler_mutex_);
  port_ = std::move(port);
  return 0;
}

bool SerialSource::Open() {
  std::lock_guard<std::mutex> state(state_mutex_);
  if (opened_.load() && !device_lost_.load()) return true;
  // A device that went away leaves its handle behind until the next Open or Close.
  if (port_ != nullptr) CloseLocked();
  uint32_t baud_rate = 0;
  switch (receive_type_.load()) {
    case 0:
      baud_rate = baud_rate_type0_;
      break;
    case 1:
      baud_rate = baud_rate_type1_;
      break;
    default:
      LOG_ERROR("not support receiveStype, open error");
      return false;
  }
  if (OpenPort(baud_rate) != 0) return false;

  {
    std::lock_guard<std::mutex> lock(assembler_mutex_);
    assembler_.Reset();
    last_byte_time_ = Clock::now();
  }
  reply_ring_.Reopen();
  data_ring_.Reopen();
  device_lost_.store(false);
  open_baud_rate_.store(baud_rate);
  thread_mode_.store(auto_receive_.load());
  closing_.store(false);
  opened_.store(true);
  LOG_PROGRESS("SerialSource::Open(), port %s at %u baud, receive thread %s", port_name_.c_str(), baud_rate,
               thread_mode_.load() ? "on" : "off");
  if (thread_mode_.load()) {
    running_.store(true);
    receive_thread_ = std::thread(&SerialSource::ReceiveLoop, this);
  }
  return true;
}

void SerialSource::Close() {
  std::lock_guard<std::mutex> state(state_mutex_);
  CloseLocked();
}

void SerialSource::CloseLocked() {
  closing_.store(true);
  opened_.store(false);
  running_.store(false);
  reply_ring_.Shutdown();
  data_ring_.Shutdown();
  if (receive_thread_.joinable()) receive_thread_.join();
  {
    // Readers and writers in the middle of a port call finish it (one slice at most).
    std::unique_lock<std::mutex> lock(users_mutex_);
    users_done_.wait(lock, [this] { return port_users_ == 0; });
  }
  std::lock_guard<std::mutex> io(assembler_mutex_);
  if (port_ != nullptr) {
    port_->Close();
    port_.reset();
    LOG_PROGRESS("SerialSource::Close(), port %s", port_name_.c_str());
  }
  open_baud_rate_.store(0);
}

bool SerialSource::IsOpened() {
  return opened_.load() && !device_lost_.load();
}

void SerialSource::ReportLost(const char* where, const std::string& why) {
  if (device_lost_.exchange(true)) return;
  LOG_ERROR("SerialSource %s, port %s: %s", where, port_name_.c_str(), why.c_str());
  reply_ring_.Shutdown();
  data_ring_.Shutdown();
}

int SerialSource::PumpOnce(uint32_t slice_ms) {
  // The wait runs without the lock so that Clear and Close are never held up by it; the
  // read and the feed run under it, so that Clear cuts cleanly between old and new bytes.
  if (port_->WaitReadable(slice_ms) < 0) {
    ReportLost(thread_mode_.load() ? "receive thread ended" : "read failed", port_->LastError());
    return -1;
  }
  std::lock_guard<std::mutex> lock(assembler_mutex_);
  if (closing_.load()) return 0;
  const int n = port_->ReadAvailable(read_buffer_.data(), read_buffer_.size());
  if (n < 0) {
    ReportLost(thread_mode_.load() ? "receive thread ended" : "read failed", port_->LastError());
    return -1;
  }
  const FrameAssembler::Sink sink = [this](FrameAssembler::Kind kind, const uint8_t* data, size_t length) {
    (kind == FrameAssembler::Kind::kFrame ? reply_ring_ : data_ring_).Push(data, length);
  };
  const auto now = Clock::now();
  if (n > 0) {
    assembler_.Feed(read_buffer_.data(), static_cast<size_t>(n), sink);
    last_byte_time_ = now;
  } else if (assembler_.Pending() != 0 && now - last_byte_time_ >= kIdleGap) {
    assembler_.Idle(sink);
  }
  return 0;
}

void SerialSource::ReceiveLoop() {
  while (running_.load()) {
    if (PumpOnce(kReadSliceMs) < 0) return;
  }
}

bool SerialSource::EnterPortUse() {
  std::lock_guard<std::mutex> lock(users_mutex_);
  if (closing_.load() || device_lost_.load()) return false;
  ++port_users_;
  return true;
}

void SerialSource::LeavePortUse() {
  {
    std::lock_guard<std::mutex> lock(users_mutex_);
    --port_users_;
  }
  users_done_.notify_all();
}

int SerialSource::Take(PacketRing& ring, uint8_t* out, size_t capacity, Clock::time_point deadline) {
  if (!IsOpened()) return -1;
  if (thread_mode_.load()) return ring.Pop(out, capacity, deadline);
  // Without a receive thread the reader drives the port itself, in short slices, so that
  // Close never waits longer than one slice.
  for (;;) {
    const int n = ring.TryPop(out, capacity);
    if (n > 0) return n;
    const auto now = Clock::now();
    if (now >= deadline) return 0;
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - now).count();
    if (!EnterPortUse()) return -1;
    const int pumped = PumpOnce(static_cast<uint32_t>(std::min<long long>(left, kReadSliceMs)));
    LeavePortUse();
    if (pumped < 0) return -1;
  }
}

int SerialSource::Receive(uint8_t* buffer, uint32_t length, uint32_t timeout_ms) {
  return Take(reply_ring_, buffer, length, Clock::now() + std::chrono::milliseconds(timeout_ms));
}

int SerialSource::ReceiveData(uint8_t* buffer, uint32_t length, uint32_t timeout_ms) {
  return Take(data_ring_, buffer, length, Clock::now() + std::chrono::milliseconds(timeout_ms));
}

int SerialSource::Receive(UdpPacket& packet, uint16_t length, int /*flags*/, int timeout_us) {
  packet.timeout = false;
  packet.sender_ip = 0;
  packet.sender_port = 0;
  const auto wait = std::chrono::microseconds(std::max(timeout_us, 0));
  const int n = Take(data_ring_, packet.data, std::min<size_t>(length, sizeof(packet.data)), Clock::now() + wait);
  if (n == 0) packet.timeout = true;
  return n;
}

int SerialSource::Send(const uint8_t* data, uint16_t length, int /*flags*/) {
  if (!IsOpened() || data == nullptr) return -1;
  std::lock_guard<std::mutex> writing(write_mutex_);
  if (!EnterPortUse()) return -1;
  // The line's own write budget: 50 ms plus 1 ms per byte.
  const int n = port_->Write(data, length, 50u + length);
  if (n < 0) LOG_ERROR("SerialSource::Send, port %s: %s", port_name_.c_str(), port_->LastError().c_str());
  LeavePortUse();
  return n;
}

int SerialSource::Clear(int what) {
  if (!IsOpened()) return -1;
  std::lock_guard<std::mutex> lock(assembler_mutex_);
  if (closing_.load() || port_ == nullptr) return -1;
  if ((what & kClearInput) != 0) {
    port_->FlushInput();
    assembler_.Reset();
    reply_ring_.Clear();
  }
  if ((what & kClearOutput) != 0) port_->FlushOutput();
  return 0;
}

}  // namespace quarn::lidar
