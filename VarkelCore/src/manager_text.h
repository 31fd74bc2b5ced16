#pragma once
// Small helpers the controller's files share: the text of a library string for the
// interface, and a progress line on standard output.

#include <QString>
#include <cstdio>
#include <string>

namespace manager_text {

inline QString Q(const std::string& text) {
  return QString::fromStdString(text);
}

// Flushed at once, so the lines keep their order with the log's.
inline void Print(const char* text) {
  std::fputs(text, stdout);
  std::fflush(stdout);
}

}  // namespace manager_text
