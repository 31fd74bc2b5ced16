#include "install_root.h"

#include <QDebug>
#include <QDir>
#include <QFileInfo>

namespace varkel::app {

InstallRootChoice ChooseInstallRoot(const QString& app_dir) {
  InstallRootChoice c;
  c.parent = QDir::cleanPath(QDir(app_dir).absoluteFilePath(QStringLiteral("..")));
  const QString marker = QString::fromLatin1(kInstallRootMarker);
  if (QFileInfo::exists(QDir(c.parent).filePath(marker))) {
    c.root = c.parent;
    c.marker_found = true;
  } else if (QFileInfo::exists(QDir(app_dir).filePath(marker))) {
    c.root = app_dir;
    c.marker_found = true;
  } else {
    c.root = c.parent;
  }
  return c;
}

QString ResolveInstallRoot(const QString& app_dir) {
  const InstallRootChoice c = ChooseInstallRoot(app_dir);
  if (!c.marker_found) {
    qWarning().noquote() << "[Varkel] install root heuristic: missing" << kInstallRootMarker << "in" << app_dir << "and"
                         << c.parent << QStringLiteral("\u2014") + " using parent of exe dir:" << c.parent;
  }
  qDebug().noquote() << "[Varkel] applicationDirPath:" << app_dir << "installRoot:" << c.root;
  return c.root;
}

}  // namespace varkel::app
