#pragma once
// The coefficient a fuzz input chooses with its second byte: 1, the common scales 0.1,
// 0.01 and 10, or (any other value) the next four bytes as a float bit pattern, NaN and
// infinities included. `at` becomes the first byte after the choice; false when the input
// is too short to hold it.
#include <cstddef>
#include <cstdint>
#include <cstring>

inline bool ChooseCoefficient(const uint8_t* data, size_t size, float& coefficient, size_t& at) {
  if (size < 2) return false;
  at = 2;
  switch (data[1]) {
    case 0:
      coefficient = 1.0f;
      return true;
    case 1:
      coefficient = 0.1f;
      return true;
    case 2:
      coefficient = 0.01f;
      return true;
    case 3:
      coefficient = 10.0f;
      return true;
    default:
      if (size < 6) return false;
      std::memcpy(&coefficient, data + 2, sizeof coefficient);
      at = 6;
      return true;
  }
}
