#pragma once
// KTC frames, versions 1.0 ("Gt", 8-byte header) and 2.0 ("Wu", 12-byte header).
// Multi-byte fields are big-endian; a frame ends where its payload length says.

#include <cstdint>
#include <memory>
#include <vector>

namespace quarn::lidar {

// Data bytes per file-stream piece; the last piece carries the remainder.
constexpr size_t kKtcFilePieceSize = 1024;
// reserved, piece number, total pieces, CRC of the piece data.
constexpr size_t kKtcFilePieceHeaderSize = 16;

class GeneralKtcParser {
 public:
  virtual ~GeneralKtcParser();
  // Builds a request frame for `cmd` carrying `payload`. Never fails.
  virtual bool KtcStreamEncode(const std::vector<uint8_t>& payload, std::vector<uint8_t>& frame, uint8_t cmd) = 0;
  // Differs by version; kept for callers that pass it through. `in` and `out` may be the same vector.
  virtual bool KtcStreamDecode(uint8_t status, uint8_t byte, const std::vector<uint8_t>& in, int32_t offset,
                               int32_t length, std::vector<uint8_t>& out) = 0;
  // Splits file data into the train of request frames carrying it. The base produces nothing.
  virtual bool KtcFilestreamSend(const std::vector<uint8_t>& data, uint8_t cmd,
                                 std::vector<std::vector<uint8_t>>& frames);
  virtual uint8_t GetHeaderIdentifier0() = 0;
  virtual uint8_t GetHeaderIdentifier1() = 0;
  virtual uint32_t GetHeaderSize() = 0;
  // Accessors of the header template (the request header with zero command and length).
  virtual uint8_t GetReturnCode() = 0;
  virtual uint8_t GetCmd() = 0;
  virtual uint32_t GetPayloadLength() = 0;

 protected:
  explicit GeneralKtcParser(std::vector<uint8_t> header_template) : header_(std::move(header_template)) {}
  uint8_t TemplateIdentifier(size_t i) const { return header_[i]; }
  std::vector<uint8_t> header_;
};

class Ktc_1_0_parser : public GeneralKtcParser {
 public:
  static constexpr uint32_t kHeaderSize = 8;
  Ktc_1_0_parser();
  ~Ktc_1_0_parser() override;
  bool KtcStreamEncode(const std::vector<uint8_t>& payload, std::vector<uint8_t>& frame, uint8_t cmd) override;
  bool KtcStreamDecode(uint8_t status, uint8_t byte, const std::vector<uint8_t>& in, int32_t offset, int32_t length,
                       std::vector<uint8_t>& out) override;
  bool KtcFilestreamSend(const std::vector<uint8_t>& data, uint8_t cmd,
                         std::vector<std::vector<uint8_t>>& frames) override;
  uint8_t GetHeaderIdentifier0() override { return TemplateIdentifier(0); }
  uint8_t GetHeaderIdentifier1() override { return TemplateIdentifier(1); }
  uint32_t GetHeaderSize() override { return kHeaderSize; }
  uint8_t GetReturnCode() override;
  uint8_t GetCmd() override;
  uint32_t GetPayloadLength() override;
};

class Ktc_2_0_parser : public GeneralKtcParser {
 public:
  static constexpr uint32_t kHeaderSize = 12;
  Ktc_2_0_parser();
  ~Ktc_2_0_parser() override;
  bool KtcStreamEncode(const std::vector<uint8_t>& payload, std::vector<uint8_t>& frame, uint8_t cmd) override;
  bool KtcStreamDecode(uint8_t status, uint8_t byte, const std::vector<uint8_t>& in, int32_t offset, int32_t length,
                       std::vector<uint8_t>& out) override;
  // KtcFilestreamSend: the base behaviour (no frames, true) on purpose.
  uint8_t GetHeaderIdentifier0() override { return TemplateIdentifier(0); }
  uint8_t GetHeaderIdentifier1() override { return TemplateIdentifier(1); }
  uint32_t GetHeaderSize() override { return kHeaderSize; }
  uint8_t GetReturnCode() override;
  uint8_t GetCmd() override;
  uint32_t GetPayloadLength() override;
};

// The holder a client owns: version 1 or 2 picks the frame version; any other value
// leaves it empty and every forwarded operation then returns false.
class KtcParser {
 public:
  explicit KtcParser(uint8_t version);
  virtual ~KtcParser();
  KtcParser(const KtcParser&) = delete;
  KtcParser& operator=(const KtcParser&) = delete;

  bool KtcStreamEncode(const std::vector<uint8_t>& payload, std::vector<uint8_t>& frame, uint8_t cmd);
  bool KtcStreamDecode(uint8_t status, uint8_t byte, const std::vector<uint8_t>& in, int32_t offset, int32_t length,
                       std::vector<uint8_t>& out);
  bool KtcFilestreamSend(const std::vector<uint8_t>& data, uint8_t cmd, std::vector<std::vector<uint8_t>>& frames);

  // The held parser for its header accessors; null for an unknown version.
  GeneralKtcParser* parser() const { return parser_.get(); }
  uint8_t version() const { return version_; }

 private:
  std::unique_ptr<GeneralKtcParser> parser_;
  uint8_t version_;
};

}  // namespace quarn::lidar
