#pragma once
// Finding the install root: the folder that holds fonts/, png/ and Config/varID/.

#include <QString>
#include <QStringList>

namespace varkel::app {

// The file whose presence marks an install root.
inline constexpr const char* kInstallRootMarker = "fonts/Roboto-Regular-14.ttf";

struct InstallRootChoice {
  QString root;
  QString parent;     // absolute path of appDir/..
  QStringList tried;  // the folders asked, in order
  bool marker_found = false;
};

// Pure choice: the parent of the executable's folder first (the executable normally
// sits in bin/ below the root), then the folder itself, then <parent>/share/varkel (a
// package's layout), else the parent anyway.
InstallRootChoice ChooseInstallRoot(const QString& app_dir);

// The choice with its log lines: a warning naming the folders tried when no marker was
// found, then the debug line naming the executable's folder and the root.
QString ResolveInstallRoot(const QString& app_dir);

}  // namespace varkel::app
