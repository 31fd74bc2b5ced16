// The bounded history of a series: what ages into buckets, what decimation keeps, and
// that a missing value stays a break in the line however the data is reduced.

#include <gtest/gtest.h>

#include <cmath>
#include <string>
#include <vector>

#include "series_buffer.h"

namespace {

using quarn::monitor::Point;
using quarn::monitor::SeriesBuffer;

// Breaks in the drawn line: runs of gap points.
int Gaps(const std::vector<Point>& points) {
  int n = 0;
  for (size_t i = 0; i < points.size(); ++i) n += points[i].gap() && (i == 0 || !points[i - 1].gap());
  return n;
}

TEST(SeriesBuffer, DecimationKeepsExtremesInOrderAndNeverMorePointsThanColumns) {
  SeriesBuffer buffer;
  // 10 Hz for ten minutes: a sine with one spike up and one down.
  for (int i = 0; i < 6000; ++i) {
    double v = std::sin(i / 100.0);
    if (i == 1234) v = 50;
    if (i == 4321) v = -50;
    buffer.Append(i * 100, v);
  }
  const auto points = buffer.Decimate(0, 600000, 100);
  EXPECT_LE(points.size(), 200u);
  double lo = 0, hi = 0;
  for (size_t i = 0; i < points.size(); ++i) {
    lo = std::min(lo, points[i].value);
    hi = std::max(hi, points[i].value);
    if (i > 0) EXPECT_LE(points[i - 1].t_ms, points[i].t_ms);
  }
  EXPECT_EQ(hi, 50);
  EXPECT_EQ(lo, -50);
  // A narrow window picks only its own points, the bounds included.
  const auto narrow = buffer.Decimate(1000, 1200, 1000);
  ASSERT_EQ(narrow.size(), 3u);
  EXPECT_EQ(narrow.front().t_ms, 1000);
  EXPECT_EQ(narrow.back().t_ms, 1200);
  EXPECT_TRUE(buffer.Decimate(700000, 800000, 100).empty());
  EXPECT_TRUE(buffer.Decimate(100, 100, 100).empty());
}

TEST(SeriesBuffer, GapsStayGapsInTheRingAndInBuckets) {
  SeriesBuffer::Config config;
  config.full_rate_ms = 10000;
  config.bucket_ms = 1000;
  SeriesBuffer buffer(config);
  for (int i = 0; i < 300; ++i) {
    // Seconds 5 and 6 of every 20 were not read: a pulled cable.
    if (i % 20 == 5 || i % 20 == 6)
      buffer.AppendGap(i * 1000);
    else
      buffer.Append(i * 1000, 1.0);
  }
  // The ring part, reduced little and much: one break per outage either way.
  EXPECT_EQ(Gaps(buffer.Decimate(280000, 299000, 1000)), 1);
  EXPECT_EQ(Gaps(buffer.Decimate(280000, 299000, 10)), 1);
  // The bucket part keeps them too.
  EXPECT_GT(buffer.bucket_count(), 0u);
  EXPECT_EQ(Gaps(buffer.Decimate(0, 199000, 1000)), 10);
  const auto stats = buffer.Stats(0, 299000);
  EXPECT_EQ(stats.count, 270u);
  EXPECT_EQ(stats.mean, 1.0);
}

TEST(SeriesBuffer, RunSummariesReduceAndSumLikeTheSamplesThemselves) {
  SeriesBuffer::Config config;
  config.full_rate_ms = 600000;
  SeriesBuffer buffer(config);
  // Irregular times, noise, outages; the ring has aged part of a run of 16 and of 256.
  std::vector<Point> kept;
  uint32_t seed = 7;
  for (int64_t i = 0, t = 0; i < 9000; ++i) {
    seed = seed * 1103515245 + 12345;
    t += 50 + static_cast<int64_t>(seed >> 16) % 200;
    kept.push_back(Point{t, (seed >> 4) % 97 == 0 ? Point{}.value : (seed >> 8) % 1000 / 10.0});
    buffer.Append(t, kept.back().value);
  }
  // Past the ring's start and its bucket of 10 s: older samples are in buckets, tested above.
  const int64_t first = kept.back().t_ms - 600000, to = kept.back().t_ms - 777;
  for (const auto& [from, columns] :
       {std::pair<int64_t, int>{first + 10000, 37}, {first + 12345, 500}, {first + 99999, 3}}) {
    // Per column: the same extremes and the same breaks as the samples in it.
    auto columns_of = [&, from = from, columns = columns](const std::vector<Point>& points) {
      std::vector<std::string> out(static_cast<size_t>(columns));
      std::vector<Point> lo(out.size()), hi(out.size());
      for (const Point& p : points) {
        if (p.t_ms < from || p.t_ms > to) continue;
        const auto c = static_cast<size_t>(std::min<int64_t>(columns - 1, (p.t_ms - from) * columns / (to - from)));
        if (p.gap()) out[c] = "gap";
        if (!p.gap() && !(lo[c].value <= p.value)) lo[c] = p;
        if (!p.gap() && !(hi[c].value >= p.value)) hi[c] = p;
      }
      for (size_t c = 0; c < out.size(); ++c) out[c] += std::to_string(lo[c].value) + "/" + std::to_string(hi[c].value);
      return out;
    };
    EXPECT_EQ(columns_of(buffer.Decimate(from, to, columns)), columns_of(kept)) << columns << " columns";
    double sum = 0, last = NAN;
    size_t count = 0;
    for (const Point& p : kept)
      if (p.t_ms >= from && p.t_ms <= to && !p.gap()) sum += p.value, last = p.value, ++count;
    const auto stats = buffer.Stats(from, to);
    EXPECT_EQ(stats.count, count);
    EXPECT_NEAR(stats.mean, sum / count, 1e-9);
    EXPECT_EQ(stats.current, last);
  }
}

TEST(SeriesBuffer, MemoryIsBoundedAndOldDataKeepsItsRange) {
  SeriesBuffer::Config config;
  config.full_rate_ms = 60000;
  config.bucket_ms = 1000;
  config.max_buckets = 64;
  SeriesBuffer buffer(config);
  // A day at 10 Hz: a ramp whose extremes are at the very start and end.
  const int64_t day = 24LL * 3600 * 1000;
  for (int64_t t = 0; t <= day; t += 100) buffer.Append(t, static_cast<double>(t) / day);
  EXPECT_LE(buffer.bucket_count(), 64u);
  EXPECT_LE(buffer.recent_size(), 601u);
  EXPECT_LT(buffer.MemoryBytes(), 64u * 1024);
  const auto stats = buffer.Stats(0, day);
  EXPECT_EQ(stats.min, 0.0);
  EXPECT_EQ(stats.max, 1.0);
  EXPECT_EQ(stats.current, 1.0);
  EXPECT_NEAR(stats.mean, 0.5, 1e-6);
  EXPECT_EQ(buffer.first_ms(), 0);
  // A sample from the past is dropped, not inserted out of order.
  buffer.Append(5, 99);
  EXPECT_EQ(buffer.Stats(0, day).max, 1.0);
}

}  // namespace
