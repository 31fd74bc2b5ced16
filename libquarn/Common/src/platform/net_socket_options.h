#pragma once
// Socket options and readiness waits used by the stream transports' connects and buffers.

#include <cstdint>

#include "platform/net.h"

namespace quarn::lidar::net {

// The error a non-blocking connect ended with (0 = connected). False if it cannot be read.
bool GetPendingError(socket_t s, int& error);
bool GetReceiveBufferSize(socket_t s, uint32_t& size);
bool SetReceiveBufferSize(socket_t s, uint32_t size);
// Segments go out as soon as they are written, not held back for the peer's
// acknowledgement of earlier ones.
bool SetNoDelay(socket_t s);
// Waits until the socket is writable: >0 ready, 0 time-out, <0 error.
int WaitWritable(socket_t s, uint32_t seconds, uint32_t microseconds);
// Waits until the socket has something to read: >0 ready, 0 time-out, <0 error. Any socket
// number works, also those beyond what a select() set can hold.
int WaitReadable(socket_t s, uint32_t microseconds);
// Flags for send() so that a peer that went away gives an error instead of a signal.
int SendFlagsNoSignal();

}  // namespace quarn::lidar::net
