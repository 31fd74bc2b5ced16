#include "file_receiver.h"

#include <openssl/evp.h>

#include <memory>

#include "crc32_mpeg2.h"
#include "ktc_wire.h"

namespace varkel::sim {

std::string Sha256Hex(const std::vector<uint8_t>& data) {
  std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)> ctx(EVP_MD_CTX_new(), &EVP_MD_CTX_free);
  unsigned char md[EVP_MAX_MD_SIZE];
  unsigned int md_len = 0;
  if (!ctx || EVP_DigestInit_ex(ctx.get(), EVP_sha256(), nullptr) != 1 ||
      EVP_DigestUpdate(ctx.get(), data.data(), data.size()) != 1 || EVP_DigestFinal_ex(ctx.get(), md, &md_len) != 1) {
    return std::string();
  }
  static const char kDigits[] = "0123456789abcdef";
  std::string hex;
  for (unsigned int i = 0; i < md_len; ++i) {
    hex += kDigits[md[i] >> 4];
    hex += kDigits[md[i] & 0x0F];
  }
  return hex;
}

void FileReceiver::Finish(bool ok) {
  last_ = TransferRecord{static_cast<uint32_t>(data_.size()), Sha256Hex(data_), ok};
  open_ = false;
  next_ = 1;
  total_ = 0;
  if (ok) {
    last_complete_.swap(data_);
  }
  data_.clear();
}

FileReceiver::Result FileReceiver::OnPiece(const uint8_t* piece, size_t len) {
  if (len <= kPieceHeader || len > kPieceHeader + kPieceData || ReadU32BE(piece) != 0) {
    if (open_) Finish(false);
    return Result::kMalformed;
  }
  const uint32_t k = ReadU32BE(piece + 4);
  const uint32_t total = ReadU32BE(piece + 8);
  const uint32_t crc = ReadU32BE(piece + 12);
  const uint8_t* data = piece + kPieceHeader;
  const size_t n = len - kPieceHeader;

  if (k == 1) {
    if (open_) Finish(false);
    open_ = true;
    next_ = 1;
    total_ = total;
    data_.clear();
  }
  if (!open_ || k != next_ || total != total_ || k > total || total == 0) {
    if (open_) Finish(false);
    return Result::kBadNumber;
  }
  // Only the last piece may be short.
  if (k < total && n != kPieceData) {
    Finish(false);
    return Result::kMalformed;
  }
  if (quarn::lidar::Crc32Mpeg2(data, n) != crc) {
    Finish(false);
    return Result::kBadCrc;
  }
  data_.insert(data_.end(), data, data + n);
  ++next_;
  if (k == total) {
    Finish(true);
    return Result::kCompleted;
  }
  return Result::kAccepted;
}

}  // namespace varkel::sim
