#include "ktc_parser.h"

#include <cstdio>

#include "crc32_mpeg2.h"

namespace quarn::lidar {
namespace {

void PutBigEndian32(uint8_t* at, uint32_t value) {
  at[0] = static_cast<uint8_t>(value >> 24);
  at[1] = static_cast<uint8_t>(value >> 16);
  at[2] = static_cast<uint8_t>(value >> 8);
  at[3] = static_cast<uint8_t>(value);
}

uint32_t GetBigEndian32(const uint8_t* at) {
  return (static_cast<uint32_t>(at[0]) << 24) | (static_cast<uint32_t>(at[1]) << 16) |
         (static_cast<uint32_t>(at[2]) << 8) | static_cast<uint32_t>(at[3]);
}

// Header of `header_size` bytes, the version's own bytes filled in by `fill`, then the payload.
template <typename Fill>
void EncodeFrame(const std::vector<uint8_t>& payload, std::vector<uint8_t>& frame, size_t header_size,
                 size_t length_offset, Fill fill) {
  if (&payload == &frame) {
    // Encoding a vector into itself: work from a copy of the payload.
    const std::vector<uint8_t> copy(payload);
    EncodeFrame(copy, frame, header_size, length_offset, fill);
    return;
  }
  const std::vector<uint8_t>& body = payload;
  frame.assign(header_size + body.size(), 0);
  fill(frame.data());
  PutBigEndian32(frame.data() + length_offset, static_cast<uint32_t>(body.size()));
  std::copy(body.begin(), body.end(), frame.begin() + static_cast<std::ptrdiff_t>(header_size));
}

}  // namespace

GeneralKtcParser::~GeneralKtcParser() = default;

bool GeneralKtcParser::KtcFilestreamSend(const std::vector<uint8_t>&, uint8_t, std::vector<std::vector<uint8_t>>&) {
  return true;
}

// ---- version 1.0 ----

Ktc_1_0_parser::Ktc_1_0_parser() : GeneralKtcParser({0x47, 0x74, 0, 0, 0, 0, 0, 0}) {}
Ktc_1_0_parser::~Ktc_1_0_parser() = default;

bool Ktc_1_0_parser::KtcStreamEncode(const std::vector<uint8_t>& payload, std::vector<uint8_t>& frame, uint8_t cmd) {
  EncodeFrame(payload, frame, kHeaderSize, 4, [cmd](uint8_t* h) {
    h[0] = 0x47;
    h[1] = 0x74;
    h[2] = cmd;
  });
  return true;
}

bool Ktc_1_0_parser::KtcStreamDecode(uint8_t, uint8_t, const std::vector<uint8_t>& in, int32_t offset, int32_t length,
                                     std::vector<uint8_t>& out) {
  // Negative positions would read before the input; the sum is taken wide so it cannot wrap.
  if (offset < 0 || length < 0) return false;
  const int64_t end = static_cast<int64_t>(offset) + length;
  if (static_cast<int64_t>(static_cast<int32_t>(in.size())) < end || in.size() > INT32_MAX) return false;
  std::vector<uint8_t> part(in.begin() + offset, in.begin() + static_cast<std::ptrdiff_t>(end));
  out.swap(part);
  return true;
}

bool Ktc_1_0_parser::KtcFilestreamSend(const std::vector<uint8_t>& data, uint8_t cmd,
                                       std::vector<std::vector<uint8_t>>& frames) {
  if (data.empty()) return true;
  const size_t total = (data.size() + kKtcFilePieceSize - 1) / kKtcFilePieceSize;
  frames.reserve(frames.size() + total);
  std::vector<uint8_t> piece;
  for (size_t k = 1; k <= total; ++k) {
    const size_t begin = (k - 1) * kKtcFilePieceSize;
    const size_t size = std::min(kKtcFilePieceSize, data.size() - begin);
    piece.assign(kKtcFilePieceHeaderSize + size, 0);
    PutBigEndian32(piece.data() + 4, static_cast<uint32_t>(k));
    PutBigEndian32(piece.data() + 8, static_cast<uint32_t>(total));
    PutBigEndian32(piece.data() + 12, Crc32Mpeg2(data.data() + begin, size));
    std::copy(data.begin() + static_cast<std::ptrdiff_t>(begin),
              data.begin() + static_cast<std::ptrdiff_t>(begin + size), piece.begin() + kKtcFilePieceHeaderSize);
    std::vector<uint8_t> frame;
    if (!KtcStreamEncode(piece, frame, cmd)) {
      std::printf("GeneralKtcParser::KtcFilestreamSend pack frame failed!\n");
      return false;
    }
    frames.push_back(std::move(frame));
  }
  return true;
}

uint8_t Ktc_1_0_parser::GetReturnCode() {
  return header_[3];
}
uint8_t Ktc_1_0_parser::GetCmd() {
  return header_[2];
}
uint32_t Ktc_1_0_parser::GetPayloadLength() {
  return GetBigEndian32(header_.data() + 4);
}

// ---- version 2.0 ----

Ktc_2_0_parser::Ktc_2_0_parser() : GeneralKtcParser({0x57, 0x75, 0x01, 0, 0, 0, 0, 0, 0, 0, 0, 0}) {}
Ktc_2_0_parser::~Ktc_2_0_parser() = default;

bool Ktc_2_0_parser::KtcStreamEncode(const std::vector<uint8_t>& payload, std::vector<uint8_t>& frame, uint8_t cmd) {
  EncodeFrame(payload, frame, kHeaderSize, 8, [cmd](uint8_t* h) {
    h[0] = 0x57;
    h[1] = 0x75;
    h[2] = 0x01;
    h[3] = cmd;
  });
  return true;
}

bool Ktc_2_0_parser::KtcStreamDecode(uint8_t status, uint8_t byte, const std::vector<uint8_t>& in, int32_t, int32_t,
                                     std::vector<uint8_t>& out) {
  switch (status) {
    case 1:
    case 3:
    case 5:
    case 7:
    case 9:
      if (&out != &in) out = in;
      std::printf("Ktc_2_0_parser::KtcStreamDecode success!\n");
      return true;
    case 2:
    case 4:
    case 6:
    case 8:
      if (in.empty()) return true;
      if (&out != &in) out = in;
      return false;
    case 10:
      if (in.empty() && byte == 0) return true;
      out.push_back(byte);
      return false;
    default:
      std::printf("Ktc_2_0_parser::KtcStreamDecode success!\n");
      return true;
  }
}

uint8_t Ktc_2_0_parser::GetReturnCode() {
  return header_[4];
}
uint8_t Ktc_2_0_parser::GetCmd() {
  return header_[3];
}
uint32_t Ktc_2_0_parser::GetPayloadLength() {
  return GetBigEndian32(header_.data() + 8);
}

// ---- holder ----

KtcParser::KtcParser(uint8_t version) : version_(version) {
  if (version == 1) {
    parser_ = std::make_unique<Ktc_1_0_parser>();
  } else if (version == 2) {
    parser_ = std::make_unique<Ktc_2_0_parser>();
  }
}

KtcParser::~KtcParser() = default;

bool KtcParser::KtcStreamEncode(const std::vector<uint8_t>& payload, std::vector<uint8_t>& frame, uint8_t cmd) {
  return parser_ ? parser_->KtcStreamEncode(payload, frame, cmd) : false;
}

bool KtcParser::KtcStreamDecode(uint8_t status, uint8_t byte, const std::vector<uint8_t>& in, int32_t offset,
                                int32_t length, std::vector<uint8_t>& out) {
  return parser_ ? parser_->KtcStreamDecode(status, byte, in, offset, length, out) : false;
}

bool KtcParser::KtcFilestreamSend(const std::vector<uint8_t>& data, uint8_t cmd,
                                  std::vector<std::vector<uint8_t>>& frames) {
  return parser_ ? parser_->KtcFilestreamSend(data, cmd, frames) : false;
}

}  // namespace quarn::lidar
