// A slice of a get reply turned into the text a page shows, for every VarType a table may
// name, and the text checked against the bytes it came from.
//   [0] the type; [1] the coefficient: 1, 0.1, 0.01, 10, or (>= 4) the float in [2..5]
//   the rest: the slice.
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <vector>

#include "coefficient_choice.h"
#include "str_parser.h"
#include "value_text.h"

namespace {

using Bytes = std::vector<uint8_t>;

const char* const kTypes[] = {"IP",     "MAC",    "HWVER", "SWVER_YMD", "string", "uint8", "uint16",
                              "uint32", "uint64", "int8",  "int16",     "int32",  "int64", "float32",
                              "double", "DT",     "raw",   "Uint8",     ""};

// The last `width` bytes, big-endian, as shorter slices count with leading zeros.
uint64_t Tail(const Bytes& s, size_t width) {
  uint64_t v = 0;
  for (size_t i = s.size() > width ? s.size() - width : 0; i < s.size(); ++i) v = (v << 8) | s[i];
  return v;
}

// The whole text is one number in the C locale's spelling.
bool ReadNumber(const std::string& text, double& out) {
  if (text.empty()) return false;
  char* end = nullptr;
  out = std::strtod(text.c_str(), &end);
  return *end == '\0';
}

// A fixed two-decimal text of `value`: reads back as it, rounded to the hundredth.
void CheckFixed2(const std::string& text, double value) {
  double back = 0;
  if (!ReadNumber(text, back)) __builtin_trap();
  if (std::isnan(value)) {
    if (!std::isnan(back)) __builtin_trap();
  } else if (std::isinf(value)) {
    if (back != value) __builtin_trap();
  } else if (std::fabs(back - value) > 0.005 + std::fabs(value) * 1e-15) {
    __builtin_trap();
  }
}

template <typename T>
void CheckInteger(const std::string& type, const Bytes& slice, float coefficient, const std::string& text) {
  const T value = static_cast<T>(Tail(slice, sizeof(T)));
  if (coefficient != 1.0f) {
    CheckFixed2(text, static_cast<double>(value) * static_cast<double>(coefficient));
    return;
  }
  if (text != std::to_string(value)) __builtin_trap();
  // A value read from the sensor writes back as the bytes it came from, wherever the
  // codec's float holds it exactly (the 32-bit and wider unsigned codecs take only 0).
  const bool exact = sizeof(T) <= 2 || (std::is_signed<T>::value && std::fabs(static_cast<double>(value)) <= 16777216);
  if (!exact) return;
  const Bytes want = [&] {
    Bytes b(sizeof(T));
    for (size_t i = 0; i < sizeof(T); ++i)
      b[i] = static_cast<uint8_t>(static_cast<uint64_t>(value) >> (8 * (sizeof(T) - 1 - i)));
    return b;
  }();
  const auto codec = MakeStrParser(type);
  if (!codec) __builtin_trap();
  if (codec->ParseToBytes(text, 1.0f) != want) __builtin_trap();
}

bool PrintableWithout(const std::string& text, char excluded) {
  for (char c : text)
    if (c < 0x20 || c > 0x7E || c == excluded) return false;
  return true;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  // The codec factory prints a line for types it does not know.
  if (std::freopen("/dev/null", "w", stdout) == nullptr) return 0;
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 2) return 0;
  const std::string type = kTypes[data[0] % (sizeof(kTypes) / sizeof(kTypes[0]))];
  float coefficient = 1.0f;
  size_t at = 0;
  if (!ChooseCoefficient(data, size, coefficient, at)) return 0;
  const Bytes slice(data + at, data + size);
  const varkel::ValueText got = varkel::BytesToValueText(type, slice, coefficient);
  const std::string& text = got.text;

