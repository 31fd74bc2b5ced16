#include "mainwindow.h"

#include <QCloseEvent>
#include <QMessageBox>
#include <QQmlContext>
#include <QQuickView>
#include <QUrl>
#include <QWidget>

#include "ui_mainwindow.h"
#include "varkel_manager.h"

MainWindow::MainWindow(QWidget* parent, QString moduleName)
    : QMainWindow(parent), ui(new Ui::MainWindow), view(nullptr), manager(nullptr) {
  ui->setupUi(this);
  view = new QQuickView();
  // The QML root follows the container's size rather than its own implicit one.
  view->setResizeMode(QQuickView::SizeRootObjectToView);
  manager = VarkelManager::GetInstance(true, "./Config/varID/Quenta.csv");
  manager->InitConfigFileParser(QStringLiteral("Quenta"));
  manager->SetVMNowName(moduleName);

  QWidget* container = QWidget::createWindowContainer(view);
  // Published before the source is set, so the first evaluation of the QML can bind to it.
  view->rootContext()->setContextProperty(QStringLiteral("varkel_manager"), manager);
  view->setSource(QUrl(QStringLiteral("qrc:/Qml/main.qml")));

  container->setSizePolicy(QSizePolicy::Expanding, QSizePolicy::Expanding);
  // Larger than the window's initial size on purpose: the minimum wins.
  container->setMinimumSize(1300, 800);
  container->setFocusPolicy(Qt::TabFocus);
  ui->horizontalLayout3D->addWidget(container);
}

void MainWindow::closeEvent(QCloseEvent* event) {
  // Closing ends the controller's work at once (its destructor cuts every exchange short),
  // so work the user would lose is named first. An upgrade weighs more than a download.
  QString title, text;
  if (manager != nullptr && manager->getIsUpgrading()) {
    title = QStringLiteral("Firmware upgrade running");
    text = QStringLiteral(
        "A firmware upgrade is running. Closing now stops it and may leave the lidar "
        "without working firmware.\n\nClose anyway?");
  } else if (manager != nullptr && manager->getIsDownloadLog()) {
    title = QStringLiteral("Log download running");
    text = QStringLiteral(
        "A log download is running. Closing now stops it, and the log is not saved."
        "\n\nClose anyway?");
  }
  if (!text.isEmpty() && QMessageBox::question(this, title, text, QMessageBox::Yes | QMessageBox::No,
                                               QMessageBox::No) != QMessageBox::Yes) {
    event->ignore();
    return;
  }
  QMainWindow::closeEvent(event);
}

MainWindow::~MainWindow() {
  delete ui;
  // The container only keeps a guarded pointer to the view, so deleting it here is safe.
  delete view;
  delete manager;
  manager = nullptr;
}
