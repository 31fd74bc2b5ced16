// Real serial adapters through libserialport.
#include <libserialport.h>

#include "platform/serial_port_name.h"
#include "serial_port.h"

namespace quarn::lidar {
namespace {

class LibSerialPort final : public SerialPort {
 public:
  ~LibSerialPort() override { Close(); }

  int Open(const std::string& name, uint32_t baud_rate) override {
    Close();
    const std::string native = serial_platform::NativePortName(name);
    if (sp_get_port_by_name(native.c_str(), &port_) != SP_OK) {
      Fail("no such serial port");
      port_ = nullptr;
      return -1;
    }
    if (sp_open(port_, SP_MODE_READ_WRITE) != SP_OK) {
      Fail("open failed");
      sp_free_port(port_);
      port_ = nullptr;
      return -1;
    }
    // Rates such as 3000000 or 3125000 are the adapter's to accept or refuse.
    if (sp_set_baudrate(port_, static_cast<int>(baud_rate)) != SP_OK || sp_set_bits(port_, 8) != SP_OK ||
        sp_set_parity(port_, SP_PARITY_NONE) != SP_OK || sp_set_stopbits(port_, 1) != SP_OK ||
        sp_set_flowcontrol(port_, SP_FLOWCONTROL_NONE) != SP_OK) {
      Fail("line settings refused");
      Close();
      return -1;
    }
    SetLastError({});
    return 0;
  }

  void Close() override {
    if (events_ != nullptr) {
      sp_free_event_set(events_);
      events_ = nullptr;
    }
    if (port_ == nullptr) return;
    sp_close(port_);
    sp_free_port(port_);
    port_ = nullptr;
  }

  bool IsOpen() const override { return port_ != nullptr; }

  int WaitReadable(uint32_t timeout_ms) override {
    if (port_ == nullptr) return -1;
    if (events_ == nullptr) {
      if (sp_new_event_set(&events_) != SP_OK ||
          sp_add_port_events(events_, port_, static_cast<sp_event>(SP_EVENT_RX_READY | SP_EVENT_ERROR)) != SP_OK) {
        Fail("wait set-up failed");
        return -1;
      }
    }
    // A zero time-out means "forever" to the library. The wait does not say whether it
    // timed out; ReadAvailable tells.
    if (sp_wait(events_, timeout_ms == 0 ? 1 : timeout_ms) != SP_OK) {
      Fail("wait failed");
      return -1;
    }
    return 1;
  }

  int ReadAvailable(uint8_t* out, size_t capacity) override {
    if (port_ == nullptr) return -1;
    const sp_return r = sp_nonblocking_read(port_, out, capacity);
    if (r < 0) {
      Fail("read failed");
      return -1;
    }
    return static_cast<int>(r);
  }

  int Write(const uint8_t* data, size_t length, uint32_t timeout_ms) override {
    if (port_ == nullptr) return -1;
    const sp_return r = sp_blocking_write(port_, data, length, timeout_ms == 0 ? 1 : timeout_ms);
    if (r < 0) {
      Fail("write failed");
      return -1;
    }
    return static_cast<int>(r);
  }

  bool FlushInput() override { return port_ != nullptr && sp_flush(port_, SP_BUF_INPUT) == SP_OK; }
  bool FlushOutput() override { return port_ != nullptr && sp_flush(port_, SP_BUF_OUTPUT) == SP_OK; }

 private:
  void Fail(const char* what) {
    char* message = sp_last_error_message();
    SetLastError(std::string(what) + ": " + (message != nullptr ? message : "unknown"));
    if (message != nullptr) sp_free_error_message(message);
  }

  sp_port* port_ = nullptr;
  sp_event_set* events_ = nullptr;
};

}  // namespace

std::unique_ptr<SerialPort> MakeLibSerialPort() {
  return std::make_unique<LibSerialPort>();
}

std::unique_ptr<SerialPort> MakeSerialPort(const std::string& name) {
#ifdef __linux__
  if (serial_platform::IsPseudoTerminal(name)) return MakeTerminalSerialPort();
#endif
  return MakeLibSerialPort();
}

}  // namespace quarn::lidar
