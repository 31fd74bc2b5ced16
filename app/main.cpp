// Start-up: renderer, look, install root, fonts, identity, then the one main window.

#include <QApplication>
#include <QDebug>
#include <QDir>
#include <QFileInfo>
#include <QFont>
#include <QIcon>
#include <cstdio>

#include "font_loader.h"
#include "install_root.h"
#include "journal.h"
#include "mainwindow.h"
#include "module_arg.h"
#include "palette.h"
#include "quit_on_signal.h"
#include "render_choice.h"
#include "scale_factor.h"
#include "screen_metrics.h"
#include "varkel_version.h"

namespace {

constexpr const char* kWindowIconPath = "png/Varkel-LOGO-black.svg";

// Steps that must run before the application object exists, so the scale factor counts.
QPalette PrepareBeforeApplication(int argc, char** argv) {
  // First: the screen probe below starts Qt already.
  varkel::app::PreferSoftwareRendering();
  QPalette palette = varkel::app::BuildVarkelPalette();
  QCoreApplication::setAttribute(Qt::AA_DisableHighDpiScaling);
  const varkel::app::ScaleDecision d =
      varkel::app::ComputeScaleFactor(varkel::app::ReadPrimaryScreenMetrics(argc, argv));
  qDebug() << "main"
           << "dpi=" << d.dpi << "scale=" << d.scale;
  qputenv("QT_SCALE_FACTOR", varkel::app::FormatScaleFactor(d.scale));
  return palette;
}

void SetWindowIcon() {
  const QFileInfo icon(QString::fromLatin1(kWindowIconPath));
  if (icon.exists()) {
    QApplication::setWindowIcon(QIcon(icon.filePath()));
  } else {
    qWarning().noquote() << "[Varkel] Window icon missing absolutePath:" << icon.absoluteFilePath();
  }
}

}  // namespace

int main(int argc, char* argv[]) {
  const QString answer = varkel::app::EarlyAnswer(argc, argv);
  if (!answer.isEmpty()) {
    std::fputs(answer.toLocal8Bit().constData(), stdout);
    return 0;
  }
  const QPalette palette = PrepareBeforeApplication(argc, argv);

  QApplication app(argc, argv);
  quarn::journal::SetProgram("varkel");
  varkel::app::QuitOnTerminationSignals(app);

  const QString root = varkel::app::ResolveInstallRoot(QCoreApplication::applicationDirPath());
  QDir::setCurrent(root);

  const QString family = varkel::app::LoadVarkelFonts();
  QApplication::setPalette(palette);
  QFont font;
  if (!family.isEmpty()) font.setFamily(family);
  QApplication::setFont(font);

  QCoreApplication::setOrganizationName(QStringLiteral("QuarnTech"));
  QCoreApplication::setOrganizationDomain(QStringLiteral("quarntech.example"));
  QCoreApplication::setApplicationVersion(QStringLiteral(VARKEL_VERSION));

  SetWindowIcon();

  const QString module_name = varkel::app::ParseModuleVmArg(argc, argv);

  MainWindow window(nullptr, module_name);
  window.setPalette(palette);
  window.show();
  return app.exec();
}
