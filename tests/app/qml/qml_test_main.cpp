// Qt Quick Test runner for the main window: every test builds the real main.qml on a
// fresh controller, connected (when it connects) to an in-process virtual lidar.

#include <QApplication>
#include <QCoreApplication>
#include <QDir>
#include <QDropEvent>
#include <QFile>
#include <QMimeData>
#include <QQmlComponent>
#include <QQmlContext>
#include <QQmlEngine>
#include <QQuickItem>
#include <QQuickWindow>
#include <QTemporaryDir>
#include <QtQuickTest>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "listening.h"
#include "test_certificates.h"
#include "varkel_manager.h"
#include "virtual_lidar.h"

namespace {

// The program's controller is once per process; tests make one per window instead.
class TestManager : public VarkelManager {
 public:
  TestManager() : VarkelManager(true, QStringLiteral("./Config/varID/Quenta.csv")) {}
};

// Published to the tests as `harness`; also Qt Quick Test's setup object.
class Harness : public QObject {
  Q_OBJECT

 public:
  explicit Harness(varkel::sim::VirtualLidar* sim) : sim_(sim) {}

  // main.qml under `parent` on a new controller with "Quenta" loaded, as in the main window.
  Q_INVOKABLE QQuickItem* createMainWindow(QQuickItem* parent) {
    manager_ = new TestManager();
    manager_->InitConfigFileParser(QStringLiteral("Quenta"));
    context_ = new QQmlContext(engine_->rootContext());
    context_->setContextProperty(QStringLiteral("varkel_manager"), manager_);
    QQmlComponent component(engine_, QUrl(QStringLiteral("qrc:/Qml/main.qml")));
    item_ = qobject_cast<QQuickItem*>(component.create(context_));
    if (item_ == nullptr)
      std::fprintf(stderr, "main.qml: %s\n", qPrintable(component.errorString()));
    else
      item_->setParentItem(parent);
    return item_;
  }
  Q_INVOKABLE QObject* manager() const { return manager_; }

  Q_INVOKABLE void destroyMainWindow() {
    delete std::exchange(item_, nullptr);
    delete std::exchange(manager_, nullptr);
    delete std::exchange(context_, nullptr);
    // Signals the controller's threads sent just before it stopped are still queued;
    // deliver them (and the deferred deletions they cause) while their targets are known.
    QCoreApplication::processEvents();
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
  }

  // Drags `urls` from outside the window onto the middle of `target` and drops them there,
  // through the window's own event handling as a drop from a file manager would arrive.
  Q_INVOKABLE void dropUrls(QQuickItem* target, const QStringList& urls) {
    QQuickWindow* window = target != nullptr ? target->window() : nullptr;
    if (window == nullptr) return;
    QMimeData data;
    QList<QUrl> list;
    for (const QString& u : urls) list << QUrl(u);
    data.setUrls(list);
    const QPoint at = target->mapToScene(QPointF(target->width() / 2, target->height() / 2)).toPoint();
    QDragEnterEvent enter(at, Qt::CopyAction, &data, Qt::LeftButton, Qt::NoModifier);
    QCoreApplication::sendEvent(window, &enter);
    QDragMoveEvent move(at, Qt::CopyAction, &data, Qt::LeftButton, Qt::NoModifier);
    QCoreApplication::sendEvent(window, &move);
    QDropEvent drop(at, Qt::CopyAction, &data, Qt::LeftButton, Qt::NoModifier);
    QCoreApplication::sendEvent(window, &drop);
  }

