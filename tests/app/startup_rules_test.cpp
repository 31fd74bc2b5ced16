// Start-up: scale factor, -moduleVM=, install root and fonts.

#include <gtest/gtest.h>
#include <QDir>
#include <QFile>
#include <QFontDatabase>
#include <QGuiApplication>
#include <QTemporaryDir>

#include <vector>

#include "font_loader.h"
#include "install_root.h"
#include "module_arg.h"
#include "scale_factor.h"
#include "screen_metrics.h"

using namespace varkel::app;

namespace {

// Collects what goes through Qt's message handler while it lives, as "W text" or "D text".
QStringList* g_lines = nullptr;
struct MessageCapture {
  MessageCapture() { g_lines = &lines; }
  ~MessageCapture() { qInstallMessageHandler(old); }
  QStringList lines;
  QtMessageHandler old = qInstallMessageHandler([](QtMsgType t, const QMessageLogContext&, const QString& m) {
    g_lines->append(QString(t == QtWarningMsg ? "W " : t == QtDebugMsg ? "D " : "? ") + m);
  });
};

void App() {
  static int argc = 1;
  static char* argv[] = {const_cast<char*>("startup_test"), nullptr};
  if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM")) qputenv("QT_QPA_PLATFORM", "offscreen");
  static QGuiApplication app(argc, argv);
}

// A temporary folder with bin/ below it, made the current folder for the test.
struct TempRoot {
  TempRoot() : old(QDir::currentPath()), root(QDir(tmp.path()).canonicalPath()), bin(root + "/bin") {
    EXPECT_TRUE(QDir().mkpath(bin));
    EXPECT_TRUE(QDir::setCurrent(root));
  }
  ~TempRoot() { QDir::setCurrent(old); }
  void PutMarker(const QString& dir) {
    ASSERT_TRUE(QDir().mkpath(dir + "/fonts") && QFile(dir + "/" + kInstallRootMarker).open(QIODevice::WriteOnly));
  }
  QTemporaryDir tmp;
  QString old, root, bin;
};

TEST(ScaleFactor, Screens) {
  const struct {
    ScreenMetrics m;
    float dpi;
    const char* scale;
  } rows[] = {
      {{3840, 2160, 3840, 2160}, 1.0f, "2"},        // 4K at 100 %: the width rule
      {{1280, 720, 1920, 1080}, 1.5f, "1.2"},       // 150 %: toned down to 80 %
      {{2400, 1600, 3000, 2000}, 1.25f, "1.25"},    // 125 % exactly is not above 1.25: the width rule
      {{1366, 768, 1366, 768}, 1.0f, "1"},          // never below 1
      {{1000, 1000, 1260, 1260}, 1.26f, "1.008"},   // just above takes the 0.8 branch
      {{2560, 1440, 2560, 1440}, 1.0f, "1.33333"},  // six significant digits
      {{1000, 1000, 1500, 1400}, 1.4f, "1.12"},     // the smaller axis wins
      {{1000, 1000, 1400, 1500}, 1.4f, "1.12"},
      {{0, 0, 0, 0}, 1.0f, "1"},                                  // unknown metrics
      {MetricsFromDevicePixels(1920, 1080, 144.0), 1.5f, "1.2"},  // desktop at 150 %
  };
  for (const auto& r : rows) {
    SCOPED_TRACE(::testing::Message() << "row " << (&r - rows));
    const ScaleDecision d = ComputeScaleFactor(r.m);
    EXPECT_FLOAT_EQ(d.dpi, r.dpi);
    EXPECT_EQ(FormatScaleFactor(d.scale), r.scale);
  }
}

TEST(ModuleVmArgument, FirstCaseSensitiveMatchFromTheSecondArgumentOn) {
  const struct {
    std::vector<const char*> argv;
    const char* name;
  } rows[] = {
      {{"varkel"}, ""},
      {{"varkel", "-moduleVM="}, ""},
      {{"varkel", "-x", "-moduleVM=Quenta", "-moduleVM=Zelto"}, "Quenta"},
      {{"varkel", "-modulevm=Quenta", "-MODULEVM=Zelto"}, ""},
      {{"-moduleVM=Quenta"}, ""},
      {{"varkel", "-moduleVM=Zelto-KTC extra"}, "Zelto-KTC extra"},
  };
  for (const auto& r : rows) {
    SCOPED_TRACE(r.argv.back());
    EXPECT_EQ(ParseModuleVmArg(static_cast<int>(r.argv.size()), r.argv.data()), QString(r.name));
  }
}

TEST(InstallRoot, ParentFirstThenExecutableFolderThenSharedDataElseParentWithAWarning) {
  TempRoot t;
  MessageCapture missing;
  EXPECT_EQ(ResolveInstallRoot(t.bin), t.root);
  EXPECT_EQ(missing.lines,
            (QStringList{"W [Varkel] install root heuristic: missing fonts/Roboto-Regular-14.ttf in " + t.root + ", " +
                             t.bin + ", " + t.root + "/share/varkel \u2014 using parent of exe dir: " + t.root,
                         "D [Varkel] applicationDirPath: " + t.bin + " installRoot: " + t.root}));
  t.PutMarker(t.root + "/share/varkel");  // a package's layout: <prefix>/bin and <prefix>/share/varkel
  EXPECT_EQ(ResolveInstallRoot(t.bin + "/"), t.root + "/share/varkel");
  t.PutMarker(t.bin);  // fonts beside the executable win over the shared data
  EXPECT_EQ(ResolveInstallRoot(t.bin), t.bin);
  t.PutMarker(t.root);  // fonts in both places: the parent is asked first
  MessageCapture found;
  EXPECT_EQ(ResolveInstallRoot(t.bin), t.root);
  EXPECT_EQ(found.lines, QStringList{"D [Varkel] applicationDirPath: " + t.bin + " installRoot: " + t.root});
}

TEST(FontLoader, MissingFolderAndBrokenFilesAreRefusedWithTheirWarnings) {
  App();
  TempRoot t;
  ASSERT_TRUE(QDir().mkpath("fonts/folder.ttf"));
  QFile broken("fonts/broken.ttf");
  ASSERT_TRUE(broken.open(QIODevice::WriteOnly) && broken.write("not a font") > 0);
  broken.close();

  MessageCapture log;
  EXPECT_EQ(loadApplicationFont("fonts/none.ttf", "Tag-A"), -1);
  EXPECT_EQ(loadApplicationFont("fonts/folder.ttf", "Tag-B"), -1);
  EXPECT_LT(loadApplicationFont("fonts/broken.ttf", "Tag-C"), 0);
  const QString dir = t.root + "/fonts/";
  EXPECT_EQ(log.lines,
            (QStringList{"W [Varkel] Font file missing: Tag-A absolutePath: " + dir + "none.ttf",
                         "W [Varkel] Font file missing: Tag-B absolutePath: " + dir + "folder.ttf",
                         "W [Varkel] addApplicationFont failed: Tag-C absolutePath: " + dir + "broken.ttf id: -1"}));

  // Without any font file the family is empty and each font is reported once.
  ASSERT_TRUE(QDir("fonts").removeRecursively());
  MessageCapture none;
  EXPECT_TRUE(LoadVarkelFonts().isEmpty());
  EXPECT_EQ(
      none.lines,
      (QStringList{"W [Varkel] Font file missing: Roboto-Bold absolutePath: " + dir + "Roboto-Bold-3.ttf",
                   "W [Varkel] Font file missing: Roboto-Regular absolutePath: " + dir + "Roboto-Regular-14.ttf"}));
}

TEST(FontLoader, TheInstallRootsFontsGiveTheRobotoFamily) {
  App();
  const QString root = QStringLiteral(VARKEL_BINARY_DIR);
  if (!QFile::exists(root + "/fonts/Roboto-Regular-14.ttf")) GTEST_SKIP() << "fonts-roboto-unhinted not installed";
  ASSERT_TRUE(QDir::setCurrent(root));
  MessageCapture log;
  EXPECT_EQ(LoadVarkelFonts(), QStringLiteral("Roboto"));
  EXPECT_TRUE(log.lines.isEmpty());
  EXPECT_TRUE(QFontDatabase().styles("Roboto").contains("Bold"));
}

}  // namespace
