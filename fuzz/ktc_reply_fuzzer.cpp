// One KTC exchange of KtcClient over an in-memory stream the fuzzer writes. The first bytes
// choose how the exchange runs; the rest is what the sensor sends:
//   [0] bit 0: frame version 2 (else 1); bit 1: result with header; bit 2: DownloadQuery
//   [1] the command asked for
//   [2] stale bytes x 16 waiting before the request goes out (late bytes of an earlier
//       exchange; the drain must take them)
//   [3] n, then n % 8 + 1 chunk sizes: how the stream is cut into reads
//   the rest: the stream, stale bytes first.
// Beyond memory errors, the checks hold the result to the bytes that arrived: a success
// returns exactly one well-formed reply read to its end, a failure returns only what its
// rule allows, and a well-formed reply at the start of the stream is read.
#include <algorithm>
#include <cstdint>
#include <memory>
#include <vector>

#include "ktc_client.h"
#include "memory_transport.h"

namespace {

using Bytes = std::vector<uint8_t>;

uint32_t BigEndian32(const uint8_t* at) {
  return (uint32_t{at[0]} << 24) | (uint32_t{at[1]} << 16) | (uint32_t{at[2]} << 8) | uint32_t{at[3]};
}

struct Frame {
  size_t header_size;
  uint8_t id0, id1;
  size_t cmd_at, code_at, length_at;
};
constexpr Frame kV1{8, 0x47, 0x74, 2, 3, 4};
constexpr Frame kV2{12, 0x57, 0x75, 3, 4, 8};

// The request as the frame tables lay it out, built here rather than by the encoder.
Bytes Request(const Frame& f, uint8_t cmd, const Bytes& payload) {
  Bytes out(f.header_size, 0);
  out[0] = f.id0;
  out[1] = f.id1;
  if (f.header_size == kV2.header_size) out[2] = 0x01;
  out[f.cmd_at] = cmd;
  out[f.length_at + 3] = static_cast<uint8_t>(payload.size());
  out.insert(out.end(), payload.begin(), payload.end());
  return out;
}

bool IsAcceptedHeader(const Frame& f, const uint8_t* h, uint8_t cmd) {
  return h[0] == f.id0 && h[1] == f.id1 && h[f.cmd_at] == cmd && h[f.code_at] == 0;
}

// `bytes` stand in `stream` at `from`.
bool Same(const Bytes& stream, size_t from, const Bytes& bytes) {
  return from + bytes.size() <= stream.size() &&
         std::equal(bytes.begin(), bytes.end(), stream.begin() + static_cast<std::ptrdiff_t>(from));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 4) return 0;
  const bool v2 = data[0] & 1;
  const bool download = data[0] & 4;
  const bool with_header = !download && (data[0] & 2);
  const uint8_t cmd = data[1];
  size_t at = 3;
  const size_t chunk_count = data[at++] % 8 + 1;
  if (size < at + chunk_count) return 0;
  Bytes chunks(data + at, data + at + chunk_count);
  at += chunk_count;
  const size_t stale_size = std::min<size_t>(size_t{data[2]} * 16, size - at);
  Bytes stale(data + at, data + at + stale_size);
  at += stale_size;
  const Bytes reply(data + at, data + size);

  const Frame& f = v2 ? kV2 : kV1;
  auto transport = std::make_shared<varkel_fuzz::MemoryTransport>(stale, reply, chunks);
  // Long time-outs: the stream ends in a failed read long before any of them could matter.
  quarn::lidar::KtcClient client(transport, v2 ? 2 : 1, 60000, 60000);
  const Bytes payload = {0xAA, 0xBB};
  const Bytes before = {0x5A, 0xA5, 0x5A};  // what the caller's vector held
  Bytes result = before;
  const int ret =
      download ? client.DownloadQuery(payload, result, cmd) : client.QueryCommand(payload, result, cmd, with_header);
  const int code = client.GetLastReturnCode();
  const size_t read = transport->reply_read();
  const size_t hs = f.header_size;
  // A well-formed reply at the start of the stream is read, and no further, however the
  // stream is cut after its identifier pair. (A first read of one byte loses the pair: the
  // hunt looks for it within each read, as the virtual lidar's split-header mode shows.)
  const bool well_formed = transport->first_reply_read() >= 2 && reply.size() >= hs &&
                           IsAcceptedHeader(f, reply.data(), cmd) &&
                           hs + BigEndian32(reply.data() + f.length_at) <= reply.size();
  if (well_formed && (ret != 0 || read != hs + BigEndian32(reply.data() + f.length_at))) __builtin_trap();

  // The request went out whole, once, after every stale byte was drained.
  if (transport->sent().size() != 1 || transport->sent()[0] != Request(f, cmd, payload)) __builtin_trap();
  if (transport->stale_left_at_send() != 0) __builtin_trap();
  if (read > reply.size()) __builtin_trap();

  if (ret == 0) {
    // One accepted header and its whole payload, ending at the last byte read.
    if (read < hs) __builtin_trap();
    bool explained = false;
    if (with_header) {
      if (result.size() >= hs) {
        const uint32_t length = BigEndian32(result.data() + f.length_at);
        explained = IsAcceptedHeader(f, result.data(), cmd) && result.size() == hs + length && read >= result.size() &&
                    Same(reply, read - result.size(), result);
      }
    } else {
      // A payload of length 0 leaves the caller's vector as it was.
      if (result == before) {
        explained = IsAcceptedHeader(f, reply.data() + read - hs, cmd) &&
                    BigEndian32(reply.data() + read - hs + f.length_at) == 0;
      }
      if (!explained && read >= hs + result.size() && !result.empty()) {
        const uint8_t* h = reply.data() + read - result.size() - hs;
        explained = IsAcceptedHeader(f, h, cmd) && BigEndian32(h + f.length_at) == result.size() &&
                    Same(reply, read - result.size(), result);
      }
    }
    if (!explained) __builtin_trap();
    return 0;
  }
  if (ret != -1) __builtin_trap();

  if (code == quarn::lidar::kKtcHeaderReadFailed || code == quarn::lidar::kKtcPayloadReadFailed) {
    // Only the end of the stream ends a read here.
    if (read != reply.size()) __builtin_trap();
    if (with_header && code == quarn::lidar::kKtcHeaderReadFailed) {
      // The header bytes from the identifier pair on, as far as they came.
      if (result.size() >= hs) __builtin_trap();
      if (!result.empty() &&
          (result.size() < 2 || result[0] != f.id0 || result[1] != f.id1 || !Same(reply, read - result.size(), result)))
        __builtin_trap();
    } else if (result != before) {
      __builtin_trap();
    }
  } else {
    // A rejected header: the sensor's code, or 0 for a wrong echoed command.
    if (code < 0 || code > 0xFF || read < hs) __builtin_trap();
    const uint8_t* h = reply.data() + read - hs;
    if (h[0] != f.id0 || h[1] != f.id1 || h[f.code_at] != code || IsAcceptedHeader(f, h, cmd)) __builtin_trap();
    if (with_header ? !Same(reply, read - hs, result) || result.size() != hs : result != before) __builtin_trap();
  }
  return 0;
}
