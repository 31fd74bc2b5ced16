// Qt Quick Test runner for the main window: every test builds the real main.qml on a
// fresh controller, connected (when it connects) to an in-process virtual lidar.

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QQmlComponent>
#include <QQmlContext>
#include <QQmlEngine>
#include <QQuickItem>
#include <QTemporaryDir>
#include <QtQuickTest>

#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "varkel_manager.h"
#include "virtual_lidar.h"

namespace {

// The program's controller is once per process; tests make one per window instead.
class TestManager : public VarkelManager {
 public:
  TestManager() : VarkelManager(true, QStringLiteral("./Config/varID/Quenta.csv")) {}
};

class Harness : public QObject {
  Q_OBJECT
  Q_PROPERTY(int simPort READ simPort CONSTANT)

 public:
  explicit Harness(varkel::sim::VirtualLidar* sim) : sim_(sim) {}

  void SetEngine(QQmlEngine* engine) { engine_ = engine; }
  int simPort() const { return sim_->port(); }

  // main.qml under `parent`, bound to a new controller that has loaded "Quenta" and was
  // given `vmName` the way the main window gives the -moduleVM= argument.
  Q_INVOKABLE QQuickItem* createMainWindow(QQuickItem* parent, const QString& vmName) {
    Window w;
    w.manager = new TestManager();
    w.manager->InitConfigFileParser(QStringLiteral("Quenta"));
    w.manager->SetVMNowName(vmName);
    w.context = new QQmlContext(engine_->rootContext());
    w.context->setContextProperty(QStringLiteral("varkel_manager"), w.manager);
    QQmlComponent component(engine_, QUrl(QStringLiteral("qrc:/Qml/main.qml")));
    QObject* created = component.create(w.context);
    if (created == nullptr) {
      std::fprintf(stderr, "main.qml: %s\n", qPrintable(component.errorString()));
      delete w.context;
      delete w.manager;
      return nullptr;
    }
    w.item = qobject_cast<QQuickItem*>(created);
    w.item->setParentItem(parent);
    windows_.push_back(w);
    return w.item;
  }

  Q_INVOKABLE void destroyMainWindow(QQuickItem* item) {
    for (auto it = windows_.begin(); it != windows_.end(); ++it) {
      if (it->item != item) continue;
      delete it->item;
      delete it->manager;
      delete it->context;
      windows_.erase(it);
      // Signals the controller's threads sent just before it stopped are still queued;
      // deliver them (and the deferred deletions they cause) while their targets are known.
      QCoreApplication::processEvents();
      QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
      return;
    }
  }

  Q_INVOKABLE QObject* managerOf(QQuickItem* item) const {
    for (const auto& w : windows_)
      if (w.item == item) return w.manager;
    return nullptr;
  }

  Q_INVOKABLE QString simValue(const QString& name) const {
    return QString::fromStdString(sim_->Value(name.toStdString()));
  }
  Q_INVOKABLE bool setSimValue(const QString& name, const QString& text) {
    return sim_->SetValue(name.toStdString(), text.toStdString());
  }
  Q_INVOKABLE void setLinkLost(bool lost) { sim_->SetLinkLost(lost); }
  Q_INVOKABLE void delayCommand(int cmd, int ms) { sim_->SetFailure(varkel::sim::FailureMode::kDelay, cmd, ms); }
  Q_INVOKABLE void clearFailures() { sim_->ClearFailures(); }
  Q_INVOKABLE int commandCount(int cmd) const {
    return static_cast<int>(sim_->CommandCount(static_cast<uint8_t>(cmd)));
  }
  Q_INVOKABLE void resetCounters() { sim_->ResetCounters(); }

 private:
  struct Window {
    QQuickItem* item = nullptr;
    TestManager* manager = nullptr;
    QQmlContext* context = nullptr;
  };
  varkel::sim::VirtualLidar* sim_;
  QQmlEngine* engine_ = nullptr;
  std::vector<Window> windows_;
};

class Setup : public QObject {
  Q_OBJECT

 public:
  explicit Setup(Harness* harness) : harness_(harness) {}

 public slots:
  void qmlEngineAvailable(QQmlEngine* engine) {
    harness_->SetEngine(engine);
    engine->rootContext()->setContextProperty(QStringLiteral("harness"), harness_);
  }

 private:
  Harness* harness_;
};

}  // namespace

int main(int argc, char** argv) {
  // Settings go to a private home, so neither the user's own file nor another test's is
  // read or written; it names the virtual lidar.
  QTemporaryDir home;
  if (!home.isValid()) return 1;
  qputenv("HOME", home.path().toLocal8Bit());
  qputenv("XDG_CONFIG_HOME", (home.path() + "/.config").toLocal8Bit());
  qputenv("XDG_RUNTIME_DIR", (home.path() + "/run").toLocal8Bit());
  QDir().mkpath(home.path() + "/run");
  QFile::setPermissions(home.path() + "/run", QFileDevice::ReadOwner | QFileDevice::WriteOwner | QFileDevice::ExeOwner);
  if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM")) qputenv("QT_QPA_PLATFORM", "offscreen");
  // The offscreen platform has no OpenGL; Qt Quick's software renderer draws instead.
  if (qEnvironmentVariableIsEmpty("QT_QUICK_BACKEND")) qputenv("QT_QUICK_BACKEND", "software");

  // The tables are read from ./Config/varID, as in the program's install root.
  QDir::setCurrent(QStringLiteral(VARKEL_BINARY_DIR));

  varkel::sim::SimOptions options;
  options.model = "Quenta";
  options.config_dir = VARKEL_BINARY_DIR "/Config/varID";
  options.port = 0;
  options.live_values = false;
  varkel::sim::VirtualLidar sim(options);
  std::string error;
  if (!sim.Start(&error)) {
    std::fprintf(stderr, "virtual lidar: %s\n", error.c_str());
    return 1;
  }

  const QString settings_dir = home.path() + "/Documents/VelmoraDataFiles";
  QDir().mkpath(settings_dir);
  QFile ini(settings_dir + "/RecvSettings.ini");
  if (!ini.open(QIODevice::WriteOnly)) return 1;
  ini.write(QStringLiteral("[General]\ndevice_ip_address=127.0.0.1\nktc_port=%1\n").arg(sim.port()).toUtf8());
  ini.close();

  Harness harness(&sim);
  Setup setup(&harness);
  const int status = quick_test_main_with_setup(argc, argv, "app_qml_tests", VARKEL_QML_TEST_DIR, &setup);
  sim.Stop();
  return status;
}

#include "qml_test_main.moc"
