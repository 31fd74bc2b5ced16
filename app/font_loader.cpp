#include "font_loader.h"

#include <QDebug>
#include <QFileInfo>
#include <QFontDatabase>

namespace varkel::app {

int loadApplicationFont(const QString& path, const QString& tag) {
  const QFileInfo info(path);
  if (!info.exists() || !info.isFile()) {
    qWarning().noquote() << "[Varkel] Font file missing:" << tag << "absolutePath:" << info.absoluteFilePath();
    return -1;
  }
  const int id = QFontDatabase::addApplicationFont(path);
  if (id < 0) {
    qWarning().noquote() << "[Varkel] addApplicationFont failed:" << tag << "absolutePath:" << info.absoluteFilePath()
                         << "id:" << id;
  }
  return id;
}

QString LoadVarkelFonts() {
  // The bold face only has to be registered, so that QML can ask for it by weight.
  loadApplicationFont(QString::fromLatin1(kBoldFontPath), QStringLiteral("Roboto-Bold"));
  const QString regular = QString::fromLatin1(kRegularFontPath);
  const int id = loadApplicationFont(regular, QStringLiteral("Roboto-Regular"));
  if (id < 0) return {};
  const QStringList families = QFontDatabase::applicationFontFamilies(id);
  if (families.isEmpty()) {
    qWarning().noquote() << "[Varkel] applicationFontFamilies empty for"
                         << "Roboto-Regular absolutePath:" << QFileInfo(regular).absoluteFilePath();
    return {};
  }
  return families.first();
}

}  // namespace varkel::app
