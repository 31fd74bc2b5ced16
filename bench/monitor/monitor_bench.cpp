// The Monitor's history: 20 series sampled at 10 Hz for 24 hours of simulated time, then
// the heap they hold (target: at most 64 MiB) and one redraw's min/max decimation for a
// chart 1,000 pixels wide (target: at most 2 ms), per series and for a chart of four.
// Figures only; nothing is asserted.
#include <malloc.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <vector>

#include "series_buffer.h"

namespace {

using quarn::monitor::SeriesBuffer;
using Clock = std::chrono::steady_clock;

size_t HeapInUse() {
  const struct mallinfo2 info = mallinfo2();
  return info.uordblks + info.hblkhd;
}

double MedianMs(std::vector<double> v) {
  std::sort(v.begin(), v.end());
  return v[v.size() / 2];
}

}  // namespace

int main() {
  constexpr int kSeries = 20;
  constexpr int64_t kDayMs = 24LL * 3600 * 1000;
  constexpr int64_t kStepMs = 100;
  const size_t heap_before = HeapInUse();
  std::vector<SeriesBuffer> series(kSeries);
  const auto fill_start = Clock::now();
  for (int64_t t = 0; t <= kDayMs; t += kStepMs)
    for (int s = 0; s < kSeries; ++s) {
      // A slow wave with noise and, every ten minutes, a second not read.
      const double v = 40 + 5 * std::sin(t / 600000.0 + s) + 0.1 * ((t / kStepMs * 7919 + s) % 13);
      if ((t / 1000) % 600 == 0)
        series[s].AppendGap(t);
      else
        series[s].Append(t, v);
    }
  const double fill_s = std::chrono::duration<double>(Clock::now() - fill_start).count();
  const size_t heap = HeapInUse() - heap_before;
  size_t counted = 0;
  for (const auto& s : series) counted += s.MemoryBytes();

  std::printf("monitor history: %d series x 10 Hz x 24 h (%lld samples each) appended in %.2f s\n", kSeries,
              static_cast<long long>(kDayMs / kStepMs + 1), fill_s);
  std::printf("  heap held: %.2f MiB (target <= 64 MiB; %.2f MiB by the buffers' own count)\n", heap / 1048576.0,
              counted / 1048576.0);
  std::printf("  per series: %zu samples at full rate, %zu buckets of %lld s\n", series[0].recent_size(),
              series[0].bucket_count(), static_cast<long long>(series[0].bucket_ms() / 1000));

  struct Window {
    const char* name;
    int64_t span_ms;
  };
  for (const Window& w :
       {Window{"1 min", 60000}, Window{"10 min", 600000}, Window{"1 h", 3600000}, Window{"all (24 h)", kDayMs}}) {
    std::vector<double> one, four;
    size_t points = 0;
    for (int round = 0; round < 31; ++round) {
      auto start = Clock::now();
      points = series[0].Decimate(kDayMs - w.span_ms, kDayMs, 1000).size();
      one.push_back(std::chrono::duration<double, std::milli>(Clock::now() - start).count());
      start = Clock::now();
      for (int s = 0; s < 4; ++s) series[s].Decimate(kDayMs - w.span_ms, kDayMs, 1000);
      four.push_back(std::chrono::duration<double, std::milli>(Clock::now() - start).count());
    }
    std::printf(
        "  decimation to 1000 px, window %-10s: %.3f ms per series (%zu points), %.3f ms for a chart of 4 "
        "(target <= 2 ms)\n",
        w.name, MedianMs(one), points, MedianMs(four));
  }
  return 0;
}
