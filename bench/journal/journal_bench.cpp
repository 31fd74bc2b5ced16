// Figures for the change journal: 1,000 appends from four processes at once, into one
// file and again across rotations; every line must come back whole and parseable. Then the
// read of a full journal (five rotated files and the current one, 10 MiB each), as the
// History page's reading thread and `varkel-cli journal` make it.

#include <stdlib.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
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

// A full journal written straight into its files, then read whole and with a host filter.
void ReadFull() {
  char dir[] = "/tmp/journal-bench-XXXXXX";
  if (!::mkdtemp(dir)) std::exit(1);
  size_t lines = 0, bytes = 0;
  for (int g = journal::Writer::kKeep; g >= 0; --g) {
    std::ofstream out(std::string(dir) + "/" + journal::FileName(g), std::ios::binary);
    for (size_t file_bytes = 0; file_bytes < journal::Writer::kRotateBytes; ++lines) {
      journal::Change change{"set", "Noise Filter Level", "8-4", "5", std::to_string(lines), journal::Outcome::kOk, 0};
      const std::string host = "127.0.0." + std::to_string(2 + lines % 16);
      const std::string line = journal::MakeEntry({host, "Quenta", "QT26J" + std::to_string(lines % 16)}, change,
                                                  static_cast<int64_t>(lines))
                                   .dump() +
                               "\n";
      out << line;
      file_bytes += line.size();
    }
    bytes += static_cast<size_t>(out.tellp());
  }
  const auto timed = [&](const journal::Filter& filter, size_t* found) {
    const auto start = Clock::now();
    *found = journal::Read(dir, filter).size();
    return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
  };
  const auto peak_mib = [] {
    rusage usage{};
    ::getrusage(RUSAGE_SELF, &usage);
    return usage.ru_maxrss / 1024.0;
  };
  std::printf("full journal: %zu lines, %.1f MiB in %d files\n", lines, bytes / 1048576.0, journal::Writer::kKeep + 1);
  size_t all = 0, one_host = 0, newest = 0;
  // The History page's read first: the peak it leaves is its own.
  const double newest_ms = timed({std::nullopt, "", "", 5000}, &newest);
  std::printf("read the newest %zu (History page): %.1f ms, peak %.0f MiB\n", newest, newest_ms, peak_mib());
  const double host_ms = timed({std::nullopt, "127.0.0.5", ""}, &one_host);
  std::printf("read one host's %zu lines: %.1f ms\n", one_host, host_ms);
  const double all_ms = timed({}, &all);
  std::printf("read every line: %.1f ms (%.0f lines/s), peak %.0f MiB\n", all_ms, 1000.0 * all / all_ms, peak_mib());
  std::filesystem::remove_all(dir);
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
  ReadFull();
  return whole ? 0 : 1;
}
