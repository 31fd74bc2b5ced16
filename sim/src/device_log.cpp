#include "device_log.h"

#include <cstdio>

namespace varkel::sim {
namespace {

// A wall clock that only moves forward by milliseconds: enough calendar for a log that
// spans days, without depending on the computer's time zone or clock.
struct LogClock {
  int year = 2026, month = 3, day = 18, hour = 6, minute = 0, second = 0, ms = 0;

  static int DaysIn(int y, int m) {
    static const int kDays[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    const bool leap = (y % 4 == 0 && y % 100 != 0) || y % 400 == 0;
    return m == 2 && leap ? 29 : kDays[m - 1];
  }

  void Advance(int step_ms) {
    ms += step_ms;
    second += ms / 1000;
    ms %= 1000;
    minute += second / 60;
    second %= 60;
    hour += minute / 60;
    minute %= 60;
    day += hour / 24;
    hour %= 24;
    while (day > DaysIn(year, month)) {
      day -= DaysIn(year, month);
      if (++month > 12) {
        month = 1;
        ++year;
      }
    }
  }
};

struct Entry {
  const char* level;
  const char* text;
};

constexpr Entry kEntries[] = {
    {"I", "motor speed settled at 600 rpm"},
    {"I", "laser power within limits"},
    {"W", "window contamination above threshold on channel 3"},
    {"I", "time synchronisation locked"},
    {"W", "board temperature 71.5 C, derating"},
    {"E", "frame checksum mismatch, frame dropped"},
    {"I", "configuration saved"},
    {"W", "supply voltage dipped to 10.8 V"},
    {"I", "client connected on the command port"},
    {"E", "encoder index missed, re-homing"},
    {"I", "point cloud stream restarted"},
};

}  // namespace

std::optional<OperationLogPart> OperationLogPartOf(uint16_t selector) {
  for (const auto& p : kOperationLogParts)
    if (p.selector == selector) return p;
  return std::nullopt;
}

std::vector<uint8_t> BuildLogBody(const std::string& title, size_t size) {
  std::vector<uint8_t> body;
  body.reserve(size);
  LogClock clock;
  char line[256];
  for (uint64_t n = 1; body.size() < size; ++n) {
    const Entry& e = kEntries[n % (sizeof(kEntries) / sizeof(kEntries[0]))];
    int len = std::snprintf(line, sizeof(line), "%04d-%02d-%02d %02d:%02d:%02d.%03d %s #%llu %s %s\n", clock.year,
                            clock.month, clock.day, clock.hour, clock.minute, clock.second, clock.ms, title.c_str(),
                            static_cast<unsigned long long>(n), e.level, e.text);
    if (len < 0) len = 0;
    // A title too long for the buffer is cut; the line still ends in '\n'.
    if (static_cast<size_t>(len) >= sizeof(line)) {
      len = sizeof(line) - 1;
      line[len - 1] = '\n';
    }
    size_t take = static_cast<size_t>(len);
    const size_t room = size - body.size();
    if (take > room) {
      take = room;
      line[take - 1] = '\n';
    }
    body.insert(body.end(), line, line + take);
    // Irregular but repeatable gaps of up to a minute.
    clock.Advance(200 + static_cast<int>((n * 7919) % 59800));
  }
  return body;
}

}  // namespace varkel::sim
