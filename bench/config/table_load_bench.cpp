// Load time and peak heap of the variable table: a generated 5,000-row table (target:
// under 20 ms) and the shipped default table. Figures only; nothing is asserted.
#include <malloc.h>
#include <time.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <new>
#include <sstream>
#include <string>
#include <vector>

#include "config_parser.h"

namespace {

// Counting costs time, so timed runs leave it off and one extra run measures the heap.
std::atomic<bool> g_counting{false};
std::atomic<size_t> g_live{0};
std::atomic<size_t> g_peak{0};

void Count(void* p) {
  if (p == nullptr || !g_counting.load(std::memory_order_relaxed)) return;
  const size_t live = g_live.fetch_add(malloc_usable_size(p)) + malloc_usable_size(p);
  size_t peak = g_peak.load();
  while (live > peak && !g_peak.compare_exchange_weak(peak, live)) {
  }
}

}  // namespace

void* operator new(size_t size) {
  void* p = std::malloc(size == 0 ? 1 : size);
  if (p == nullptr) throw std::bad_alloc();
  Count(p);
  return p;
}
void operator delete(void* p) noexcept {
  if (p != nullptr && g_counting.load(std::memory_order_relaxed)) g_live.fetch_sub(malloc_usable_size(p));
  std::free(p);
}
void operator delete(void* p, size_t) noexcept {
  operator delete(p);
}

namespace {

std::string GeneratedTable(int rows) {
  std::ostringstream out;
  out << "GroupID,Index,Get,Set,SetIndex,VarName,Permission,VarType,DefaultValue,Options,Unit,Coefficient,"
         "OptionDescription,FunctionModule,VarLen,TimerUpdate,SetCoefficient,GetCmdPayload\n";
  for (int m = 1; m <= 10; ++m) out << "0,Page " << m << ",Group A,Group B,Group C,Group D\n";
  for (int i = 0; i < rows; ++i) {
    const int group = i / 8 + 1, index = i % 8 + 1;
    const int cmd = 0x10 + (i / 8) % 200;
    char get[16], set[16];
    std::snprintf(get, sizeof get, "0x%02X%02X", (i / 8) / 200, cmd);
    std::snprintf(set, sizeof set, "0x%02X%02X", 0x80 + (i / 8) / 200, cmd);
    out << group << ',' << index << ',' << get << ',' << set << ',' << index << ",Variable " << i << ",1,uint16,100,";
    if (i % 3 == 0)
      out << "0|1|2,rpm,0.1,\"0_Off\n1_Low\n2_High\",";
    else
      out << "1~1000,mm,,,";
    out << (i % 10 + 1) << '_' << (i % 4 + 1) << '_' << index << '_' << (i % 3 == 0 ? 3 : 1) << ",2,"
        << (i % 5 == 0 ? "1" : "") << ",," << (i % 7 == 0 ? "0x0102" : "") << '\n';
  }
  return out.str();
}

double CpuMs() {
  timespec ts{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
  return ts.tv_sec * 1e3 + ts.tv_nsec / 1e6;
}

struct Figures {
  double median_ms;
  double best_ms;
  double median_cpu_ms;
  size_t peak_bytes;
  size_t vars;
};

Figures Measure(const std::string& path, int runs) {
  std::vector<double> times, cpu;
  size_t vars = 0;
  for (int r = 0; r < runs; ++r) {
    ConfigParser parser;
    const double cpu_start = CpuMs();
    const auto start = std::chrono::steady_clock::now();
    parser.Load(path);
    times.push_back(std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count());
    cpu.push_back(CpuMs() - cpu_start);
    vars = parser.var_map.size();
  }
  std::sort(times.begin(), times.end());
  std::sort(cpu.begin(), cpu.end());

  g_live.store(0);
  g_peak.store(0);
  g_counting.store(true);
  {
    ConfigParser parser;
    parser.Load(path);
  }
  g_counting.store(false);
  return {times[times.size() / 2], times.front(), cpu[cpu.size() / 2], g_peak.load(), vars};
}

void Report(const char* what, const std::string& path, int runs) {
  std::ifstream in(path, std::ios::binary | std::ios::ate);
  const auto size = static_cast<long long>(in.tellg());
  const Figures f = Measure(path, runs);
  std::printf(
      "%-22s %4lld KiB file, %5zu variables: wall median %6.2f ms (best %6.2f), cpu median %6.2f ms, "
      "peak heap %7.1f KiB (%.1f x file)\n",
      what, size / 1024, f.vars, f.median_ms, f.best_ms, f.median_cpu_ms, f.peak_bytes / 1024.0,
      static_cast<double>(f.peak_bytes) / static_cast<double>(size));
}

}  // namespace

int main() {
  const std::string generated = "/tmp/varkel_bench_table_5000.csv";
  {
    std::ofstream out(generated, std::ios::binary);
    out << GeneratedTable(5000);
  }
  Report("generated, 5000 rows", generated, 21);
  Report("shipped Quenta.csv", std::string(VARKEL_SOURCE_DIR) + "/Config/varID/Quenta.csv", 101);
  std::printf("target: the 5000-row table under 20 ms\n");
  std::remove(generated.c_str());
  return 0;
}
