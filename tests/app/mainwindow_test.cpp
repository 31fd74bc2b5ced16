// The main window on the real controller, drawn offscreen. The controller is made once per
// process and the window deletes it, so each case needs a process of its own (ctest runs
// every case in one).

#include <gtest/gtest.h>
#include <QApplication>
#include <QDir>
#include <QMessageBox>
#include <QPointer>
#include <QPushButton>
#include <QQmlContext>
#include <QQuickItem>
#include <QQuickView>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTimer>
#include <string>
#include <utility>
#include <vector>

#include "mainwindow.h"
#include "varkel_manager.h"

namespace {

std::vector<QString> g_warnings;

void KeepWarnings(QtMsgType type, const QMessageLogContext&, const QString& text) {
  if (type != QtDebugMsg && type != QtInfoMsg) g_warnings.push_back(text);
}

// The -moduleVM= name given, and the only model then offered ("" when all are).
using Param = std::pair<std::string, std::string>;
class MainWindowTest : public ::testing::TestWithParam<Param> {};

TEST_P(MainWindowTest, PublishesTheControllerBeforeLoadingAndFreesBothOnDestruction) {
  static bool used = false;
  if (std::exchange(used, true)) GTEST_SKIP() << "needs a process of its own (run it through ctest)";
  static QTemporaryDir home;
  // Settings are read from the documents folder: keep the user's own out of it.
  qputenv("HOME", home.path().toLocal8Bit());
  qputenv("XDG_CONFIG_HOME", (home.path() + "/.config").toLocal8Bit());
  qputenv("XDG_DATA_HOME", (home.path() + "/.local/share").toLocal8Bit());
  if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM")) qputenv("QT_QPA_PLATFORM", "offscreen");
  if (qEnvironmentVariableIsEmpty("QT_QUICK_BACKEND")) qputenv("QT_QUICK_BACKEND", "software");
  static int argc = 1;
  static char name[] = "mainwindow_test";
  static char* argv[] = {name, nullptr};
  // Never destroyed: Qt Quick's controls tear their theme down in a post routine that
  // must not run after the other statics of the process are gone.
  new QApplication(argc, argv);
  QDir::setCurrent(QStringLiteral(VARKEL_BINARY_DIR));

  QPointer<VarkelManager> manager = VarkelManager::GetInstance(true, "./Config/varID/Quenta.csv");
  QSignalSpy list_changed(manager.data(), &VarkelManager::lidarModelListChanged);
  // A warning printed at every start teaches users to ignore warnings.
  const QtMessageHandler previous = qInstallMessageHandler(KeepWarnings);
  auto* window = new MainWindow(nullptr, QString::fromStdString(GetParam().first));
  EXPECT_EQ(window->size(), QSize(1150, 700));

  // The QML bound to this controller on its first evaluation and loaded cleanly.
  QPointer<QQuickView> view;
  for (QWindow* w : QGuiApplication::allWindows())
    if (auto* v = qobject_cast<QQuickView*>(w)) view = v;
  ASSERT_FALSE(view.isNull());
  EXPECT_EQ(view->rootContext()->contextProperty("varkel_manager").value<QObject*>(), manager.data());
  EXPECT_EQ(view->status(), QQuickView::Ready) << view->errors().size();
  ASSERT_NE(view->rootObject(), nullptr);
  EXPECT_GT(manager->getLevel1List().size(), 0);  // "Quenta" is loaded
  EXPECT_EQ(view->rootObject()->property("pageCount").toInt(), manager->getLevel1List().size());

  // A known -moduleVM= name is the only model offered, and it cannot be changed.
  const QString locked = QString::fromStdString(GetParam().second);
  EXPECT_EQ(list_changed.count(), locked.isEmpty() ? 0 : 1);
  EXPECT_EQ(manager->getVMNowName(), locked);
  EXPECT_EQ(manager->getLidarModelList().size() == 1, !locked.isEmpty());
  auto* combo = view->rootObject()->findChild<QQuickItem*>("modelCombo");
  ASSERT_NE(combo, nullptr);
  EXPECT_EQ(combo->property("currentText").toString(), locked.isEmpty() ? QStringLiteral("Quenta") : locked);
  EXPECT_EQ(combo->isEnabled(), locked.isEmpty());

  // The container's minimum wins over the initial size.
  window->show();
  EXPECT_GE(window->width(), 1300);
  EXPECT_GE(window->height(), 800);
  QCoreApplication::processEvents();
  qInstallMessageHandler(previous);

  // Closing would end a log download at once: the window asks first, and "No" keeps it.
  manager->setIsDownloadLog(true);
  QString asked;
  QTimer answer;
  QObject::connect(&answer, &QTimer::timeout, [&] {
    if (auto* box = qobject_cast<QMessageBox*>(QApplication::activeModalWidget())) {
      answer.stop();
      asked = box->text();
      box->button(QMessageBox::No)->click();
    }
  });
  answer.start(10);
  EXPECT_FALSE(window->close());
  EXPECT_TRUE(window->isVisible());
  EXPECT_TRUE(asked.startsWith("A log download is running.")) << asked.toStdString();
  manager->setIsDownloadLog(false);
  for (const QString& w : g_warnings) EXPECT_FALSE(w.contains("top level window")) << w.toStdString();
  delete window;
  EXPECT_TRUE(view.isNull());
  EXPECT_TRUE(manager.isNull());
}

INSTANTIATE_TEST_SUITE_P(ModuleArgument, MainWindowTest,
                         ::testing::Values(Param{"", ""}, Param{"Quenta-Lite", "Quenta-Lite"},
                                           Param{"quenta-lite", ""}));  // names are case-sensitive

}  // namespace
