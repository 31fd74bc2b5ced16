// The serial line's receive path on bytes the fuzzer writes: the frame assembler cuts the
// stream, the reply check judges each frame, and the small sensors' reply parsers read
// each body that passes (and the raw bytes too, as a KTC link hands them over unchecked).
//   [0] n, then n % 8 + 1 cut bytes: low 7 bits + 1 = bytes per feed, bit 7 = the line
//       goes quiet after that feed
//   the rest: the stream.
#include <algorithm>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "frame_assembler.h"
#include "serial_frame.h"
#include "small_sensor_messages.h"

namespace {

using Bytes = std::vector<uint8_t>;
namespace ss = quarn::lidar::small_sensor;

bool StartsWithTag(const uint8_t* p, size_t n) {
  return n >= quarn::lidar::kSerialTagSize &&
         (std::memcmp(p, quarn::lidar::kCommandTag, 7) == 0 || std::memcmp(p, quarn::lidar::kOtaTag, 7) == 0);
}

// A checked reply: the body is the frame between tag and nonce, its length byte telling
// how many bytes follow the command code.
void CheckReplyBoth(const uint8_t* p, size_t n) {
  for (int kind : {quarn::lidar::kReplyCheckCommand, quarn::lidar::kReplyCheckOta}) {
    Bytes body = {1, 2, 3};
    if (!quarn::lidar::CheckReply(kind, p, n, body)) {
      if (!body.empty()) __builtin_trap();
      continue;
    }
    if (n < quarn::lidar::kMinSerialReplySize || p[n - 2] != 0xEE || p[n - 1] != 0xFF) __builtin_trap();
    if (body.size() != n - 17 || body.size() != size_t{body[0]} + 2) __builtin_trap();
    if (std::memcmp(body.data(), p + 7, body.size()) != 0) __builtin_trap();
  }
}

bool DottedQuad(const std::string& text) {
  int parts = 1, digits = 0;
  for (char c : text) {
    if (c == '.') {
      if (digits == 0) return false;
      ++parts;
      digits = 0;
    } else if (c >= '0' && c <= '9' && ++digits <= 3) {
    } else {
      return false;
    }
  }
  return parts == 4 && digits != 0;
}

bool StatusOrShape(int status) {
  return status == ss::kBadShape || (status >= 0 && status <= 0xFF);
}

// Every reply parser on `body`, holding each to the shape its table row gives.
void ParseBody(const Bytes& body) {
  if (auto piece = ss::ParseCorrectionPiece(body)) {
    if (piece->pieces == 0 || piece->data.size() > 250 || body.size() != piece->data.size() + 6) __builtin_trap();
    if (!std::equal(piece->data.begin(), piece->data.end(), body.begin() + 5)) __builtin_trap();
  }
  if (auto safety = ss::ParseSafety(body)) {
    if (safety->faults.size() > (body.size() - 5) / 2) __builtin_trap();
    for (uint16_t code : safety->faults) {
      const std::string text = ss::FaultCodeText(code);
      if (code == 0 || text.size() < 4 || text.compare(0, 2, "0x") != 0) __builtin_trap();
    }
    if (ss::SafetyStateText(safety->state).empty()) __builtin_trap();
  }
  if (auto serial = ss::ParseSerialNumber(body)) {
    if (serial->size() > 16 || serial->find('\0') != std::string::npos) __builtin_trap();
    if (ss::ValidSerialNumber(*serial) && serial->empty()) __builtin_trap();
  }
  for (uint8_t which : {ss::kVersionBmbFpga, ss::kVersionTmbFpga, ss::kVersionBmbMcu, ss::kVersionPbl}) {
    std::string text = "old";
    const int status = ss::ParseVersion(body, which, text);
    if (!StatusOrShape(status)) __builtin_trap();
    if (status != 0 && !text.empty()) __builtin_trap();
    if (text.size() > 24 || text.find('\0') != std::string::npos ||
        (!text.empty() && (text.front() == ' ' || text.back() == ' ')))
      __builtin_trap();
  }
  for (uint8_t item : {ss::kItemStandby, ss::kItemSpinRate, ss::kItemLastReturn})
    if (!StatusOrShape(ss::SetReplyStatus(body, item))) __builtin_trap();
  if (!StatusOrShape(ss::ImuReplyStatus(body))) __builtin_trap();
  for (uint8_t type : {0x01, 0x02, 0x03, 0x11})
    if (!StatusOrShape(ss::OtaReplyStatus(body, type))) __builtin_trap();
  uint32_t partition = 7;
  const int mode_status = ss::ChangeModeReplyStatus(body, 4, partition);
  if (!StatusOrShape(mode_status) || (mode_status != 0 && partition != 7)) __builtin_trap();

  // KTC payloads of the small sensors: read back, they write again as the same bytes.
  if (auto rate = ss::ParseBaudRate(body)) {
    const Bytes set = ss::BaudRateSet(*rate);
    if (body.size() != 4 || !std::equal(body.begin(), body.end(), set.end() - 4)) __builtin_trap();
  }
  if (auto block = ss::ParseNetworkBlock(body)) {
    if (body.size() < 18 || !DottedQuad(block->lidar_ip) || !DottedQuad(block->destination_ip)) __builtin_trap();
    const auto again = ss::DestinationPayload(block->destination_ip, block->destination_port);
    if (!again || !std::equal(again->begin(), again->end(), body.begin() + 12)) __builtin_trap();
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 1) return 0;
  const size_t cut_count = data[0] % 8 + 1;
  if (size < 1 + cut_count) return 0;
  const Bytes cuts(data + 1, data + 1 + cut_count);
  const Bytes stream(data + 1 + cut_count, data + size);

  CheckReplyBoth(stream.data(), stream.size());
  ParseBody(stream);

  using Kind = quarn::lidar::FrameAssembler::Kind;
  quarn::lidar::FrameAssembler assembler;
  Bytes out;               // every byte handed on, in order
  size_t first_frame = 0;  // length of the first piece handed on when it was a frame
  bool any = false;
  size_t quiet_before = 0;  // bytes fed before the first quiet line
  bool quiet = false;
  const auto sink = [&](Kind kind, const uint8_t* p, size_t n) {
    if (n == 0 || n > quarn::lidar::FrameAssembler::kMaxDataRun) __builtin_trap();
    if (kind == Kind::kFrame) {
      if (n < quarn::lidar::kMinSerialReplySize || n > quarn::lidar::FrameAssembler::kMaxFrameSize) __builtin_trap();
      if (!StartsWithTag(p, n) || p[n - 2] != 0xEE || p[n - 1] != 0xFF) __builtin_trap();
      CheckReplyBoth(p, n);
      Bytes body;
      if (quarn::lidar::CheckReply(quarn::lidar::kReplyCheckCommand, p, n, body)) ParseBody(body);
      if (!any) first_frame = n;
    }
    any = true;
    out.insert(out.end(), p, p + n);
  };
  size_t fed = 0;
  for (size_t k = 0; fed < stream.size(); ++k) {
    const uint8_t cut = cuts[k % cuts.size()];
    const size_t n = std::min<size_t>((cut & 0x7F) + 1, stream.size() - fed);
    assembler.Feed(stream.data() + fed, n, sink);
    fed += n;
    if (cut & 0x80) {
      if (!quiet) quiet_before = fed;
      quiet = true;
      assembler.Idle(sink);
    }
    if (assembler.Pending() > quarn::lidar::FrameAssembler::kWorkBufferSize) __builtin_trap();
  }
  // Nothing lost, duplicated or reordered: what was handed on is the stream up to what is held.
  if (out.size() + assembler.Pending() != stream.size() || !std::equal(out.begin(), out.end(), stream.begin()))
    __builtin_trap();

  // A reply that opens the stream and passes the check comes out whole as the first frame,
  // unless the line went quiet before all of it had come.
  Bytes body;
  const size_t first = stream.size() >= 8 ? quarn::lidar::kMinSerialReplySize + stream[7] : 0;
  if (StartsWithTag(stream.data(), stream.size()) && first <= stream.size() &&
      quarn::lidar::CheckReply(quarn::lidar::kReplyCheckCommand, stream.data(), first, body) &&
      (!quiet || quiet_before >= first)) {
    if (first_frame != first) __builtin_trap();
  }
  return 0;
}
