#include "install_root.h"

#include <QDebug>

#include "data_root.h"

namespace varkel::app {

InstallRootChoice ChooseInstallRoot(const QString& app_dir) {
  InstallRootChoice c;
  const std::string dir = app_dir.toStdString();
  for (const std::string& candidate : quarn::DataRootCandidates(dir)) c.tried << QString::fromStdString(candidate);
  c.parent = c.tried.first();
  const std::string found = quarn::FindDataRoot(dir, kInstallRootMarker);
  c.marker_found = !found.empty();
  c.root = c.marker_found ? QString::fromStdString(found) : c.parent;
  return c;
}

QString ResolveInstallRoot(const QString& app_dir) {
  const InstallRootChoice c = ChooseInstallRoot(app_dir);
  if (!c.marker_found) {
    qWarning().noquote() << "[Varkel] install root heuristic: missing" << kInstallRootMarker << "in"
                         << c.tried.join(QStringLiteral(", "))
                         << QStringLiteral("\u2014") + " using parent of exe dir:" << c.parent;
  }
  qDebug().noquote() << "[Varkel] applicationDirPath:" << app_dir << "installRoot:" << c.root;
  return c.root;
}

}  // namespace varkel::app
