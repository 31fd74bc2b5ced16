#include "field_text.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>

namespace varkel::sim {
namespace {

struct IntType {
  size_t width;
  bool is_signed;
};

std::optional<IntType> IntTypeOf(const std::string& type) {
  if (type == "uint8") return IntType{1, false};
  if (type == "uint16") return IntType{2, false};
  if (type == "uint32") return IntType{4, false};
  if (type == "uint64") return IntType{8, false};
  if (type == "int8") return IntType{1, true};
  if (type == "int16") return IntType{2, true};
  if (type == "int32") return IntType{4, true};
  if (type == "int64") return IntType{8, true};
  return std::nullopt;
}

std::string Trim(const std::string& s) {
  size_t b = 0;
  size_t e = s.size();
  while (b < e && std::isspace(static_cast<unsigned char>(s[b]))) ++b;
  while (e > b && std::isspace(static_cast<unsigned char>(s[e - 1]))) --e;
  return s.substr(b, e - b);
}

std::vector<std::string> Split(const std::string& s, char sep) {
  std::vector<std::string> out;
  size_t start = 0;
  for (;;) {
    const size_t pos = s.find(sep, start);
    out.push_back(s.substr(start, pos == std::string::npos ? std::string::npos : pos - start));
    if (pos == std::string::npos) return out;
    start = pos + 1;
  }
}

// Whole-text number parsers: trailing junk makes the text invalid.
std::optional<double> ParseDouble(const std::string& text) {
  const std::string t = Trim(text);
  if (t.empty()) return std::nullopt;
  char* end = nullptr;
  errno = 0;
  const double v = std::strtod(t.c_str(), &end);
  if (errno != 0 || *end != '\0' || !std::isfinite(v)) return std::nullopt;
  return v;
}

std::optional<uint64_t> ParseUnsigned(const std::string& text, int base) {
  const std::string t = Trim(text);
  if (t.empty() || t[0] == '-' || t[0] == '+') return std::nullopt;
  char* end = nullptr;
  errno = 0;
  const unsigned long long v = std::strtoull(t.c_str(), &end, base);
  if (errno != 0 || *end != '\0') return std::nullopt;
  return static_cast<uint64_t>(v);
}

std::optional<int64_t> ParseSigned(const std::string& text) {
  const std::string t = Trim(text);
  if (t.empty()) return std::nullopt;
  char* end = nullptr;
  errno = 0;
  const long long v = std::strtoll(t.c_str(), &end, 10);
  if (errno != 0 || *end != '\0') return std::nullopt;
  return static_cast<int64_t>(v);
}

// Writes the low `len` bytes of v, most significant first; bytes beyond 8 are the sign.
std::vector<uint8_t> BigEndian(uint64_t v, size_t len, bool negative) {
  std::vector<uint8_t> out(len, negative ? 0xFF : 0x00);
  for (size_t i = 0; i < len && i < 8; ++i) out[len - 1 - i] = static_cast<uint8_t>(v >> (8 * i));
  return out;
}

uint64_t ReadBigEndian(const std::vector<uint8_t>& bytes) {
  uint64_t v = 0;
  for (uint8_t b : bytes) v = (v << 8) | b;
  return v;
}

bool FitsUnsigned(uint64_t v, size_t bytes) {
  return bytes >= 8 || v < (uint64_t{1} << (8 * bytes));
}
bool FitsSigned(int64_t v, size_t bytes) {
  if (bytes >= 8) return true;
  const int64_t lim = int64_t{1} << (8 * bytes - 1);
  return v >= -lim && v < lim;
}

std::optional<std::vector<uint8_t>> EncodeInteger(const std::string& type, const IntType& it, const std::string& text,
                                                  float coefficient, size_t len) {
  const size_t room = std::min(it.width, len);
  if (room == 0) return std::nullopt;
  // An exact integer text with coefficient 1 keeps 64-bit precision.
  if (coefficient == 1.0f) {
    if (it.is_signed) {
      if (auto v = ParseSigned(text)) {
        if (!FitsSigned(*v, room)) return std::nullopt;
        return BigEndian(static_cast<uint64_t>(*v), len, *v < 0);
      }
    } else if (auto v = ParseUnsigned(text, 10)) {
      if (!FitsUnsigned(*v, room)) return std::nullopt;
      return BigEndian(*v, len, false);
    }
  }
  const auto shown = ParseDouble(text);
  if (!shown) return std::nullopt;
  return EncodeNumber(type, *shown, coefficient, len);
}

std::optional<uint32_t> ParseVersionTriple(const std::string& text, uint32_t out[3], std::string* rest) {
  unsigned a = 0, b = 0, c = 0;
  int consumed = 0;
  if (std::sscanf(text.c_str(), "%u.%u.%u%n", &a, &b, &c, &consumed) != 3) return std::nullopt;
  if (a > 0xFFFF || b > 0xFFFF || c > 0xFFFF) return std::nullopt;
  out[0] = a;
  out[1] = b;
  out[2] = c;
  *rest = text.substr(static_cast<size_t>(consumed));
  return 0u;
}

void PutU16(std::vector<uint8_t>& out, size_t at, uint32_t v) {
  out[at] = static_cast<uint8_t>(v >> 8);
  out[at + 1] = static_cast<uint8_t>(v);
}

std::optional<std::vector<uint8_t>> EncodeHwver(const std::string& text, size_t len) {
  if (len != 16) return std::nullopt;
  uint32_t v[3];
  std::string rest;
  if (!ParseVersionTriple(Trim(text), v, &rest)) return std::nullopt;
  std::string rev;
  if (!rest.empty()) {
    if (rest.size() < 3 || rest.compare(0, 2, " (") != 0 || rest.back() != ')') return std::nullopt;
    rev = rest.substr(2, rest.size() - 3);
  }
  if (rev.size() > 10) return std::nullopt;
  std::vector<uint8_t> out(16, 0);
  for (int i = 0; i < 3; ++i) PutU16(out, 2 * static_cast<size_t>(i), v[i]);
  std::memcpy(out.data() + 6, rev.data(), rev.size());
  return out;
}

std::optional<std::vector<uint8_t>> EncodeSwverYmd(const std::string& text, size_t len) {
  if (len != 16) return std::nullopt;
  uint32_t v[3];
  std::string rest;
  if (!ParseVersionTriple(Trim(text), v, &rest)) return std::nullopt;
  unsigned y = 0, m = 0, d = 0;
  char close = 0;
  if (std::sscanf(rest.c_str(), " (%u-%u-%u%c", &y, &m, &d, &close) != 4 || close != ')') return std::nullopt;
  if (y > 0xFFFF || m < 1 || m > 12 || d < 1 || d > 31) return std::nullopt;
  std::vector<uint8_t> out(16, 0);
  for (int i = 0; i < 3; ++i) PutU16(out, 2 * static_cast<size_t>(i), v[i]);
  PutU16(out, 6, y);
  out[8] = static_cast<uint8_t>(m);
  out[9] = static_cast<uint8_t>(d);
  return out;
}

std::optional<std::vector<uint8_t>> EncodeDuration(const std::string& text, size_t len) {
  if (len == 0 || len > 8) return std::nullopt;
  uint64_t seconds = 0;
  unsigned long long h = 0, m = 0, s = 0;
  int consumed = 0;
  const std::string t = Trim(text);
  if (std::sscanf(t.c_str(), "%llu h %llu min %llu s%n", &h, &m, &s, &consumed) == 3 &&
      static_cast<size_t>(consumed) == t.size()) {
    seconds = h * 3600 + m * 60 + s;
  } else if (auto v = ParseUnsigned(t, 10)) {
    seconds = *v;
  } else {
    return std::nullopt;
  }
  if (!FitsUnsigned(seconds, len)) return std::nullopt;
  return BigEndian(seconds, len, false);
}

std::optional<std::vector<uint8_t>> EncodeDotted(const std::string& text, char sep, size_t count, int base,
                                                 size_t len) {
  if (len < count) return std::nullopt;
  const auto pieces = Split(Trim(text), sep);
  if (pieces.size() != count) return std::nullopt;
  std::vector<uint8_t> out(len, 0);
  for (size_t i = 0; i < count; ++i) {
    const auto v = ParseUnsigned(pieces[i], base);
    if (!v || *v > 255 || Trim(pieces[i]).size() > 3) return std::nullopt;
    out[i] = static_cast<uint8_t>(*v);
  }
  return out;
}

std::optional<std::vector<uint8_t>> EncodeRaw(const std::string& text, size_t len) {
  std::string digits;
  for (const auto& piece : Split(Trim(text), ' ')) {
    std::string p = piece;
    if (p.size() >= 2 && p[0] == '0' && (p[1] == 'x' || p[1] == 'X')) p = p.substr(2);
    digits += p;
  }
  if (digits.size() % 2 != 0 || digits.size() / 2 > len) return std::nullopt;
  std::vector<uint8_t> out(len, 0);
  for (size_t i = 0; i < digits.size() / 2; ++i) {
    const auto v = ParseUnsigned(digits.substr(2 * i, 2), 16);
    if (!v) return std::nullopt;
    out[i] = static_cast<uint8_t>(*v);
  }
  return out;
}

std::string Fixed2(double v) {
  char buf[64];
  std::snprintf(buf, sizeof(buf), "%.2f", v);
  return buf;
}

std::string HexUpper(unsigned v) {
  char buf[8];
  std::snprintf(buf, sizeof(buf), "%X", v);
  return buf;
}

}  // namespace

bool IsNumericType(const std::string& type) {
  return IntTypeOf(type).has_value() || type == "float32" || type == "double";
}

std::optional<std::vector<uint8_t>> EncodeNumber(const std::string& type, double shown, float coefficient, size_t len) {
  if (coefficient == 0.0f || !std::isfinite(shown)) return std::nullopt;
  const double raw = shown / static_cast<double>(coefficient);
  if (type == "float32") {
    if (len != 4 || std::fabs(raw) > std::numeric_limits<float>::max()) return std::nullopt;
    const float f = static_cast<float>(raw);
    uint32_t bits = 0;
    std::memcpy(&bits, &f, 4);
    return BigEndian(bits, 4, false);
  }
  if (type == "double") {
    if (len != 8) return std::nullopt;
    uint64_t bits = 0;
    std::memcpy(&bits, &raw, 8);
    return BigEndian(bits, 8, false);
  }
  const auto it = IntTypeOf(type);
  if (!it) return std::nullopt;
  const size_t room = std::min(it->width, len);
  if (room == 0) return std::nullopt;
  // Rounded, not truncated: 12.3 / 0.1 is 122.99999 in binary and must send 123.
  const double r = std::nearbyint(raw);
  if (it->is_signed) {
    if (r < -9.2e18 || r > 9.2e18) return std::nullopt;
    const auto v = static_cast<int64_t>(r);
    if (!FitsSigned(v, room)) return std::nullopt;
    return BigEndian(static_cast<uint64_t>(v), len, v < 0);
  }
  if (r < 0 || r > 1.8e19) return std::nullopt;
  const auto v = static_cast<uint64_t>(r);
  if (!FitsUnsigned(v, room)) return std::nullopt;
  return BigEndian(v, len, false);
}

std::optional<std::vector<uint8_t>> EncodeValueText(const std::string& type, const std::string& text, float coefficient,
                                                    size_t len) {
  if (const auto it = IntTypeOf(type)) return EncodeInteger(type, *it, text, coefficient, len);
  if (type == "float32" || type == "double") {
    const auto shown = ParseDouble(text);
    if (!shown) return std::nullopt;
    return EncodeNumber(type, *shown, coefficient, len);
  }
  if (type == "IP") return EncodeDotted(text, '.', 4, 10, len);
  if (type == "MAC") return EncodeDotted(text, ':', 6, 16, len);
  if (type == "string") {
    if (text.size() > len) return std::nullopt;
    std::vector<uint8_t> out(len, 0);
    std::memcpy(out.data(), text.data(), text.size());
    return out;
  }
  if (type == "HWVER") return EncodeHwver(text, len);
  if (type == "SWVER_YMD") return EncodeSwverYmd(text, len);
  if (type == "DT") return EncodeDuration(text, len);
  if (type == "raw") return EncodeRaw(text, len);
  return std::nullopt;
}

std::optional<double> DecodeNumber(const std::string& type, const std::vector<uint8_t>& bytes, float coefficient) {
  const double coef = static_cast<double>(coefficient);
  if (type == "float32") {
    if (bytes.size() != 4) return std::nullopt;
    const auto bits = static_cast<uint32_t>(ReadBigEndian(bytes));
    float f = 0;
    std::memcpy(&f, &bits, 4);
    return static_cast<double>(f) * coef;
  }
  if (type == "double") {
    if (bytes.size() != 8) return std::nullopt;
    const uint64_t bits = ReadBigEndian(bytes);
    double d = 0;
    std::memcpy(&d, &bits, 8);
    return d * coef;
  }
  const auto it = IntTypeOf(type);
  if (!it || bytes.empty() || bytes.size() > 8) return std::nullopt;
  const uint64_t u = ReadBigEndian(bytes);
  if (!it->is_signed) return static_cast<double>(u) * coef;
  // Sign taken from the slice's own width, as the program reads the reversed slice.
  const size_t bits = 8 * std::min(bytes.size(), it->width);
  int64_t s = static_cast<int64_t>(u);
  if (bits < 64 && (u >> (bits - 1)) & 1u) s = static_cast<int64_t>(u | (~uint64_t{0} << bits));
  return static_cast<double>(s) * coef;
}

std::optional<std::string> DecodeValueText(const std::string& type, const std::vector<uint8_t>& bytes,
                                           float coefficient) {
  if (const auto it = IntTypeOf(type)) {
    if (bytes.empty() || bytes.size() > 8) return std::nullopt;
    if (coefficient != 1.0f) return Fixed2(*DecodeNumber(type, bytes, coefficient));
    const uint64_t u = ReadBigEndian(bytes);
    if (!it->is_signed) return std::to_string(u);
    return std::to_string(static_cast<int64_t>(*DecodeNumber(type, bytes, 1.0f)));
  }
  if (type == "float32" || type == "double") {
    const auto v = DecodeNumber(type, bytes, coefficient);
    if (!v) return std::nullopt;
    return Fixed2(*v);
  }
  if (type == "IP") {
    std::string out;
    for (size_t i = 0; i < bytes.size(); ++i) out += (i ? "." : "") + std::to_string(bytes[i]);
    return out;
  }
  if (type == "MAC") {
    if (bytes.size() < 6) return std::nullopt;
    std::string out;
    for (size_t i = 0; i < 6; ++i) {
      if (i) out += ":";
      // Bytes up to 0x10 (not 0x0F) get a leading "0": the program shows 0x10 as "010".
      if (bytes[i] <= 0x10) out += "0";
      out += HexUpper(bytes[i]);
    }
    return out;
  }
  if (type == "string") {
    const auto nul = std::find(bytes.begin(), bytes.end(), uint8_t{0});
    return std::string(bytes.begin(), nul);
  }
  if (type == "HWVER" || type == "SWVER_YMD") {
    if (bytes.size() != 16) return std::nullopt;
    auto u16 = [&](size_t at) { return (unsigned{bytes[at]} << 8) | bytes[at + 1]; };
    std::string out = std::to_string(u16(0)) + "." + std::to_string(u16(2)) + "." + std::to_string(u16(4));
    if (type == "HWVER") {
      std::string rev;
      for (size_t i = 6; i < 16; ++i)
        if (bytes[i] >= 0x20 && bytes[i] < 0x7F) rev += static_cast<char>(bytes[i]);
      if (!rev.empty()) out += " (" + rev + ")";
      return out;
    }
    char date[32];
    std::snprintf(date, sizeof(date), " (%04u-%02u-%02u)", u16(6), unsigned{bytes[8]}, unsigned{bytes[9]});
    return out + date;
  }
  if (type == "DT") {
    if (bytes.empty() || bytes.size() > 8) return std::nullopt;
    const uint64_t s = ReadBigEndian(bytes);
    return std::to_string(s / 3600) + " h " + std::to_string((s % 3600) / 60) + " min " + std::to_string(s % 60) + " s";
  }
  return std::nullopt;
}

}  // namespace varkel::sim
