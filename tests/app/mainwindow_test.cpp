// The main window on the real controller, drawn offscreen. Each test runs in its own
// process, so each gets the once-per-process controller afresh.

#include <gtest/gtest.h>
#include <QApplication>
#include <QBoxLayout>
#include <QDir>
#include <QPointer>
#include <QQmlContext>
#include <QQuickItem>
#include <QQuickView>
#include <QSignalSpy>
#include <QTemporaryDir>

#include "mainwindow.h"
#include "varkel_manager.h"

namespace {

QApplication& App() {
  static QTemporaryDir home;
  static int argc = 1;
  static char name[] = "mainwindow_test";
  static char* argv[] = {name, nullptr};
  // Settings are read from the documents folder: keep the user's own out of it.
  qputenv("HOME", home.path().toLocal8Bit());
  qputenv("XDG_CONFIG_HOME", (home.path() + "/.config").toLocal8Bit());
  if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM")) qputenv("QT_QPA_PLATFORM", "offscreen");
  if (qEnvironmentVariableIsEmpty("QT_QUICK_BACKEND")) qputenv("QT_QUICK_BACKEND", "software");
  // Never destroyed: Qt Quick's controls tear their theme down in a post routine that
  // must not run after the other statics of the process are gone.
  static QApplication* app = new QApplication(argc, argv);
  QDir::setCurrent(QStringLiteral(VARKEL_BINARY_DIR));
  return *app;
}

// The controller is made once per process and the window deletes it, so a process can
// hold one window only; ctest runs every test in a process of its own.
bool FirstWindowOfThisProcess() {
  static bool used = false;
  const bool first = !used;
  used = true;
  return first;
}

#define REQUIRE_OWN_PROCESS() \
  if (!FirstWindowOfThisProcess()) GTEST_SKIP() << "needs a process of its own (run it through ctest)"

QQuickView* ViewOf(const VarkelManager* manager) {
  for (QWindow* w : QGuiApplication::allWindows()) {
    auto* view = qobject_cast<QQuickView*>(w);
    if (view != nullptr && view->rootContext()->contextProperty("varkel_manager").value<QObject*>() == manager)
      return view;
  }
  return nullptr;
}

TEST(MainWindow, LaysOutTheViewAndPublishesTheControllerBeforeLoading) {
  App();
  REQUIRE_OWN_PROCESS();
  VarkelManager* manager = VarkelManager::GetInstance(true, "./Config/varID/Quenta.csv");
  QSignalSpy list_changed(manager, &VarkelManager::lidarModelListChanged);
  auto* window = new MainWindow(nullptr, QString());

  EXPECT_EQ(window->objectName(), "MainWindow");
  EXPECT_EQ(window->windowTitle(), "Varkel");
  EXPECT_EQ(window->size(), QSize(1150, 700));
  QWidget* central = window->centralWidget();
  ASSERT_NE(central, nullptr);
  EXPECT_EQ(central->objectName(), "centralWidget");
  auto* outer = qobject_cast<QHBoxLayout*>(central->layout());
  ASSERT_NE(outer, nullptr);
  EXPECT_EQ(outer->objectName(), "horizontalLayout");
  EXPECT_EQ(outer->spacing(), 6);
  EXPECT_EQ(outer->contentsMargins(), QMargins(11, 11, 11, 11));
  auto* inner = window->findChild<QHBoxLayout*>("horizontalLayout3D");
  ASSERT_NE(inner, nullptr);
  ASSERT_EQ(inner->count(), 1);
  QWidget* container = inner->itemAt(0)->widget();
  ASSERT_NE(container, nullptr);
  EXPECT_EQ(container->minimumSize(), QSize(1300, 800));
  EXPECT_EQ(container->focusPolicy(), Qt::TabFocus);
  EXPECT_EQ(container->sizePolicy().horizontalPolicy(), QSizePolicy::Expanding);
  EXPECT_EQ(container->sizePolicy().verticalPolicy(), QSizePolicy::Expanding);

  // The QML bound to the controller on its first evaluation and loaded cleanly.
  QQuickView* view = ViewOf(manager);
  ASSERT_NE(view, nullptr);
  EXPECT_EQ(view->source(), QUrl("qrc:/Qml/main.qml"));
  EXPECT_EQ(view->status(), QQuickView::Ready) << view->errors().size();
  ASSERT_NE(view->rootObject(), nullptr);
  EXPECT_EQ(view->rootObject()->property("pageCount").toInt(), manager->getLevel1List().size());
  EXPECT_GT(manager->getLevel1List().size(), 0);  // "Quenta" is loaded
  EXPECT_TRUE(manager->getVMNowName().isEmpty());
  EXPECT_EQ(list_changed.count(), 0);

  // The container's minimum wins over the initial size.
  window->show();
  EXPECT_GE(window->width(), 1300);
  EXPECT_GE(window->height(), 800);

  // Nothing of its own in the meta-object.
  EXPECT_STREQ(MainWindow::staticMetaObject.className(), "MainWindow");
  EXPECT_EQ(MainWindow::staticMetaObject.methodCount(), QMainWindow::staticMetaObject.methodCount());
  EXPECT_EQ(MainWindow::staticMetaObject.propertyCount(), QMainWindow::staticMetaObject.propertyCount());
  delete window;
}

TEST(MainWindow, AKnownModuleNameBecomesTheOnlyModel) {
  App();
  REQUIRE_OWN_PROCESS();
  VarkelManager* manager = VarkelManager::GetInstance(true, "./Config/varID/Quenta.csv");
  QSignalSpy list_changed(manager, &VarkelManager::lidarModelListChanged);
  auto* window = new MainWindow(nullptr, QStringLiteral("Quenta-Lite"));
  EXPECT_EQ(list_changed.count(), 1);
  EXPECT_EQ(manager->getVMNowName(), "Quenta-Lite");
  EXPECT_EQ(manager->getLidarModelList(), QVariantList{QStringLiteral("Quenta-Lite")});
  QQuickView* view = ViewOf(manager);
  ASSERT_NE(view, nullptr);
  ASSERT_NE(view->rootObject(), nullptr);
  EXPECT_EQ(view->rootObject()->property("selectedModel").toString(), "Quenta-Lite");
  delete window;
}

TEST(MainWindow, AnUnknownModuleNameIsIgnored) {
  App();
  REQUIRE_OWN_PROCESS();
  VarkelManager* manager = VarkelManager::GetInstance(true, "./Config/varID/Quenta.csv");
  QSignalSpy list_changed(manager, &VarkelManager::lidarModelListChanged);
  const QVariantList quenta_pages = [] {
    auto* m = VarkelManager::GetInstance(true, "");
    m->InitConfigFileParser("Quenta");
    return m->getLevel1List();
  }();
  auto* window = new MainWindow(nullptr, QStringLiteral("quenta-lite"));
  EXPECT_EQ(list_changed.count(), 0);
  EXPECT_TRUE(manager->getVMNowName().isEmpty());
  EXPECT_EQ(manager->getLevel1List(), quenta_pages);
  EXPECT_GT(manager->getLidarModelList().size(), 1);
  delete window;
}

TEST(MainWindow, DestructionFreesTheViewAndTheController) {
  App();
  REQUIRE_OWN_PROCESS();
  QPointer<VarkelManager> manager = VarkelManager::GetInstance(true, "./Config/varID/Quenta.csv");
  auto* window = new MainWindow(nullptr, QString());
  QPointer<QQuickView> view = ViewOf(manager);
  ASSERT_FALSE(view.isNull());
  window->show();
  delete window;
  EXPECT_TRUE(view.isNull());
  EXPECT_TRUE(manager.isNull());
}

}  // namespace
