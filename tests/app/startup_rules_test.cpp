// Start-up rules: scale factor, install root, the -moduleVM= argument.

#include <gtest/gtest.h>
#include <QDebug>
#include <QDir>
#include <QFile>
#include <QTemporaryDir>

#include <string>
#include <vector>

#include "install_root.h"
#include "message_capture.h"
#include "module_arg.h"
#include "scale_factor.h"
#include "screen_metrics.h"

using namespace varkel::app;

namespace {

ScreenMetrics Screen(int lw, int lh, int pw, int ph) {
  return ScreenMetrics{lw, lh, pw, ph};
}

TEST(ScaleFactor, ScreensOfTheTable) {
  // 4K at 100 %: the width rule gives 2.
  ScaleDecision d = ComputeScaleFactor(Screen(3840, 2160, 3840, 2160));
  EXPECT_FLOAT_EQ(d.dpi, 1.0f);
  EXPECT_EQ(FormatScaleFactor(d.scale), "2");
  // 150 % system scaling: toned down to 1.2.
  d = ComputeScaleFactor(Screen(1280, 720, 1920, 1080));
  EXPECT_FLOAT_EQ(d.dpi, 1.5f);
  EXPECT_EQ(FormatScaleFactor(d.scale), "1.2");
  // A small screen never shrinks below 1.
  d = ComputeScaleFactor(Screen(1366, 768, 1366, 768));
  EXPECT_EQ(FormatScaleFactor(d.scale), "1");
  // 125 % exactly is not above 1.25: max(1, 1536 / 1920) = 1.
  d = ComputeScaleFactor(Screen(1536, 864, 1920, 1080));
  EXPECT_FLOAT_EQ(d.dpi, 1.25f);
  EXPECT_DOUBLE_EQ(d.scale, 1.0);
  // Just above 125 % takes the 0.8 branch.
  d = ComputeScaleFactor(Screen(1000, 1000, 1260, 1260));
  EXPECT_NEAR(d.scale, 1.26 * 0.8, 1e-6);
}

TEST(ScaleFactor, SmallerAxisWinsAndUnknownMetricsGiveOne) {
  ScaleDecision d = ComputeScaleFactor(Screen(1000, 1000, 1500, 1400));
  EXPECT_FLOAT_EQ(d.dpi, 1.4f);
  d = ComputeScaleFactor(Screen(1000, 1000, 1400, 1500));
  EXPECT_FLOAT_EQ(d.dpi, 1.4f);
  d = ComputeScaleFactor(Screen(0, 0, 0, 0));
  EXPECT_FLOAT_EQ(d.dpi, 1.0f);
  EXPECT_DOUBLE_EQ(d.scale, 1.0);
  // Six significant digits, general format.
  EXPECT_EQ(FormatScaleFactor(2560.0 / 1920.0), "1.33333");
  EXPECT_EQ(FormatScaleFactor(1.19977), "1.19977");
}

TEST(ScaleFactor, DevicePixelsAndLogicalDpiGiveTheDesktopsLogicalSize) {
  ScreenMetrics m = MetricsFromDevicePixels(1920, 1080, 144.0);  // desktop at 150 %
  EXPECT_EQ(m.physical_width, 1920);
  EXPECT_EQ(m.logical_width, 1280);
  EXPECT_EQ(m.logical_height, 720);
  EXPECT_EQ(FormatScaleFactor(ComputeScaleFactor(m).scale), "1.2");
  m = MetricsFromDevicePixels(3840, 2160, 96.0);
  EXPECT_EQ(FormatScaleFactor(ComputeScaleFactor(m).scale), "2");
  m = MetricsFromDevicePixels(0, 1080, 96.0);
  EXPECT_EQ(m.logical_width, 0);
}

struct Argv {
  std::vector<std::string> store;
  std::vector<const char*> ptrs;
  explicit Argv(std::vector<std::string> a) : store(std::move(a)) {
    for (const auto& s : store) ptrs.push_back(s.c_str());
  }
  int argc() const { return static_cast<int>(ptrs.size()); }
  const char* const* argv() const { return ptrs.data(); }
};

TEST(ModuleVmArgument, FirstCaseSensitiveMatchFromTheSecondArgumentOn) {
  Argv none({"varkel"});
  EXPECT_TRUE(ParseModuleVmArg(none.argc(), none.argv()).isEmpty());
  Argv empty({"varkel", "-moduleVM="});
  EXPECT_TRUE(ParseModuleVmArg(empty.argc(), empty.argv()).isEmpty());
  Argv two({"varkel", "-x", "-moduleVM=Quenta", "-moduleVM=Zelto"});
  EXPECT_EQ(ParseModuleVmArg(two.argc(), two.argv()), QStringLiteral("Quenta"));
  Argv lower({"varkel", "-modulevm=Quenta", "-MODULEVM=Zelto"});
  EXPECT_TRUE(ParseModuleVmArg(lower.argc(), lower.argv()).isEmpty());
  Argv program_name({"-moduleVM=Quenta"});
  EXPECT_TRUE(ParseModuleVmArg(program_name.argc(), program_name.argv()).isEmpty());
  Argv spaced({"varkel", "-moduleVM=Zelto-KTC extra"});
  EXPECT_EQ(ParseModuleVmArg(spaced.argc(), spaced.argv()), QStringLiteral("Zelto-KTC extra"));
}

void PutMarker(const QString& dir) {
  ASSERT_TRUE(QDir().mkpath(dir + "/fonts"));
  QFile f(dir + "/" + kInstallRootMarker);
  ASSERT_TRUE(f.open(QIODevice::WriteOnly));
}

TEST(InstallRoot, ParentFirstThenExecutableFolderThenParentWithAWarning) {
  QTemporaryDir tmp;
  ASSERT_TRUE(tmp.isValid());
  const QString root = QDir(tmp.path()).canonicalPath();
  const QString bin = root + "/bin";
  ASSERT_TRUE(QDir().mkpath(bin));

  // No marker anywhere: the parent, with the warning.
  InstallRootChoice c = ChooseInstallRoot(bin);
  EXPECT_EQ(c.root, root);
  EXPECT_FALSE(c.marker_found);

  // Fonts beside the executable: its own folder.
  PutMarker(bin);
  c = ChooseInstallRoot(bin);
  EXPECT_EQ(c.root, bin);
  EXPECT_TRUE(c.marker_found);

  // Fonts in both places: the parent is asked first.
  PutMarker(root);
  c = ChooseInstallRoot(bin);
  EXPECT_EQ(c.root, root);
  EXPECT_EQ(c.parent, root);
}

TEST(InstallRoot, LogLines) {
  QTemporaryDir tmp;
  ASSERT_TRUE(tmp.isValid());
  const QString root = QDir(tmp.path()).canonicalPath();
  const QString bin = root + "/bin";
  ASSERT_TRUE(QDir().mkpath(bin));

  MessageCapture missing;
  EXPECT_EQ(ResolveInstallRoot(bin), root);
  ASSERT_EQ(missing.lines.size(), 2);
  EXPECT_EQ(missing.lines[0].first, QtWarningMsg);
  EXPECT_EQ(missing.lines[0].second, "[Varkel] install root heuristic: missing fonts/Roboto-Regular-14.ttf in " + bin +
                                         " and " + root + QStringLiteral(" \u2014 using parent of exe dir: ") + root);
  EXPECT_EQ(missing.lines[1].first, QtDebugMsg);
  EXPECT_EQ(missing.lines[1].second, "[Varkel] applicationDirPath: " + bin + " installRoot: " + root);

  PutMarker(root);
  MessageCapture found;
  EXPECT_EQ(ResolveInstallRoot(bin), root);
  ASSERT_EQ(found.lines.size(), 1);
  EXPECT_EQ(found.lines[0].first, QtDebugMsg);
}

}  // namespace
