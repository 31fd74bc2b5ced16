// The Monitor's controller side: what the refresh thread samples from a connected sensor,
// charts by unit, limits kept per model, alerts with hysteresis, and a recording that
// stops on its own while sampling goes on.

#include <gtest/gtest.h>

#include <QDateTime>
#include <QImage>
#include <QTemporaryDir>
#include <QtCharts/QLineSeries>

#include <cmath>
#include <filesystem>

#include "manager_test_support.h"
#include "monitor_model.h"

namespace {

using vktest::ManagerTest;

QStringList Names(const MonitorModel& m) {
  QStringList names;
  for (const QVariant& s : m.series()) names.append(s.toMap()["name"].toString());
  return names;
}

TEST_F(ManagerTest, MonitorSamplesTheTimerMarkedNumbersWhicheverPageIsShown) {
  Load("Testa", vktest::TestaTable());
  ASSERT_TRUE(Connect());
  auto* monitor = qobject_cast<MonitorModel*>(m_->monitor());
  ASSERT_NE(monitor, nullptr);
  monitor->setPeriodMs(100);
  // The page shown has none of them.
  m_->setModuleIndexUse(0);
  ASSERT_TRUE(log_->Wait([&] { return monitor->sampleCount() >= 3; }));
  // Run Time is timer-marked but no number; the counter has no unit and a chart of its own.
  EXPECT_EQ(Names(*monitor), (QStringList{"Temperature", "Counter"}));
  const QVariantList charts = monitor->charts();
  ASSERT_EQ(charts.size(), 2);
  EXPECT_EQ(charts[0].toMap()["title"].toString(), "C");
  EXPECT_EQ(charts[1].toMap()["title"].toString(), "Counter");
  EXPECT_NE(monitor->series()[0].toMap()["current"].toString(), "-");
}

class MonitorModelTest : public ::testing::Test {
 protected:
  void SetUp() override {
    vktest::EnsureApp();
    ASSERT_TRUE(dir_.isValid());
    QObject::connect(&m_, &MonitorModel::alertRaised, [this](const QString& t) { alerts_.append(t); });
    QObject::connect(&m_, &MonitorModel::problem, [this](const QString& t) { problems_.append(t); });
  }
  void Sample(const std::string& model, double t_value, double v_value = 12) {
    t_ms_ += 1000;
    m_.AddSample(model, channels_, t_ms_, {t_value, v_value, 7, 20});
  }
  QTemporaryDir dir_;
  MonitorModel m_{dir_.path() + "/Monitor.ini"};
  std::vector<MonitorModel::Channel> channels_{
      {"1-1", "T", "°C"}, {"1-2", "U", "V"}, {"1-3", "N", ""}, {"1-4", "T2", "°C"}};
  int64_t t_ms_ = 1795660205000;
  QStringList alerts_, problems_;
};

TEST_F(MonitorModelTest, ChartsByUnitLimitsPerModelAndAlertsWithHysteresis) {
  Sample("A", 20);
  const QVariantList charts = m_.charts();
  ASSERT_EQ(charts.size(), 3);
  EXPECT_EQ(charts[0].toMap()["members"].toList(), (QVariantList{0, 3}));
  EXPECT_EQ(charts[1].toMap()["title"].toString(), "V");
  EXPECT_EQ(charts[2].toMap()["title"].toString(), "N");

  EXPECT_FALSE(m_.setLimits(0, "warm", "").isEmpty());
  EXPECT_FALSE(m_.setLimits(0, "50", "10").isEmpty());
  EXPECT_EQ(m_.setLimits(0, "", "50"), "");
  // 2 % of 50: back inside means at or below 49.
  for (double t : {51.0, 50.5, 51.0, 49.5, 52.0}) Sample("A", t);
  EXPECT_EQ(alerts_.size(), 1);
  Sample("A", 48);
  Sample("A", 51);
  ASSERT_EQ(alerts_.size(), 2);
  EXPECT_EQ(alerts_[1], "T 51 °C above the high limit 50 °C");
  EXPECT_TRUE(m_.series()[0].toMap()["alert"].toBool());

  // Another model has its own limits and hidden series; coming back restores these.
  m_.setSeriesVisible(2, false);
  Sample("B", 60);
  EXPECT_EQ(m_.series()[0].toMap()["high"].toString(), "");
  EXPECT_TRUE(m_.series()[2].toMap()["visible"].toBool());
  Sample("A", 20);
  EXPECT_EQ(m_.series()[0].toMap()["high"].toString(), "50");
  EXPECT_FALSE(m_.series()[2].toMap()["visible"].toBool());
  EXPECT_EQ(m_.sampleCount(), 1);

  // The sampling period is kept per model too, and read back by a new run.
  m_.setPeriodMs(5000);
  Sample("B", 20);
  m_.setPeriodMs(200);
  Sample("A", 20);
  EXPECT_EQ(m_.periodMs(), 5000);
  MonitorModel again(dir_.path() + "/Monitor.ini");
  again.AddSample("B", channels_, t_ms_, {1, 2, 3, 4});
  EXPECT_EQ(again.periodMs(), 200);
}

TEST_F(MonitorModelTest, ChartPointsAreReplacedOnlyWhenTheyChangeAndHoverShowsTheSample) {
  for (double t : {20.0, 21.5, 23.0}) Sample("A", t);
  QtCharts::QLineSeries line, high;
  EXPECT_TRUE(m_.fillSeries(&line, 0, 500));
  EXPECT_EQ(line.count(), 3);
  EXPECT_FALSE(m_.fillSeries(&line, 0, 500));  // nothing new: the chart is not drawn again
  EXPECT_FALSE(m_.fillLimit(&high, 0, true));  // no limit, no line
  ASSERT_EQ(m_.setLimits(0, "", "30"), "");
  EXPECT_TRUE(m_.fillLimit(&high, 0, true));
  ASSERT_EQ(high.count(), 2);
  EXPECT_EQ(high.at(1).y(), 30);
  Sample("A", NAN);  // not read: a gap
  EXPECT_TRUE(m_.fillSeries(&line, 0, 500));
  EXPECT_TRUE(std::isnan(line.at(line.count() - 1).y()));
  EXPECT_FALSE(m_.fillSeries(&line, 0, 500));  // a gap (NaN) compares equal to itself here

  // The chart hands over a point on the drawn line, between two samples.
  const QString text = m_.pointText(0, static_cast<double>(t_ms_ - 2000 + 300), 21.9);
  const QString at = QDateTime::fromMSecsSinceEpoch(t_ms_ - 2000).toString("HH:mm:ss.zzz");
  EXPECT_EQ(text, at + "  T  21.5 °C");
}

TEST_F(MonitorModelTest, SavedPngHasTheChartsSizeAndAFailureIsReported) {
  QImage picture(640, 230, QImage::Format_ARGB32);
  picture.fill(Qt::darkGray);
  const QString url = QUrl::fromLocalFile(dir_.path() + "/charts").toString();
  ASSERT_TRUE(m_.savePng(picture, url));
  const QImage saved(dir_.path() + "/charts.png");
  EXPECT_EQ(saved.size(), picture.size());
  EXPECT_FALSE(m_.savePng(picture, dir_.path() + "/gone/charts.png"));
  EXPECT_FALSE(m_.savePng(QImage(), dir_.path() + "/empty.png"));
  ASSERT_EQ(problems_.size(), 2);
  EXPECT_TRUE(problems_[0].endsWith("/gone/charts.png")) << problems_[0].toStdString();
}

TEST_F(MonitorModelTest, ARecordingWhoseFolderVanishesStopsWhileSamplingGoesOn) {
  Sample("A", 20);
  const QString sub = dir_.path() + "/run";
  ASSERT_TRUE(std::filesystem::create_directory(sub.toStdString()));
  ASSERT_TRUE(m_.startRecording(QUrl::fromLocalFile(sub + "/r.csv").toString()));
  EXPECT_TRUE(m_.recording());
  Sample("A", 21);
  std::filesystem::remove_all(sub.toStdString());
  Sample("A", 22);
  Sample("A", 23);
  EXPECT_FALSE(m_.recording());
  ASSERT_EQ(problems_.size(), 1);
  EXPECT_TRUE(problems_[0].contains("is gone")) << problems_[0].toStdString();
  EXPECT_EQ(m_.sampleCount(), 4);
  EXPECT_EQ(m_.series()[0].toMap()["current"].toString(), "23");
}

}  // namespace
