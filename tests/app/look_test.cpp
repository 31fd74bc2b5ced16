// The palette and the font loader (these need a GUI application, drawn offscreen).

#include <gtest/gtest.h>
#include <QDir>
#include <QFile>
#include <QFontDatabase>
#include <QGuiApplication>
#include <QTemporaryDir>

#include "font_loader.h"
#include "message_capture.h"
#include "palette.h"

using namespace varkel::app;

namespace {

QGuiApplication& App() {
  static int argc = 1;
  static char name[] = "look_test";
  static char* argv[] = {name, nullptr};
  if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM")) qputenv("QT_QPA_PLATFORM", "offscreen");
  static QGuiApplication app(argc, argv);
  return app;
}

// Changes the current folder for one test and restores it.
struct InDir {
  explicit InDir(const QString& dir) : old(QDir::currentPath()) { EXPECT_TRUE(QDir::setCurrent(dir)); }
  ~InDir() { QDir::setCurrent(old); }
  QString old;
};

TEST(Palette, EveryRoleOfTheTableInEveryGroupAndFourDefaultsKept) {
  App();
  const QPalette p = BuildVarkelPalette();
  const QPalette defaults;
  const struct {
    QPalette::ColorRole role;
    QColor colour;
  } table[] = {
      {QPalette::WindowText, QColor("#EEEEEE")},
      {QPalette::Button, QColor("#3A3D3F")},
      {QPalette::Light, QColor("#666666")},
      {QPalette::Midlight, QColor("#4D4D4D")},
      {QPalette::Dark, QColor("#222325")},
      {QPalette::Mid, QColor("#2B2C2E")},
      {QPalette::Text, QColor("#EEEEEE")},
      {QPalette::BrightText, QColor("#EEEEEE")},
      {QPalette::ButtonText, QColor("#EEEEEE")},
      {QPalette::Base, QColor(1, 1, 1, 255)},
      {QPalette::Window, QColor("#2B2C2E")},
      {QPalette::Highlight, QColor("#999999")},
      {QPalette::HighlightedText, QColor("#EEEEEE")},
      {QPalette::AlternateBase, QColor(1, 1, 1, 255)},
      {QPalette::ToolTipBase, QColor("#010101")},
      {QPalette::PlaceholderText, QColor("#EEEEEE")},
  };
  for (const auto group : {QPalette::Active, QPalette::Inactive, QPalette::Disabled}) {
    for (const auto& row : table) {
      const QBrush b = p.brush(group, row.role);
      EXPECT_EQ(b.style(), Qt::SolidPattern) << row.role;
      EXPECT_EQ(b.color(), row.colour) << "group " << group << " role " << row.role;
    }
    for (const auto role : {QPalette::Shadow, QPalette::Link, QPalette::LinkVisited, QPalette::ToolTipText}) {
      EXPECT_EQ(p.brush(group, role), defaults.brush(group, role)) << role;
    }
  }
}

TEST(FontLoader, MissingFolderAndBrokenFilesAreRefusedWithTheirWarnings) {
  App();
  QTemporaryDir tmp;
  ASSERT_TRUE(tmp.isValid());
  const QString dir = QDir(tmp.path()).canonicalPath();
  InDir in(dir);
  ASSERT_TRUE(QDir().mkpath("fonts/folder.ttf"));
  QFile broken("fonts/broken.ttf");
  ASSERT_TRUE(broken.open(QIODevice::WriteOnly));
  broken.write("not a font");
  broken.close();

  MessageCapture log;
  EXPECT_EQ(loadApplicationFont("fonts/none.ttf", "Tag-A"), -1);
  EXPECT_EQ(loadApplicationFont("fonts/folder.ttf", "Tag-B"), -1);
  EXPECT_LT(loadApplicationFont("fonts/broken.ttf", "Tag-C"), 0);
  ASSERT_EQ(log.lines.size(), 3);
  EXPECT_EQ(log.lines[0].first, QtWarningMsg);
  EXPECT_EQ(log.lines[0].second, "[Varkel] Font file missing: Tag-A absolutePath: " + dir + "/fonts/none.ttf");
  EXPECT_EQ(log.lines[1].second, "[Varkel] Font file missing: Tag-B absolutePath: " + dir + "/fonts/folder.ttf");
  EXPECT_EQ(log.lines[2].second,
            "[Varkel] addApplicationFont failed: Tag-C absolutePath: " + dir + "/fonts/broken.ttf id: -1");

  // Without any font file the family is empty and each font is reported once.
  ASSERT_TRUE(QDir("fonts").removeRecursively());
  MessageCapture none;
  EXPECT_TRUE(LoadVarkelFonts().isEmpty());
  ASSERT_EQ(none.lines.size(), 2);
  EXPECT_TRUE(none.lines[0].second.startsWith("[Varkel] Font file missing: Roboto-Bold absolutePath: "));
  EXPECT_TRUE(none.lines[1].second.startsWith("[Varkel] Font file missing: Roboto-Regular absolutePath: "));
}

TEST(FontLoader, TheInstallRootsFontsGiveTheRobotoFamily) {
  App();
  const QString root = QStringLiteral(VARKEL_BINARY_DIR);
  if (!QFile::exists(root + "/fonts/Roboto-Regular-14.ttf")) GTEST_SKIP() << "fonts-roboto-unhinted not installed";
  InDir in(root);
  MessageCapture log;
  EXPECT_EQ(LoadVarkelFonts(), QStringLiteral("Roboto"));
  EXPECT_TRUE(log.lines.isEmpty());
  EXPECT_TRUE(QFontDatabase().styles("Roboto").contains("Bold"));
}

}  // namespace
