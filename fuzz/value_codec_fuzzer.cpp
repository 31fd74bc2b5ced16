// A typed-in value encoded for a set payload by the codec of every VarType, and the bytes
// checked: the width of the type, a refusal only as std::invalid_argument, and where the
// page shows exactly what was sent, the shown text encodes again to the same bytes.
//   [0] the type; [1] the coefficient: 1, 0.1, 0.01, 10, or (>= 4) the float in [2..5]
//   the rest: the text.
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <stdexcept>
#include <string>
#include <vector>

#include "coefficient_choice.h"
#include "number_text.h"
#include "str_parser.h"
#include "value_text.h"

namespace {

using Bytes = std::vector<uint8_t>;

struct Codec {
  const char* type;
  size_t width;
  bool shown_exactly;  // the page's text of the bytes is the value itself, not rounded
};
const Codec kCodecs[] = {{"IP", 4, true},     {"MAC", 6, false},   {"uint8", 1, true},    {"uint16", 2, true},
                         {"uint32", 4, true}, {"uint64", 8, true}, {"int8", 1, true},     {"int16", 2, true},
                         {"int32", 4, true},  {"int64", 8, true},  {"float32", 4, false}, {"double", 8, false},
                         {"raw", 0, false}};

// The number conversions the codecs use: a text they call a number converts, or is out of range.
void CheckNumberText(const std::string& text) {
  if (!varkel::IsNumberText(text)) return;
  try {
    varkel::Stod(text);
  } catch (const std::out_of_range&) {
  }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  // The raw codec prints "not developed" for every value.
  if (std::freopen("/dev/null", "w", stdout) == nullptr) return 0;
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 2) return 0;
  const Codec& c = kCodecs[data[0] % (sizeof(kCodecs) / sizeof(kCodecs[0]))];
  float coefficient = 1.0f;
  size_t at = 0;
  if (!ChooseCoefficient(data, size, coefficient, at)) return 0;
  const std::string text(reinterpret_cast<const char*>(data + at), size - at);
  CheckNumberText(text);

  const auto codec = MakeStrParser(c.type);
  if (!codec) __builtin_trap();
  Bytes bytes;
  try {
    bytes = codec->ParseToBytes(text, coefficient);
  } catch (const std::invalid_argument&) {
    return 0;
  }
  if (bytes.size() != c.width) __builtin_trap();
  if (!c.shown_exactly || coefficient != 1.0f) return 0;

  // Sent, read back and shown, then saved unchanged: the same bytes go out again.
  const varkel::ValueText shown = varkel::BytesToValueText(c.type, bytes, 1.0f);
  if (!shown.ok) __builtin_trap();
  if (codec->ParseToBytes(shown.text, 1.0f) != bytes) __builtin_trap();
  return 0;
}
