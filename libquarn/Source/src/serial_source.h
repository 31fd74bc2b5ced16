#pragma once
// A serial port as a data source. Bytes from the port are split into reply frames
// ("$LDCMD,"/"$LDOTA,") and streamed data; each goes into its own ring, so a command
// reply is never lost among points and a reader only ever sees whole frames. With
// auto-receive on, a receive thread does the splitting; with it off, the readers do it
// themselves while they wait.

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "frame_assembler.h"
#include "packet_ring.h"
#include "serial_port.h"
#include "source.h"

namespace quarn::lidar {

class SerialSource : public Source {
 public:
  static constexpr size_t kReplyRingSlots = 10;
  static constexpr size_t kDataRingSlots = 8000;
  // Clear() bits: 2 drops pending input (what a command exchange asks for), 1 pending output.
  static constexpr int kClearOutput = 1;
  static constexpr int kClearInput = 2;

  // `baud_rate_type1` is used when the receive type is 1, `baud_rate_type0` when it is 0.
  SerialSource(const std::string& port_name, uint32_t baud_rate_type1, uint32_t baud_rate_type0);
  ~SerialSource() override;

  SerialSource(const SerialSource&) = delete;
  SerialSource& operator=(const SerialSource&) = delete;

  // Opens the port at the rate of the receive type and, with auto-receive on, starts the
  // receive thread. False for an unknown receive type or a port that will not open.
  bool Open() override;
  // Stops and joins the receive thread, wakes every waiting reader (they get -1) and
  // closes the port. Safe to call at any time, any number of times.
  void Close() override;
  // False before Open, after Close and once the device has gone.
  bool IsOpened() override;
  // Writes in one go within 50 ms + 1 ms per byte: bytes written, or -1.
  int Send(const uint8_t* data, uint16_t length, int flags) override;
  // One run of streamed data (at most 1500 bytes, `flags` unused): the byte count, 0 when
  // `timeout_us` ran out (packet.timeout set), -1 when closed or the device has gone.
  int Receive(UdpPacket& packet, uint16_t length, int flags, int timeout_us) override;
  // One whole reply frame, cut to `length`: the byte count, 0 when nothing whole came
  // within `timeout_ms`, -1 when not open, closed meanwhile or the device has gone.
  int Receive(uint8_t* buffer, uint32_t length, uint32_t timeout_ms);
  // One run of streamed data; results as Receive.
  int ReceiveData(uint8_t* buffer, uint32_t length, uint32_t timeout_ms);
  // The rings have a fixed size and the serial library offers no driver buffer size, so
  // there is nothing to set; kept for the Source interface.
  void SetReceiveBufferSize(uint32_t size) override;
  // Takes effect at the next Open.
  void SetReceiveType(uint32_t type) override;
  void SetAutoReceive(bool enabled) override;
  // kClearInput: drops the port's pending input, a half-assembled frame and replies not
  // yet read (streamed data stays). kClearOutput: drops unsent output. 0, or -1 when not open.
  int Clear(int what) override;

  const std::string& PortName() const { return port_name_; }
  uint32_t ReceiveType() const { return receive_type_.load(); }
  bool AutoReceive() const { return auto_receive_.load(); }
  // The rate the port was opened at, 0 when closed.
  uint32_t OpenBaudRate() const { return open_baud_rate_.load(); }
  bool DeviceLost() const { return device_lost_.load(); }
  uint64_t DroppedDataRuns() const { return data_ring_.Overwritten(); }

 private:
  int OpenPort(uint32_t baud_rate);
  void CloseLocked();
  void ReceiveLoop();
  // Waits up to `slice_ms` for bytes and feeds them to the assembler: -1 when the device
  // failed (already reported), otherwise 0.
  int PumpOnce(uint32_t slice_ms);
  int Take(PacketRing& ring, uint8_t* out, size_t capacity, std::chrono::steady_clock::time_point deadline);
  void ReportLost(const char* where, const std::string& why);
  // Direct readers and writers register while they use the port, so Close can wait them out.
  bool EnterPortUse();
  void LeavePortUse();

  const std::string port_name_;
  const uint32_t baud_rate_type1_;
  const uint32_t baud_rate_type0_;
  std::atomic<uint32_t> receive_type_{0};
  std::atomic<bool> auto_receive_{true};
  std::atomic<bool> running_{false};
  std::atomic<bool> opened_{false};
  std::atomic<bool> closing_{true};
  std::atomic<bool> device_lost_{false};
  std::atomic<uint32_t> open_baud_rate_{0};

  std::mutex state_mutex_;      // Open against Close
  std::mutex assembler_mutex_;  // the assembler, reads from the port, Clear
  std::mutex write_mutex_;      // one write at a time
  std::mutex users_mutex_;
  std::condition_variable users_done_;
  int port_users_ = 0;
  std::unique_ptr<SerialPort> port_;
  std::thread receive_thread_;
  std::atomic<bool> thread_mode_{false};

  PacketRing reply_ring_;
  PacketRing data_ring_;
  FrameAssembler assembler_;
  std::vector<uint8_t> read_buffer_;
  std::chrono::steady_clock::time_point last_byte_time_;
};

}  // namespace quarn::lidar
