#pragma once
// A UDP socket bound to a local port (optionally to one local address and one multicast
// group), from which one reader thread takes the lidar's datagrams.

#include <netinet/in.h>

#include <cstdint>
#include <string>

#include "platform/net.h"
#include "source.h"

namespace quarn::lidar {

class SocketSource : public Source {
 public:
  static constexpr uint32_t kRequestedReceiveBuffer = 400000000;
  static constexpr uint32_t kFinalReceiveBuffer = 26214400;
  static constexpr uint32_t kReceiveTimeoutMs = 20;

  SocketSource(uint16_t port, const std::string& local_address, const std::string& multicast_group);
  ~SocketSource() override;

  SocketSource(const SocketSource&) = delete;
  SocketSource& operator=(const SocketSource&) = delete;

  bool Open() override;
  void Close() override;
  bool IsOpened() override;
  // One datagram to the client address; -1 when not open, no client set, or on failure
  // (which also closes the source).
  int Send(const uint8_t* data, uint16_t length, int flags) override;
  // Direct mode: one non-blocking read; nothing there switches to select mode and costs one
  // -1. Select mode: waits `timeout_us`; 0 with packet.timeout set when nothing came.
  // `length` is cut to the packet's buffer.
  int Receive(UdpPacket& packet, uint16_t length, int flags, int timeout_us) override;
  void SetReceiveBufferSize(uint32_t size) override;

  // Where Send goes: a dotted IPv4 address and a port. False (and the previous address
  // kept) when the text is not an address.
  bool SetClientAddress(const std::string& ip, uint16_t port);
  const std::string& ClientIp() const { return client_ip_; }

  uint16_t Port() const { return port_; }
  // The port actually bound (differs from Port() when it was 0), 0 when closed.
  uint16_t BoundPort() const;
  net::socket_t Socket() const { return sock_; }
  bool InSelectMode() const { return select_mode_; }

 private:
  uint16_t port_;
  net::socket_t sock_ = net::kInvalidSocket;
  bool select_mode_ = false;
  std::string multicast_group_;
  std::string client_ip_;
  sockaddr_in client_address_{};
  std::string local_address_;
};

}  // namespace quarn::lidar
