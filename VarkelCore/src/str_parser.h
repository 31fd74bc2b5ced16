#pragma once
// Value codecs: display text of a variable -> the bytes of its field in a set payload.
// Multi-byte results are big-endian. Refusals are std::invalid_argument with a fixed
// message that the writer shows to the user as the reason of the failed set.

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

class StrParser {
 public:
  explicit StrParser(uint64_t length = 1) : parser_length(length) {}
  virtual ~StrParser() = default;
  // The value sent is the shown value divided by `coefficient` (the set coefficient).
  virtual std::vector<uint8_t> ParseToBytes(const std::string& text, float coefficient) const = 0;

  // Byte width of the integer codecs; 1 for the others.
  uint64_t parser_length;
};

class UintParser : public StrParser {
 public:
  using StrParser::StrParser;
  std::vector<uint8_t> ParseToBytes(const std::string& text, float coefficient) const override;
};

class IntParser : public StrParser {
 public:
  using StrParser::StrParser;
  std::vector<uint8_t> ParseToBytes(const std::string& text, float coefficient) const override;
};

class FloatParser : public StrParser {
 public:
  std::vector<uint8_t> ParseToBytes(const std::string& text, float coefficient) const override;
};

class DoubleParser : public StrParser {
 public:
  std::vector<uint8_t> ParseToBytes(const std::string& text, float coefficient) const override;
};

// Four decimal pieces joined by ".".
class IPv4Parser : public StrParser {
 public:
  std::vector<uint8_t> ParseToBytes(const std::string& text, float coefficient) const override;
};

// Six decimal (not hexadecimal) pieces joined by ":".
class MacParser : public StrParser {
 public:
  std::vector<uint8_t> ParseToBytes(const std::string& text, float coefficient) const override;
};

// Raw fields are not encoded from text: prints "not developed" and gives no bytes.
class RawParser : public StrParser {
 public:
  std::vector<uint8_t> ParseToBytes(const std::string& text, float coefficient) const override;
};

// The codec for a table's VarType (exact, case-sensitive), or null for a type without
// one, after printing "DEBUG(): not support the format is <type>".
std::unique_ptr<StrParser> MakeStrParser(const std::string& var_type);
