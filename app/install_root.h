#pragma once
// Finding the install root: the folder that holds fonts/, png/ and Config/varID/.

#include <QString>

namespace varkel::app {

// The file whose presence marks an install root.
inline constexpr const char* kInstallRootMarker = "fonts/Roboto-Regular-14.ttf";

struct InstallRootChoice {
  QString root;
  QString parent;  // absolute path of appDir/..
  bool marker_found = false;
};

// Pure choice: the parent of the executable's folder first (the executable normally
// sits in bin/ below the root), then the folder itself, else the parent anyway.
InstallRootChoice ChooseInstallRoot(const QString& app_dir);

// The choice with its log lines: a warning when no marker was found, then the debug
// line naming both folders.
QString ResolveInstallRoot(const QString& app_dir);

}  // namespace varkel::app
