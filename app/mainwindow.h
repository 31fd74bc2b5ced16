#pragma once
// The program's one window: a widget frame whose client area is the Qt Quick view that
// runs the QML user interface, with the controller published to it.

#include <QMainWindow>
#include <QString>

class QQuickView;
class VarkelManager;

namespace Ui {
class MainWindow;
}

class MainWindow : public QMainWindow {
  Q_OBJECT

 public:
  MainWindow(QWidget* parent, QString moduleName);
  ~MainWindow() override;

  MainWindow(const MainWindow&) = delete;
  MainWindow& operator=(const MainWindow&) = delete;

 protected:
  // Asks before closing while a firmware upgrade or a log download runs: closing ends
  // either at once, and a half-written image may leave the lidar unable to start.
  void closeEvent(QCloseEvent* event) override;

 private:
  Ui::MainWindow* ui;
  QQuickView* view;
  VarkelManager* manager;
};
