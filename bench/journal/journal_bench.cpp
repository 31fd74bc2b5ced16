// Figures for the change journal: 1,000 appends from four processes at once, into one
// file and again across rotations; every line must come back whole and parseable.

#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <string>
#include <vector>

#include "journal.h"

namespace {

namespace journal = quarn::journal;
using Clock = std::chrono::steady_clock;

constexpr int kProcesses = 4;
constexpr int kPerProcess = 250;

struct Figures {
  double wall_ms = 0;
  double worst_append_us = 0;
  size_t lines = 0;
  size_t torn = 0;
  size_t out_of_order = 0;
  int rotated_files = 0;
};

Figures Run(uint64_t rotate_bytes) {
  char dir[] = "/tmp/journal-bench-XXXXXX";
  if (!::mkdtemp(dir)) std::exit(1);
  int pipe_fds[2];
  if (::pipe(pipe_fds) != 0) std::exit(1);
  const auto start = Clock::now();
  for (int p = 0; p < kProcesses; ++p) {
    if (::fork() != 0) continue;
    ::close(pipe_fds[0]);
    journal::Writer writer(dir, rotate_bytes);
    double worst = 0;
    for (int i = 0; i < kPerProcess; ++i) {
      journal::Change change{"set", "Noise Filter Level", "8-4", "5", std::to_string(i), journal::Outcome::kOk, 0};
      const std::string line = journal::MakeEntry({"127.0.0.1", "Quenta", "P" + std::to_string(p)}, change, 0).dump();
      const auto t = Clock::now();
      if (!writer.Append(line)) ::_exit(1);
      worst = std::max(worst, std::chrono::duration<double, std::micro>(Clock::now() - t).count());
    }
    if (::write(pipe_fds[1], &worst, sizeof worst) != sizeof worst) ::_exit(1);
    ::_exit(0);
  }
  ::close(pipe_fds[1]);
  Figures f;
  for (int p = 0; p < kProcesses; ++p) {
    int status = 0;
    ::wait(&status);
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) std::fprintf(stderr, "a writer failed\n");
    double worst = 0;
    if (::read(pipe_fds[0], &worst, sizeof worst) == sizeof worst)
      f.worst_append_us = std::max(f.worst_append_us, worst);
  }
  ::close(pipe_fds[0]);
  f.wall_ms = std::chrono::duration<double, std::milli>(Clock::now() - start).count();
  const auto entries = journal::Read(dir, {}, &f.torn);
  f.lines = entries.size();
  std::vector<int> next(kProcesses, 0);
  for (const auto& e : entries) {
    const int p = std::stoi(e["serial"].get<std::string>().substr(1));
    if (std::stoi(e["new"].get<std::string>()) != next[p]++) ++f.out_of_order;
  }
  for (int g = 1; g <= journal::Writer::kKeep; ++g)
    f.rotated_files += std::filesystem::exists(std::string(dir) + "/" + journal::FileName(g));
  std::filesystem::remove_all(dir);
  return f;
}

void Print(const char* name, const Figures& f) {
  std::printf(
      "%-28s %6zu lines  %4zu torn  %4zu out of order  %d rotated  %8.1f ms  %8.0f appends/s  worst append %.0f us\n",
      name, f.lines, f.torn, f.out_of_order, f.rotated_files, f.wall_ms, 1000.0 * kProcesses * kPerProcess / f.wall_ms,
      f.worst_append_us);
}

}  // namespace

int main() {
  std::printf("journal: %d processes x %d appends at once\n", kProcesses, kPerProcess);
  const Figures one = Run(journal::Writer::kRotateBytes);
  Print("one file (10 MiB rotation)", one);
  const Figures rotating = Run(64 * 1024);
  Print("rotating every 64 KiB", rotating);
  const bool whole = one.torn == 0 && rotating.torn == 0 && one.lines == kProcesses * kPerProcess &&
                     rotating.lines == kProcesses * kPerProcess && one.out_of_order == 0 && rotating.out_of_order == 0;
  std::printf("every line whole and parseable: %s\n", whole ? "yes" : "NO");
  return whole ? 0 : 1;
}
