// A connected controller left running: the refresh thread reads the live page ten times a
// second while a console loop sends commands, a page is read and the connection checked
// as the window does. Threads, descriptors and heap must stay flat. 60 s by default (20 s
// under the sanitizers); VARKEL_SOAK_SECONDS sets another length.
#include <QCoreApplication>
#include <QThread>

#include <dirent.h>
#include <malloc.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "manager_test_support.h"

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
// The sanitizer runtimes answer this; g++ ships no header that declares it.
extern "C" size_t __sanitizer_get_current_allocated_bytes();
#define VARKEL_SANITIZER_HEAP 1
#endif

namespace {

using Clock = std::chrono::steady_clock;

int CountEntries(const char* dir) {
  DIR* d = opendir(dir);
  if (!d) return -1;
  int n = 0;
  while (dirent* e = readdir(d))
    if (e->d_name[0] != '.') ++n;
  closedir(d);
  return n;
}

// Bytes the program holds on its heap now (the sanitizers keep their own allocator).
size_t HeapInUse() {
#ifdef VARKEL_SANITIZER_HEAP
  return __sanitizer_get_current_allocated_bytes();
#else
  return mallinfo2().uordblks;
#endif
}

long ResidentKiB() {
  long pages = 0, resident = 0;
  if (FILE* f = std::fopen("/proc/self/statm", "r")) {
    if (std::fscanf(f, "%ld %ld", &pages, &resident) != 2) resident = 0;
    std::fclose(f);
  }
  return resident * (sysconf(_SC_PAGESIZE) / 1024);
}

struct Sample {
  int threads, fds;
  size_t heap;
  long rss_kib;
};

Sample Take() {
  return {CountEntries("/proc/self/task"), CountEntries("/proc/self/fd"), HeapInUse(), ResidentKiB()};
}

class Soak : public vktest::ManagerTest {};

TEST_F(Soak, ThreadsDescriptorsAndHeapStayFlat) {
  const char* env = std::getenv("VARKEL_SOAK_SECONDS");
#ifdef VARKEL_SANITIZER_HEAP
  // The sanitizer suites check the same flatness in less of CI's time budget.
  constexpr int kDefaultSeconds = 20;
#else
  constexpr int kDefaultSeconds = 60;
#endif
  const int seconds = env ? std::max(10, std::atoi(env)) : kDefaultSeconds;

  // Live values: run times count and temperatures drift, as on a real sensor.
  vktest::WriteTable(root_, "Testa", vktest::TestaTable());
  varkel::sim::SimOptions options;
  options.model = "Testa";
  options.config_dir = root_ + "/Config/varID";
  options.port = 0;
  sim_ = std::make_unique<varkel::sim::VirtualLidar>(options);
  std::string error;
  ASSERT_TRUE(sim_->Start(&error)) << error;
  m_ = std::make_unique<vktest::TestManager>();
  m_->InitConfigFileParser("Testa");
  log_ = std::make_unique<vktest::SignalLog>(m_.get());
  m_->setModuleIndexUse(1);  // the page whose values refresh on their own
  ASSERT_TRUE(Connect());

  int refresh_rounds = 0, console_sends = 0, page_reads = 0, checks = 0;
  QObject::connect(m_.get(), &VarkelManager::myTimerMapChanged, [&] { ++refresh_rounds; });
  auto run_for = [&](std::chrono::seconds span) {
    const auto end = Clock::now() + span;
    auto next_page = Clock::now();
    auto next_check = Clock::now() + std::chrono::seconds(5);
    while (Clock::now() < end) {
      m_->SendCommand("07", "");
      ++console_sends;
      if (Clock::now() >= next_page) {
        m_->GetLidarModuleInfo(1);
        ++page_reads;
        next_page += std::chrono::seconds(1);
      }
      if (Clock::now() >= next_check) {
        EXPECT_TRUE(m_->CheckLidarConnection());
        ++checks;
        next_check += std::chrono::seconds(5);
      }
      // The window's event loop: queued signals are delivered, nothing piles up.
      log_->Flush();
      log_->Clear();
      QThread::msleep(10);
    }
  };

  // Warm-up: caches, the logger's buffers and the allocator's pools fill first.
  run_for(std::chrono::seconds(5));
  const Sample base = Take();
  refresh_rounds = console_sends = page_reads = checks = 0;
  const auto start = Clock::now();
  Sample last = base;
  int max_threads = base.threads, max_fds = base.fds;
  size_t max_heap = base.heap;
  for (int elapsed = 0; elapsed < seconds; elapsed += 10) {
    run_for(std::chrono::seconds(std::min(10, seconds - elapsed)));
    last = Take();
    max_threads = std::max(max_threads, last.threads);
    max_fds = std::max(max_fds, last.fds);
    max_heap = std::max(max_heap, last.heap);
  }
  const double secs = std::chrono::duration<double>(Clock::now() - start).count();

  EXPECT_TRUE(m_->getIsConnected());
  EXPECT_EQ(Error(), "");
  EXPECT_EQ(last.threads, base.threads);
  EXPECT_EQ(max_threads, base.threads);
  EXPECT_EQ(last.fds, base.fds);
  EXPECT_LE(max_fds, base.fds + 2);  // a connection check's probe may be in flight
  // The history keeps ten entries and every reply is let go: the heap ends where it began,
  // give or take the allocator's pools.
  EXPECT_LT(last.heap, base.heap + 512 * 1024) << "heap grew from " << base.heap << " to " << last.heap;
  // The work went on; its rates are figures for the log, not a pass mark.
  EXPECT_GT(refresh_rounds, 0);
  EXPECT_GT(console_sends, 0);

  std::printf(
      "soak %.0f s: %d console commands (%.0f/s), %d refresh rounds (%.1f/s), %d page reads, %d connection checks\n"
      "  threads %d -> %d (max %d), descriptors %d -> %d (max %d)\n"
      "  heap in use %zu -> %zu bytes (max %zu, %+lld), resident %ld -> %ld KiB\n",
      secs, console_sends, console_sends / secs, refresh_rounds, refresh_rounds / secs, page_reads, checks,
      base.threads, last.threads, max_threads, base.fds, last.fds, max_fds, base.heap, last.heap, max_heap,
      static_cast<long long>(last.heap) - static_cast<long long>(base.heap), base.rss_kib, last.rss_kib);
}

}  // namespace
