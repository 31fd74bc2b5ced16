#pragma once
// Names of parameterised tests, shared so each table test does not carry its own lambda.

#include <gtest/gtest.h>

#include <cctype>
#include <string>

namespace vktest {

// A gtest name from the text naming a table row: its letters and digits.
inline std::string ParamName(const std::string& text) {
  std::string name;
  for (char c : text)
    if (std::isalnum(static_cast<unsigned char>(c))) name += c;
  return name;
}

// The small sensors' two links: the serial lines or KTC over the network.
inline std::string LinkName(const ::testing::TestParamInfo<bool>& info) {
  return info.param ? "Serial" : "Ktc";
}

}  // namespace vktest
