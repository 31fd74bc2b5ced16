// The window's file dialogs on the desktop's own dialog, the one the program shows: they
// open in the documents folder, then where the user last chose something.

#include <gtest/gtest.h>

#include <QApplication>
#include <QDir>
#include <QFile>
#include <QFileDialog>
#include <QLineEdit>
#include <QQmlComponent>
#include <QQmlEngine>
#include <QTemporaryDir>
#include <QUrl>
#include <memory>

#include "wait_until.h"

namespace {

// The dialog's widget, once it is on screen.
QFileDialog* ShownDialog() {
  QFileDialog* shown = nullptr;
  vktest::PollUntil(
      [&] {
        for (QWidget* w : QApplication::topLevelWidgets())
          if (auto* d = qobject_cast<QFileDialog*>(w); d && d->isVisible()) shown = d;
        return shown != nullptr;
      },
      std::chrono::seconds(20), [] { QApplication::processEvents(); });
  return shown;
}

TEST(DocumentsFileDialog, OpensInDocumentsThenWhereTheUserLastChose) {
  QTemporaryDir home;
  ASSERT_TRUE(home.isValid());
  qputenv("HOME", home.path().toLocal8Bit());
  qputenv("XDG_CONFIG_HOME", (home.path() + "/.config").toLocal8Bit());
  qputenv("XDG_DATA_HOME", (home.path() + "/.local/share").toLocal8Bit());
  if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM")) qputenv("QT_QPA_PLATFORM", "offscreen");
  const QString documents = home.path() + "/Documents";
  const QString elsewhere = home.path() + "/images";
  ASSERT_TRUE(QDir().mkpath(documents) && QDir().mkpath(elsewhere));
  QFile image(elsewhere + "/fw.bin");
  ASSERT_TRUE(image.open(QIODevice::WriteOnly));
  image.close();

  static int argc = 1;
  static char name[] = "documents_file_dialog_test";
  static char* argv[] = {name, nullptr};
  // Never destroyed, as in the window's test: Qt Quick tears its theme down after main.
  new QApplication(argc, argv);
  // The program runs in its install root; the dialog must not start there.
  QDir::setCurrent(home.path());

  QQmlEngine engine;
  QQmlComponent component(&engine);
  component.setData("import QtQuick 2.15\nimport \"qrc:/Qml/assembly\"\nDocumentsFileDialog {}", QUrl());
  std::unique_ptr<QObject> dialog(component.create());
  ASSERT_NE(dialog, nullptr) << component.errorString().toStdString();

  QMetaObject::invokeMethod(dialog.get(), "open");
  QFileDialog* shown = ShownDialog();
  ASSERT_NE(shown, nullptr) << "the desktop's file dialog did not show";
  EXPECT_EQ(shown->directory().absolutePath().toStdString(), documents.toStdString());

  // The user goes elsewhere, types a file's name there and opens it; the next time
  // starts there.
  shown->setDirectory(elsewhere);
  auto* name_field = shown->findChild<QLineEdit*>("fileNameEdit");
  ASSERT_NE(name_field, nullptr);
  name_field->setText("fw.bin");
  static_cast<QDialog*>(shown)->accept();  // as the Open button does
  EXPECT_TRUE(vktest::PollUntil([&] { return !shown->isVisible(); }, std::chrono::seconds(20),
                                [] { QApplication::processEvents(); }));
  EXPECT_EQ(dialog->property("fileUrl").toUrl().toString().toStdString(),
            QUrl::fromLocalFile(elsewhere + "/fw.bin").toString().toStdString());
  EXPECT_EQ(dialog->property("lastFolder").toUrl().toString().toStdString(),
            QUrl::fromLocalFile(elsewhere).toString().toStdString());
  QMetaObject::invokeMethod(dialog.get(), "open");
  shown = ShownDialog();
  ASSERT_NE(shown, nullptr);
  EXPECT_EQ(shown->directory().absolutePath().toStdString(), elsewhere.toStdString());
  QMetaObject::invokeMethod(dialog.get(), "close");
}

}  // namespace