  if (type == "IP") {
    if (!got.ok || text != varkel::IpText(slice)) __builtin_trap();
    if (slice.size() == 4 && IPv4Parser().ParseToBytes(text, 1.0f) != slice) __builtin_trap();
    if (!slice.empty() && static_cast<size_t>(std::count(text.begin(), text.end(), '.')) != slice.size() - 1)
      __builtin_trap();
  } else if (type == "MAC") {
    if (got.ok != (slice.size() >= 6)) __builtin_trap();
    if (got.ok) {
      // Six pieces of the first six bytes, two digits each, but 0x10 reads "010".
      size_t pos = 0;
      for (size_t i = 0; i < 6; ++i) {
        const size_t colon = text.find(':', pos);
        const std::string piece = text.substr(pos, colon == std::string::npos ? colon : colon - pos);
        if (std::strtoul(piece.c_str(), nullptr, 16) != slice[i] || piece.size() != (slice[i] == 0x10 ? 3u : 2u))
          __builtin_trap();
        if ((i == 5) != (colon == std::string::npos)) __builtin_trap();
        pos = colon + 1;
      }
    }
  } else if (type == "HWVER" || type == "SWVER_YMD") {
    if (got.ok != (slice.size() == 16)) __builtin_trap();
    if (got.ok) {
      const auto u16 = [&](size_t i) { return unsigned{slice[i]} << 8 | slice[i + 1]; };
      unsigned v[6] = {};
      char rest[64] = {};
      if (type == "SWVER_YMD") {
        if (std::sscanf(text.c_str(), "%u.%u.%u (%u-%u-%u)%63s", &v[0], &v[1], &v[2], &v[3], &v[4], &v[5], rest) != 6 ||
            v[0] != u16(0) || v[1] != u16(2) || v[2] != u16(4) || v[3] != u16(6) || v[4] != slice[8] ||
            v[5] != slice[9])
          __builtin_trap();
      } else {
        int used = 0;
        if (std::sscanf(text.c_str(), "%u.%u.%u%n", &v[0], &v[1], &v[2], &used) != 3 || v[0] != u16(0) ||
            v[1] != u16(2) || v[2] != u16(4))
          __builtin_trap();
        const std::string revision = text.substr(static_cast<size_t>(used));
        if (!revision.empty() && (revision.compare(0, 2, " (") != 0 || revision.back() != ')' || revision.size() > 13 ||
                                  !PrintableWithout(revision, '\0')))
          __builtin_trap();
      }
    }
  } else if (type == "string") {
    if (!got.ok || text.find('\0') != std::string::npos || text.size() > slice.size() ||
        (!text.empty() && std::memcmp(text.data(), slice.data(), text.size()) != 0) ||
        (text.size() < slice.size() && slice[text.size()] != 0))
      __builtin_trap();
  } else if (type == "DT") {
    unsigned long long h = 0, m = 0, s = 0;
    char rest[8] = {};
    if (!got.ok || std::sscanf(text.c_str(), "%llu h %llu min %llu s%7s", &h, &m, &s, rest) != 3 || m >= 60 ||
        s >= 60 || h * 3600 + m * 60 + s != Tail(slice, 8))
      __builtin_trap();
  } else if (type == "float32" || type == "double") {
    if (!got.ok) __builtin_trap();
    double value = 0;
    if (type == "float32") {
      const auto bits = static_cast<uint32_t>(Tail(slice, 4));
      float f;
      std::memcpy(&f, &bits, sizeof f);
      value = static_cast<double>(f) * static_cast<double>(coefficient);
    } else {
      const uint64_t bits = Tail(slice, 8);
      std::memcpy(&value, &bits, sizeof value);
      value *= static_cast<double>(coefficient);
    }
    CheckFixed2(text, value);
  } else if (type == "uint8") {
    CheckInteger<uint8_t>(type, slice, coefficient, text);
  } else if (type == "uint16") {
    CheckInteger<uint16_t>(type, slice, coefficient, text);
  } else if (type == "uint32") {
    CheckInteger<uint32_t>(type, slice, coefficient, text);
  } else if (type == "uint64") {
    CheckInteger<uint64_t>(type, slice, coefficient, text);
  } else if (type == "int8") {
    CheckInteger<int8_t>(type, slice, coefficient, text);
  } else if (type == "int16") {
    CheckInteger<int16_t>(type, slice, coefficient, text);
  } else if (type == "int32") {
    CheckInteger<int32_t>(type, slice, coefficient, text);
  } else if (type == "int64") {
    CheckInteger<int64_t>(type, slice, coefficient, text);
  } else if (got.ok) {
    // Types without a display (raw fields, misspelt names) are a configuration fault.
    __builtin_trap();
  }
  return 0;
}