  Q_INVOKABLE QString simValue(const QString& name) const {
    return QString::fromStdString(sim_->Value(name.toStdString()));
  }
  Q_INVOKABLE bool setSimValue(const QString& name, const QString& text) {
    return sim_->SetValue(name.toStdString(), text.toStdString());
  }
  Q_INVOKABLE void setLinkLost(bool lost) { sim_->SetLinkLost(lost); }
  // A UDP port nobody holds now (bound once, then released).
  Q_INVOKABLE int freeUdpPort() const { return vktest::FreeUdpPort(); }
  // A second virtual lidar of the same model serving TLS with the run-time certificate
  // `cert` ("sensor", "self", ...); its port, 0 when it did not start.
  Q_INVOKABLE int startTlsSim(const QString& cert) {
    if (!pki_) pki_ = std::make_unique<simtest::TestPki>();
    auto sim = simtest::StartTlsLidar(*pki_, "Quenta", VARKEL_BINARY_DIR "/Config/varID", cert.toStdString());
    if (!sim) return 0;
    tls_sims_.push_back(std::move(sim));
    return tls_sims_.back()->port();
  }
  // Every test starts from the same settings file: a connect writes what it used (a TLS
  // test's port and switch) for the next window to start with.
  void SetSettings(const QString& path, const QByteArray& text) {
    settings_path_ = path;
    settings_text_ = text;
    restoreSettings();
  }
  Q_INVOKABLE void restoreSettings() {
    QFile ini(settings_path_);
    if (ini.open(QIODevice::WriteOnly | QIODevice::Truncate)) ini.write(settings_text_);
  }
  Q_INVOKABLE QString pkiFile(const QString& name) const {
    return pki_ ? QString::fromStdString(pki_->Cert(name.toStdString())) : QString();
  }
  // The sensor's five start and five end angles, in hundredths of a degree.
  Q_INVOKABLE void setFov(const QVariantList& start, const QVariantList& end) {
    varkel::sim::FovBlock::Angles s{}, e{};
    for (size_t i = 0; i < s.size() && i < static_cast<size_t>(start.size()); ++i)
      s[i] = static_cast<uint16_t>(start[static_cast<int>(i)].toUInt());
    for (size_t i = 0; i < e.size() && i < static_cast<size_t>(end.size()); ++i)
      e[i] = static_cast<uint16_t>(end[static_cast<int>(i)].toUInt());
    sim_->SetFov(s, e);
  }
  Q_INVOKABLE void delayCommand(int cmd, int ms) { sim_->SetFailure(varkel::sim::FailureMode::kDelay, cmd, ms); }
  Q_INVOKABLE void clearFailures() { sim_->ClearFailures(); }
  Q_INVOKABLE int commandCount(int cmd) const {
    return static_cast<int>(sim_->CommandCount(static_cast<uint8_t>(cmd)));
  }
  Q_INVOKABLE void resetCounters() { sim_->ResetCounters(); }
  Q_INVOKABLE void setRestartDelay(int ms) { sim_->SetRestartDelay(ms); }
  Q_INVOKABLE void setLogSize(int bytes) { sim_->SetLogSize(static_cast<uint32_t>(bytes)); }
  Q_INVOKABLE int resetCount() const { return static_cast<int>(sim_->ResetCount()); }
  // Whether the lidar accepts connections now (it is away for a while after a restart).
  Q_INVOKABLE bool listening() const { return vktest::WaitListening(sim_->port(), std::chrono::milliseconds(0)); }
  // A fresh folder for downloads, removed with the harness.
  Q_INVOKABLE QUrl makeFolder() {
    folders_.push_back(std::make_unique<QTemporaryDir>());
    return QUrl::fromLocalFile(folders_.back()->path());
  }
  // Names of the files in `folder` that start with `prefix`.
  Q_INVOKABLE QStringList filesIn(const QUrl& folder, const QString& prefix) const {
    return QDir(folder.toLocalFile()).entryList({prefix + "*"}, QDir::Files);
  }
  // The payload of the last request with command `cmd` as upper-case hexadecimal, "0A 1B".
  Q_INVOKABLE QString lastPayloadHex(int cmd) const {
    const std::vector<uint8_t> payload = sim_->LastPayload(static_cast<uint8_t>(cmd));
    return QByteArray(reinterpret_cast<const char*>(payload.data()), static_cast<int>(payload.size()))
        .toHex(' ')
        .toUpper();
  }

 public slots:
  void qmlEngineAvailable(QQmlEngine* engine) {
    engine_ = engine;
    engine->rootContext()->setContextProperty(QStringLiteral("harness"), this);
  }

 private:
  varkel::sim::VirtualLidar* sim_;
  QQmlEngine* engine_ = nullptr;
  QQuickItem* item_ = nullptr;
  TestManager* manager_ = nullptr;
  QQmlContext* context_ = nullptr;
  std::vector<std::unique_ptr<QTemporaryDir>> folders_;
  std::unique_ptr<simtest::TestPki> pki_;
  QString settings_path_;
  QByteArray settings_text_;
  std::vector<std::unique_ptr<varkel::sim::VirtualLidar>> tls_sims_;
};

}  // namespace

int main(int argc, char** argv) {
  // A private home: the user's own settings stay untouched, and the tests' name the virtual lidar.
  QTemporaryDir home;
  if (!home.isValid()) return 1;
  qputenv("HOME", home.path().toLocal8Bit());
  qputenv("XDG_CONFIG_HOME", (home.path() + "/.config").toLocal8Bit());
  qputenv("XDG_DATA_HOME", (home.path() + "/.local/share").toLocal8Bit());
  if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM")) qputenv("QT_QPA_PLATFORM", "offscreen");
  // The offscreen platform has no OpenGL; Qt Quick's software renderer draws instead.
  if (qEnvironmentVariableIsEmpty("QT_QUICK_BACKEND")) qputenv("QT_QUICK_BACKEND", "software");
  // The tables are read from ./Config/varID, as in the program's install root.
  QDir::setCurrent(QStringLiteral(VARKEL_BINARY_DIR));

  varkel::sim::SimOptions options;
  options.config_dir = VARKEL_BINARY_DIR "/Config/varID";
  options.port = 0;
  options.live_values = false;
  varkel::sim::VirtualLidar sim(options);
  std::string error;
  if (!sim.Start(&error)) {
    std::fprintf(stderr, "virtual lidar: %s\n", error.c_str());
    return 1;
  }
  QDir().mkpath(home.path() + "/Documents/VelmoraDataFiles");

  // As the program names itself: the file dialogs keep their settings under this name.
  QCoreApplication::setOrganizationName(QStringLiteral("QuarnTech"));
  QCoreApplication::setOrganizationDomain(QStringLiteral("quarntech.example"));
  // The charts draw through the graphics view, which needs the widget application the
  // program itself runs.
  QApplication app(argc, argv);
  Harness harness(&sim);
  harness.SetSettings(home.path() + "/Documents/VelmoraDataFiles/RecvSettings.ini",
                      QStringLiteral("[General]\ndevice_ip_address=127.0.0.1\nktc_port=%1\n").arg(sim.port()).toUtf8());
  const int status = quick_test_main_with_setup(argc, argv, "app_qml_tests", VARKEL_QML_TEST_DIR, &harness);
  sim.Stop();
  return status;
}

#include "qml_test_main.moc"
