#pragma once
// A data source: something that opens, delivers datagrams or bytes, can send, and closes.
// The UDP socket and the serial port are its two forms.

#include <cstdint>

#include "udp_packet.h"

namespace quarn::lidar {

class Source {
 public:
  virtual ~Source();
  virtual bool Open() = 0;
  virtual void Close();
  virtual bool IsOpened() = 0;
  // Returns the bytes sent, or -1.
  virtual int Send(const uint8_t* data, uint16_t length, int flags) = 0;
  // Returns the bytes received, 0 when `timeout_us` ran out (packet.timeout set), -1 on
  // failure.
  virtual int Receive(UdpPacket& packet, uint16_t length, int flags, int timeout_us) = 0;
  virtual void SetReceiveBufferSize(uint32_t size) = 0;
  // Serial sources only: which of the two baud rates Open uses (0 or 1).
  virtual void SetReceiveType(uint32_t type) {}
  // Serial sources only: whether Open starts the receive thread.
  virtual void SetAutoReceive(bool enabled) {}
  // Serial sources only: drops pending bytes; see SerialSource::Clear.
  virtual int Clear(int what) { return 0; }
};

}  // namespace quarn::lidar
