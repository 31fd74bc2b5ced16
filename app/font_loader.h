#pragma once
// Loading the program's own font files (needs a QGuiApplication).

#include <QString>

namespace varkel::app {

inline constexpr const char* kBoldFontPath = "fonts/Roboto-Bold-3.ttf";
inline constexpr const char* kRegularFontPath = "fonts/Roboto-Regular-14.ttf";

// Registers one font file; -1 when it is missing or not a regular file, otherwise the
// font database's id (negative when the file is not a usable font). Logs each failure.
int loadApplicationFont(const QString& path, const QString& tag);

// Loads the bold then the regular font (paths relative to the current directory) and
// returns the regular font's first family, or an empty text when it cannot be had.
QString LoadVarkelFonts();

}  // namespace varkel::app
