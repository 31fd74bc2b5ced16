#include "render_choice.h"

#include <QByteArray>
#include <QtGlobal>

namespace varkel::app {

void PreferSoftwareRendering() {
  if (qEnvironmentVariableIsSet("QT_QUICK_BACKEND")) return;
  qputenv("QT_QUICK_BACKEND", QByteArrayLiteral("software"));
  if (!qEnvironmentVariableIsSet("QT_XCB_GL_INTEGRATION")) qputenv("QT_XCB_GL_INTEGRATION", QByteArrayLiteral("none"));
}

}  // namespace varkel::app
