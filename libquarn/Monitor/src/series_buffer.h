#pragma once
// The history of one monitored quantity, bounded whatever the duration: the last hour at
// full rate in a ring, everything older as min/max buckets whose width doubles whenever
// their count would pass a cap. A value that could not be read is kept as a gap (NaN)
// so that a line is broken there instead of bridging the missing stretch. The ring also
// keeps summaries of aligned runs of 16 and 256 samples, so a wide window is reduced
// and summed from them instead of sample by sample.

#include <cmath>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <limits>
#include <vector>

namespace quarn::monitor {

struct Point {
  int64_t t_ms = 0;
  double value = std::numeric_limits<double>::quiet_NaN();  // NaN: a gap
  bool gap() const { return std::isnan(value); }
};

struct Statistics {
  size_t count = 0;  // values read in the window
  double current = std::numeric_limits<double>::quiet_NaN();
  double min = std::numeric_limits<double>::quiet_NaN();
  double mean = std::numeric_limits<double>::quiet_NaN();
  double max = std::numeric_limits<double>::quiet_NaN();
};

class SeriesBuffer {
 public:
  struct Config {
    int64_t full_rate_ms = 3600 * 1000;  // kept sample by sample
    int64_t bucket_ms = 10 * 1000;       // first width of an older bucket
    size_t max_buckets = 4096;           // past it, neighbours merge and the width doubles
  };
  SeriesBuffer() : SeriesBuffer(Config{}) {}
  explicit SeriesBuffer(Config config);

  // Samples come in time order; one older than the last is dropped.
  void Append(int64_t t_ms, double value);
  void AppendGap(int64_t t_ms) { Append(t_ms, std::numeric_limits<double>::quiet_NaN()); }

  // The points of [from_ms, to_ms] reduced to at most two per column of `columns`: the
  // minimum and the maximum of the column in the order they happened. A column holding a
  // gap ends with a gap point, so a drawn line breaks there.
  std::vector<Point> Decimate(int64_t from_ms, int64_t to_ms, int columns) const;
  // The value read nearest in time to t_ms (for older times a bucket's extreme); a gap
  // point when nothing was read.
  Point Nearest(int64_t t_ms) const;
  // Current (the last value read), min, mean and max over [from_ms, to_ms].
  Statistics Stats(int64_t from_ms, int64_t to_ms) const;

  bool empty() const { return recent_.empty() && buckets_.empty(); }
  int64_t first_ms() const;
  int64_t last_ms() const { return last_ms_; }
  size_t recent_size() const { return recent_.size(); }
  size_t bucket_count() const { return buckets_.size(); }
  int64_t bucket_ms() const { return bucket_ms_; }
  // Bytes held, containers included (their spare room too).
  size_t MemoryBytes() const;
  void Clear();

 private:
  struct Bucket {
    int64_t start_ms = 0;
    int64_t min_ms = 0;  // when the minimum and the maximum were seen, to keep their order
    int64_t max_ms = 0;
    double min = 0;
    double max = 0;
    double sum = 0;
    uint32_t count = 0;  // values read
    bool gap = false;    // a value was missing in it
  };
  // The extremes, sum and first gap of an aligned run of ring samples.
  struct Summary {
    int64_t first_ms = 0;
    int64_t last_ms = 0;
    Point lo, hi;
    int64_t gap_ms = 0;  // the first missing value, when `gap`
    double sum = 0;
    double last = std::numeric_limits<double>::quiet_NaN();  // the last value read
    uint32_t count = 0;
    bool gap = false;
    void Add(const Point& p);
  };
  static constexpr int kLevels = 2;
  static constexpr uint64_t kRun[kLevels] = {16, 256};
  // Calls on_summary for each whole run that `fits` and on_point for each other sample,
  // in time order, over the ring's samples in [from_ms, to_ms].
  template <typename Fits, typename OnSummary, typename OnPoint>
  void WalkRecent(int64_t from_ms, int64_t to_ms, const Fits& fits, const OnSummary& on_summary,
                  const OnPoint& on_point) const;
  void Age(int64_t now_ms);
  void AddToBuckets(const Point& p);
  void MergeBuckets();

  Config config_;
  int64_t bucket_ms_;
  int64_t last_ms_ = std::numeric_limits<int64_t>::min();
  std::deque<Point> recent_;
  uint64_t front_seq_ = 0;  // the sequence number of recent_.front()
  // Per level, the summaries of the runs that still have samples in the ring; run r covers
  // the sequence numbers [r * kRun, (r + 1) * kRun).
  std::deque<Summary> runs_[kLevels];
  uint64_t front_run_[kLevels] = {};
  std::deque<Bucket> buckets_;
};

}  // namespace quarn::monitor
