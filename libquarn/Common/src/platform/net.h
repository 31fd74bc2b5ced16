#pragma once
// The one place that knows how this platform spells sockets. The transports call these
// instead of the system headers' socket control functions, so a Windows build only
// replaces net_posix.cpp (start-up/clean-up become WSAStartup/WSACleanup there).

#include <cstddef>
#include <cstdint>
#include <string>

namespace quarn::lidar::net {

using socket_t = int;
constexpr socket_t kInvalidSocket = -1;

// Network stack start-up and clean-up, paired once per open/close of a transport.
bool Startup();
void Cleanup();
// Start-ups not yet matched by a clean-up, for tests of that pairing.
int StartupBalance();

int CloseSocket(socket_t s);
// Ends both directions of a connected socket: a read blocked on it returns at once, and
// every later read and write fails. The descriptor stays the caller's to close.
bool ShutdownBoth(socket_t s);
bool SetNonBlocking(socket_t s, bool non_blocking);
// Binds `s` to `local_port` on every local address; false when the port cannot be had
// (the system then picks one at connect).
bool BindLocalPort(socket_t s, uint16_t local_port);
// One receive that returns at once (-1 with a would-block error when nothing is there),
// whatever the socket's mode; leaves the mode alone.
int ReceiveNoWait(socket_t s, uint8_t* buffer, size_t length);
// True when a receive now would wait: nothing buffered and the connection neither closed
// nor failed. Takes nothing from the socket.
bool NothingToRead(socket_t s);
bool SetReceiveTimeoutMs(socket_t s, uint32_t ms);
bool SetSendTimeoutMs(socket_t s, uint32_t ms);

// The error of the last failed socket call on this thread.
int LastSocketError();
// Would-block covers "no data yet" on a non-blocking socket and a socket time-out.
bool IsWouldBlock(int err);
bool IsInProgress(int err);
bool IsInterrupted(int err);
// The system's text for an error number; safe to call from any thread, unlike strerror.
std::string ErrorText(int err);

}  // namespace quarn::lidar::net
