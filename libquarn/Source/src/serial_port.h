#pragma once
// One open serial line, as the serial source needs it. Two variants: the serial library
// for real adapters, and a plain terminal-device one for pseudo-terminals (virtual
// sensors), which the library refuses because they carry no modem lines.

#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>

namespace quarn::lidar {

class SerialPort {
 public:
  virtual ~SerialPort() = default;

  // Opens `name` as given, read and write, 8 data bits, no parity, one stop bit, no flow
  // control, at `baud_rate`. 0 on success; -1 when the port cannot be opened or its line
  // settings are refused (the port is closed again then). The reason is in LastError().
  virtual int Open(const std::string& name, uint32_t baud_rate) = 0;
  virtual void Close() = 0;
  virtual bool IsOpen() const = 0;

  // Waits up to `timeout_ms` (at least 1) for bytes to arrive: 1 when some may be there,
  // 0 on time-out, -1 when the wait itself failed. Reading is a separate step so that the
  // caller can take its own lock between the wait and the read.
  virtual int WaitReadable(uint32_t timeout_ms) = 0;
  // Takes what has arrived, at most `capacity`, without waiting: the byte count (0 when
  // nothing is there), or -1 when the line failed or the device is gone.
  virtual int ReadAvailable(uint8_t* out, size_t capacity) = 0;
  // Writes within `timeout_ms`: the bytes written (fewer on time-out), or -1 on failure.
  virtual int Write(const uint8_t* data, size_t length, uint32_t timeout_ms) = 0;
  // Drops bytes received and not yet read.
  virtual bool FlushInput() = 0;
  virtual bool FlushOutput() = 0;

  // The reason of the last failure. Readers, the writer and the receive thread may each
  // fail at once when a device goes, hence the lock.
  std::string LastError() const {
    std::lock_guard<std::mutex> lock(error_mutex_);
    return last_error_;
  }

 protected:
  void SetLastError(std::string text) {
    std::lock_guard<std::mutex> lock(error_mutex_);
    last_error_ = std::move(text);
  }

 private:
  mutable std::mutex error_mutex_;
  std::string last_error_;
};

// The variant for this port name (pseudo-terminals get the terminal-device one).
std::unique_ptr<SerialPort> MakeSerialPort(const std::string& name);
std::unique_ptr<SerialPort> MakeLibSerialPort();
#ifdef __linux__
std::unique_ptr<SerialPort> MakeTerminalSerialPort();
#endif

}  // namespace quarn::lidar
