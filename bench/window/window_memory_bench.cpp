// The window's resident memory: the real main window connected to the virtual lidar (in a
// child process) on loopback, after every page was shown once. One process per model, so
// no figure carries another model's pages. Prints VmRSS and VmHWM and their ratio to the
// 130 MiB target; exits 1 when a model is over it or cannot be measured.
// usage: window_memory_bench [MODEL...]   (default: Quenta Zelto-KTC)

#include <QApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QFont>
#include <QGuiApplication>
#include <QQuickItem>
#include <QQuickView>
#include <QTemporaryDir>
#include <QThread>

#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <string>
#include <vector>

#include "common/forked_simulator.h"
#include "font_loader.h"
#include "install_root.h"
#include "mainwindow.h"
#include "palette.h"
#include "render_choice.h"
#include "varkel_manager.h"

namespace {

constexpr double kTargetMiB = 130.0;

// A field of /proc/self/status in MiB, or -1.
double StatusMiB(const std::string& field) {
  std::ifstream in("/proc/self/status");
  std::string line;
  while (std::getline(in, line))
    if (line.rfind(field + ":", 0) == 0) return std::strtod(line.c_str() + field.size() + 1, nullptr) / 1024.0;
  return -1;
}

bool WaitUntil(const std::function<bool()>& done, int timeout_ms) {
  QElapsedTimer timer;
  timer.start();
  while (!done()) {
    if (timer.elapsed() > timeout_ms) return false;
    QCoreApplication::processEvents(QEventLoop::AllEvents, 20);
    QThread::msleep(2);
  }
  return true;
}

// Shows `page` of the tab stack and waits until the view drew a frame with it.
bool ShowPage(QQuickView* view, QObject* tabs, int page, int& frames) {
  const int before = frames;
  tabs->setProperty("currentIndex", page);
  return WaitUntil([&] { return frames > before; }, 10000);
}

int Measure(const std::string& model, int argc, char** argv) {
  QTemporaryDir home;
  // Never the user's own settings.
  qputenv("HOME", home.path().toLocal8Bit());
  qputenv("XDG_CONFIG_HOME", (home.path() + "/.config").toLocal8Bit());
  qputenv("XDG_DATA_HOME", (home.path() + "/.local/share").toLocal8Bit());
  if (qEnvironmentVariableIsEmpty("DISPLAY") && qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM"))
    qputenv("QT_QPA_PLATFORM", "offscreen");
  // As the program starts (the screen's scale factor aside, which does not change what is loaded).
  varkel::app::PreferSoftwareRendering();
  const QPalette palette = varkel::app::BuildVarkelPalette();
  QCoreApplication::setAttribute(Qt::AA_DisableHighDpiScaling);
  QApplication app(argc, argv);
  const QString root = varkel::app::ResolveInstallRoot(QCoreApplication::applicationDirPath());
  QDir::setCurrent(root);
  const QString family = varkel::app::LoadVarkelFonts();
  QApplication::setPalette(palette);
  QFont font;
  if (!family.isEmpty()) font.setFamily(family);
  QApplication::setFont(font);

  bench::ForkedSimulator simulator(model, (root + "/Config/varID").toStdString());
  if (simulator.port() == 0) {
    std::fprintf(stderr, "%s: the virtual lidar did not start\n", model.c_str());
    return 1;
  }

  auto* window = new MainWindow(nullptr, QString::fromStdString(model));
  window->setPalette(palette);
  window->show();
  QQuickView* view = nullptr;
  for (QWindow* w : QGuiApplication::allWindows())
    if (auto* v = qobject_cast<QQuickView*>(w)) view = v;
  QObject* ui = view ? view->rootObject() : nullptr;
  if (ui == nullptr) {
    std::fprintf(stderr, "%s: no window\n", model.c_str());
    return 1;
  }
  int frames = 0;
  QObject::connect(view, &QQuickWindow::frameSwapped, [&frames] { ++frames; });

  {
    const int before = frames;
    view->update();
    WaitUntil([&] { return frames > before; }, 10000);
  }
  const double shown_rss = StatusMiB("VmRSS");

  auto* manager = VarkelManager::GetInstance(true, "");
  manager->setProperty("ip_address", QStringLiteral("127.0.0.1"));
  manager->setProperty("port", QString::number(simulator.port()));
  QMetaObject::invokeMethod(ui, "pressConnect");
  if (!WaitUntil([&] { return manager->getIsConnected() && !manager->GetIsConnectingLidar(); }, 20000)) {
    std::fprintf(stderr, "%s: not connected\n", model.c_str());
    return 1;
  }

  // Every tab once (the model's pages, Log, Send Command), then back to the first; the
  // small sensors have one page, shown from the start.
  int pages = 1;
  auto* tabs = ui->findChild<QObject*>(QStringLiteral("pageTabs"));
  if (tabs != nullptr && ui->property("connectType").toInt() == 0) {
    pages = tabs->property("count").toInt();
    for (int page = 0; page <= pages; ++page)
      if (!ShowPage(view, tabs, page % pages, frames)) {
        std::fprintf(stderr, "%s: page %d was never drawn\n", model.c_str(), page % pages);
        return 1;
      }
  } else {
    const int before = frames;
    view->update();
    if (!WaitUntil([&] { return frames > before; }, 10000)) {
      std::fprintf(stderr, "%s: the page was never drawn\n", model.c_str());
      return 1;
    }
  }

  const double rss = StatusMiB("VmRSS");
  const double hwm = StatusMiB("VmHWM");
  const bool over = rss > kTargetMiB;
  std::printf(
      "%-10s %2d pages shown: VmRSS %.1f MiB (%.1f MiB before connecting), VmHWM %.1f MiB; target %.0f MiB, ratio "
      "%.2f%s (platform %s)\n",
      model.c_str(), pages, rss, shown_rss, hwm, kTargetMiB, rss / kTargetMiB, over ? "  OVER TARGET" : "",
      qPrintable(QGuiApplication::platformName()));
  std::fflush(stdout);
  manager->Stop();
  delete window;
  return over ? 1 : 0;
}

}  // namespace

int main(int argc, char** argv) {
  std::vector<std::string> models;
  for (int i = 1; i < argc; ++i) models.emplace_back(argv[i]);
  if (models.empty()) models = {"Quenta", "Zelto-KTC"};
  int status = 0;
  for (const std::string& model : models) {
    // A process of its own for each: the controller is made once per process, and the
    // figure must not carry what another model's pages left behind.
    const pid_t child = fork();
    if (child == 0) _exit(Measure(model, 1, argv));
    int child_status = 1;
    if (child < 0 || waitpid(child, &child_status, 0) != child || !WIFEXITED(child_status) ||
        WEXITSTATUS(child_status) != 0)
      status = 1;
  }
  return status;
}
