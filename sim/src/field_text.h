#pragma once
// Display text <-> field bytes of one variable, by its type and coefficient.
// The simulator keeps its own encoder: the program's codecs write only the writable
// types (and refuse uint32 values >= 1 on purpose), while a sensor must also produce the
// read-only ones ("string", "HWVER", "SWVER_YMD", "DT"). The decoder gives the text the
// program shows for a reply slice, so the simulator can say what the user should see.

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace varkel::sim {

// Text -> exactly `len` bytes for a field of `type`. Numbers are display values: the
// raw value sent is text / coefficient, rounded to the nearest integer for integer
// types. nullopt when the text does not fit the type or the field.
std::optional<std::vector<uint8_t>> EncodeValueText(const std::string& type, const std::string& text, float coefficient,
                                                    size_t len);

// Field bytes -> the text the program shows. nullopt for types the program does not
// decode, or slices of a size the type refuses ("MAC" < 6, "HWVER"/"SWVER_YMD" != 16).
std::optional<std::string> DecodeValueText(const std::string& type, const std::vector<uint8_t>& bytes,
                                           float coefficient);

// The shown numeric value of a numeric field (raw x coefficient); nullopt for other types.
std::optional<double> DecodeNumber(const std::string& type, const std::vector<uint8_t>& bytes, float coefficient);
// The inverse for numeric types: shown value -> field bytes (rounding, range-checked).
std::optional<std::vector<uint8_t>> EncodeNumber(const std::string& type, double shown, float coefficient, size_t len);

bool IsNumericType(const std::string& type);

}  // namespace varkel::sim
