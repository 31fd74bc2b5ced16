#include "number_text.h"

#include <locale.h>

#include <cctype>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <stdexcept>

namespace varkel {
namespace {

// Qt sets the process locale from the environment; a German desktop would otherwise
// read "1,5" as a number and "1.5" as 1.
locale_t CLocale() {
  static const locale_t loc = newlocale(LC_ALL_MASK, "C", static_cast<locale_t>(nullptr));
  return loc;
}

bool OnlyBlanksFrom(const char* p) {
  while (*p != '\0' && std::isspace(static_cast<unsigned char>(*p))) ++p;
  return *p == '\0';
}

}  // namespace

int Stoi(const std::string& text, int base) {
  const char* begin = text.c_str();
  char* end = nullptr;
  errno = 0;
  const long value = strtol_l(begin, &end, base, CLocale());
  if (end == begin) throw std::invalid_argument("invalid stoi argument");
  if (errno == ERANGE || value < INT_MIN || value > INT_MAX) throw std::out_of_range("stoi argument out of range");
  return static_cast<int>(value);
}

float Stof(const std::string& text) {
  const char* begin = text.c_str();
  char* end = nullptr;
  errno = 0;
  const float value = strtof_l(begin, &end, CLocale());
  if (end == begin) throw std::invalid_argument("invalid stof argument");
  if (errno == ERANGE) throw std::out_of_range("stof argument out of range");
  return value;
}

double Stod(const std::string& text) {
  const char* begin = text.c_str();
  char* end = nullptr;
  errno = 0;
  const double value = strtod_l(begin, &end, CLocale());
  if (end == begin) throw std::invalid_argument("invalid stod argument");
  if (errno == ERANGE) throw std::out_of_range("stod argument out of range");
  return value;
}

bool IsNumberText(const std::string& text) {
  const char* begin = text.c_str();
  char* end = nullptr;
  // Long double so that a value too large for a float or a double still counts as a
  // number here and reaches the codec's own out-of-range refusal.
  errno = 0;
  strtold_l(begin, &end, CLocale());
  if (end != begin && errno != ERANGE && OnlyBlanksFrom(end)) return true;
  errno = 0;
  strtoll_l(begin, &end, 10, CLocale());
  return end != begin && errno != ERANGE && OnlyBlanksFrom(end);
}

}  // namespace varkel
