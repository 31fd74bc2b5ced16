#pragma once
// Text-to-number conversions for table cells and typed-in values. They follow the
// standard conversions (leading blanks skipped, a valid prefix is enough) but read in
// the C locale whatever the process locale is, and their errors carry the fixed texts
// that users and tables see: "invalid stoi argument", "stoi argument out of range",
// and the same for stof and stod.

#include <string>

namespace varkel {

// std::invalid_argument / std::out_of_range with the texts above.
int Stoi(const std::string& text, int base = 10);
float Stof(const std::string& text);
double Stod(const std::string& text);

// The number check of the value codecs: the whole text (surrounding blanks allowed)
// is a floating-point number, or else a base-10 integer, in the C locale.
bool IsNumberText(const std::string& text);

}  // namespace varkel
