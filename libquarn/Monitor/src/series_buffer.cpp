#include "series_buffer.h"

#include <algorithm>
#include <cstdlib>

namespace quarn::monitor {

SeriesBuffer::SeriesBuffer(Config config) : config_(config), bucket_ms_(std::max<int64_t>(1, config.bucket_ms)) {}

void SeriesBuffer::Append(int64_t t_ms, double value) {
  if (t_ms < last_ms_) return;
  last_ms_ = t_ms;
  const Point p{t_ms, value};
  const uint64_t seq = front_seq_ + recent_.size();
  recent_.push_back(p);
  for (int level = 0; level < kLevels; ++level) {
    std::deque<Summary>& runs = runs_[level];
    if (runs.empty()) front_run_[level] = seq / kRun[level];
    if (runs.empty() || seq % kRun[level] == 0) runs.emplace_back();
    runs.back().Add(p);
  }
  Age(t_ms);
}

void SeriesBuffer::Summary::Add(const Point& p) {
  if (count == 0 && !gap) first_ms = p.t_ms;
  last_ms = p.t_ms;
  if (p.gap()) {
    if (!gap) gap_ms = p.t_ms;
    gap = true;
    return;
  }
  if (count == 0 || p.value < lo.value) lo = p;
  if (count == 0 || p.value > hi.value) hi = p;
  sum += p.value;
  last = p.value;
  ++count;
}

void SeriesBuffer::Age(int64_t now_ms) {
  while (!recent_.empty() && recent_.front().t_ms < now_ms - config_.full_rate_ms) {
    AddToBuckets(recent_.front());
    recent_.pop_front();
    ++front_seq_;
  }
  // A run partly aged stays until its last sample goes; it is walked sample by sample.
  for (int level = 0; level < kLevels; ++level)
    while (!runs_[level].empty() && (front_run_[level] + 1) * kRun[level] <= front_seq_) {
      runs_[level].pop_front();
      ++front_run_[level];
    }
}

template <typename Fits, typename OnSummary, typename OnPoint>
void SeriesBuffer::WalkRecent(int64_t from_ms, int64_t to_ms, const Fits& fits, const OnSummary& on_summary,
                              const OnPoint& on_point) const {
  const auto first =
      std::lower_bound(recent_.begin(), recent_.end(), from_ms, [](const Point& p, int64_t t) { return p.t_ms < t; });
  uint64_t seq = front_seq_ + static_cast<uint64_t>(first - recent_.begin());
  const uint64_t end = front_seq_ + recent_.size();
  while (seq < end) {
    const Point& p = recent_[seq - front_seq_];
    if (p.t_ms > to_ms) return;
    // The longest run starting here that lies whole in the ring and fits; else the sample.
    bool taken = false;
    for (int level = kLevels - 1; level >= 0 && !taken; --level) {
      const uint64_t run = seq / kRun[level];
      if (seq % kRun[level] != 0 || run < front_run_[level] || run - front_run_[level] >= runs_[level].size()) continue;
      const Summary& s = runs_[level][run - front_run_[level]];
      if (s.last_ms > to_ms || !fits(s)) continue;
      on_summary(s);
      seq += kRun[level];
      taken = true;
    }
    if (!taken) {
      on_point(p);
      ++seq;
    }
  }
}

void SeriesBuffer::AddToBuckets(const Point& p) {
  const int64_t start = p.t_ms - ((p.t_ms % bucket_ms_) + bucket_ms_) % bucket_ms_;
  if (buckets_.empty() || buckets_.back().start_ms + bucket_ms_ <= p.t_ms) {
    if (buckets_.size() >= config_.max_buckets) {
      MergeBuckets();
      AddToBuckets(p);
      return;
    }
    Bucket b;
    b.start_ms = start;
    buckets_.push_back(b);
  }
  Bucket& b = buckets_.back();
  if (p.gap()) {
    b.gap = true;
    return;
  }
  if (b.count == 0 || p.value < b.min) {
    b.min = p.value;
    b.min_ms = p.t_ms;
  }
  if (b.count == 0 || p.value > b.max) {
    b.max = p.value;
    b.max_ms = p.t_ms;
  }
  b.sum += p.value;
  ++b.count;
}

void SeriesBuffer::MergeBuckets() {
  bucket_ms_ *= 2;
  std::deque<Bucket> merged;
  for (const Bucket& b : buckets_) {
    const int64_t start = b.start_ms - ((b.start_ms % bucket_ms_) + bucket_ms_) % bucket_ms_;
    if (merged.empty() || merged.back().start_ms != start) {
      Bucket m = b;
      m.start_ms = start;
      merged.push_back(m);
      continue;
    }
    Bucket& m = merged.back();
    if (b.count > 0) {
      if (m.count == 0 || b.min < m.min) {
        m.min = b.min;
        m.min_ms = b.min_ms;
      }
      if (m.count == 0 || b.max > m.max) {
        m.max = b.max;
        m.max_ms = b.max_ms;
      }
      m.sum += b.sum;
      m.count += b.count;
    }
    m.gap = m.gap || b.gap;
  }
  buckets_.swap(merged);
}

int64_t SeriesBuffer::first_ms() const {
  if (!buckets_.empty()) return buckets_.front().start_ms;
  return recent_.empty() ? 0 : recent_.front().t_ms;
}

namespace {

// Collects one column's extremes, then writes them in the order they happened.
struct Column {
  bool any = false, gap = false;
  Point lo, hi, gap_at;
  void Add(const Point& p) {
    if (p.gap()) {
      if (!gap) gap_at = p;
      gap = true;
      return;
    }
    if (!any || p.value < lo.value) lo = p;
    if (!any || p.value > hi.value) hi = p;
    any = true;
  }
  void Flush(std::vector<Point>& out) {
    // Up to three points, in the order they happened, so a break falls where the gap was.
    Point picked[3];
    int n = 0;
    if (any) {
      picked[n++] = lo;
      if (lo.t_ms != hi.t_ms || lo.value != hi.value) picked[n++] = hi;
    }
    if (gap) picked[n++] = gap_at;
    // An insertion sort: stable, and without the buffer std::stable_sort would allocate.
    for (int i = 1; i < n; ++i)
      for (int j = i; j > 0 && picked[j].t_ms < picked[j - 1].t_ms; --j) std::swap(picked[j], picked[j - 1]);
    out.insert(out.end(), picked, picked + n);
    *this = Column{};
  }
};

}  // namespace

std::vector<Point> SeriesBuffer::Decimate(int64_t from_ms, int64_t to_ms, int columns) const {
  std::vector<Point> out;
  if (to_ms <= from_ms || columns <= 0) return out;
  out.reserve(static_cast<size_t>(columns) * 2 + 2);
  const double span = static_cast<double>(to_ms - from_ms);
  int current = -1;
  Column column;
  auto column_of = [&](int64_t t_ms) {
    return std::min(columns - 1, static_cast<int>(static_cast<double>(t_ms - from_ms) * columns / span));
  };
  auto add = [&](const Point& p) {
    const int c = column_of(p.t_ms);
    if (c != current) {
      column.Flush(out);
      current = c;
    }
    column.Add(p);
  };
  for (const Bucket& b : buckets_) {
    if (b.start_ms + bucket_ms_ <= from_ms) continue;
    if (b.start_ms > to_ms) break;
    if (b.count > 0) {
      add(Point{b.min_ms, b.min});
      if (b.max_ms != b.min_ms) add(Point{b.max_ms, b.max});
    }
    if (b.gap) add(Point{b.count > 0 ? std::max(b.min_ms, b.max_ms) : b.start_ms, Point{}.value});
  }
  WalkRecent(
      from_ms, to_ms, [&](const Summary& s) { return column_of(s.first_ms) == column_of(s.last_ms); },
      [&](const Summary& s) {
        if (s.count > 0) {
          add(s.lo);
          add(s.hi);
        }
        if (s.gap) add(Point{s.gap_ms, Point{}.value});
      },
      add);
  column.Flush(out);
  return out;
}

Point SeriesBuffer::Nearest(int64_t t_ms) const {
  Point best;
  auto consider = [&](const Point& p) {
    if (!p.gap() && (best.gap() || std::llabs(p.t_ms - t_ms) < std::llabs(best.t_ms - t_ms))) best = p;
  };
  for (const Bucket& b : buckets_)
    if (b.count > 0) {
      consider(Point{b.min_ms, b.min});
      consider(Point{b.max_ms, b.max});
    }
  const auto it =
      std::lower_bound(recent_.begin(), recent_.end(), t_ms, [](const Point& p, int64_t t) { return p.t_ms < t; });
  // The first value read on either side.
  for (auto after = it; after != recent_.end(); ++after)
    if (!after->gap()) {
      consider(*after);
      break;
    }
  for (auto before = it; before != recent_.begin();)
    if (!(--before)->gap()) {
      consider(*before);
      break;
    }
  return best;
}

Statistics SeriesBuffer::Stats(int64_t from_ms, int64_t to_ms) const {
  Statistics s;
  double sum = 0;
  auto take = [&](double lo, double hi, double part_sum, size_t count) {
    if (count == 0) return;
    s.min = s.count == 0 ? lo : std::min(s.min, lo);
    s.max = s.count == 0 ? hi : std::max(s.max, hi);
    sum += part_sum;
    s.count += count;
  };
  for (const Bucket& b : buckets_) {
    if (b.start_ms + bucket_ms_ <= from_ms) continue;
    if (b.start_ms > to_ms) break;
    take(b.min, b.max, b.sum, b.count);
  }
  WalkRecent(
      from_ms, to_ms, [](const Summary&) { return true; },
      [&](const Summary& run) {
        take(run.lo.value, run.hi.value, run.sum, run.count);
        if (run.count > 0) s.current = run.last;
      },
      [&](const Point& p) {
        if (p.gap()) return;
        take(p.value, p.value, p.value, 1);
        s.current = p.value;
      });
  if (s.count > 0) s.mean = sum / static_cast<double>(s.count);
  return s;
}

size_t SeriesBuffer::MemoryBytes() const {
  // A deque allocates blocks of 512 bytes; count the blocks in use plus the map.
  auto blocks = [](size_t n, size_t size) {
    const size_t per = std::max<size_t>(1, 512 / size);
    return (n / per + 2) * 512 + (n / per + 2) * sizeof(void*);
  };
  size_t bytes = sizeof(*this) + blocks(recent_.size(), sizeof(Point)) + blocks(buckets_.size(), sizeof(Bucket));
  for (const auto& runs : runs_) bytes += blocks(runs.size(), sizeof(Summary));
  return bytes;
}

void SeriesBuffer::Clear() {
  recent_.clear();
  buckets_.clear();
  front_seq_ = 0;
  for (int level = 0; level < kLevels; ++level) {
    runs_[level].clear();
    front_run_[level] = 0;
  }
  bucket_ms_ = std::max<int64_t>(1, config_.bucket_ms);
  last_ms_ = std::numeric_limits<int64_t>::min();
}

}  // namespace quarn::monitor
