#include "limit_watch.h"

#include <cmath>
#include <cstdio>
#include <cstdlib>

namespace quarn::monitor {

double Hysteresis(const Limits& limits, double fraction) {
  if (fraction <= 0) return 0;
  double span = 0;
  if (limits.low && limits.high)
    span = std::fabs(*limits.high - *limits.low);
  else if (limits.low)
    span = std::fabs(*limits.low);
  else if (limits.high)
    span = std::fabs(*limits.high);
  // A limit at zero still needs some room, or noise around zero would chatter.
  if (span == 0) span = 1;
  return span * fraction;
}

LimitEvent LimitWatch::Update(double value, const Limits& limits) {
  LimitEvent event;
  if (std::isnan(value)) {
    event.state = state_;
    return event;
  }
  const double h = Hysteresis(limits, fraction_);
  LimitState next = state_;
  switch (state_) {
    case LimitState::kInside:
      if (limits.high && value > *limits.high)
        next = LimitState::kAboveHigh;
      else if (limits.low && value < *limits.low)
        next = LimitState::kBelowLow;
      break;
    case LimitState::kAboveHigh:
      // A limit removed or moved away clears at once.
      if (!limits.high || value <= *limits.high - h) next = LimitState::kInside;
      break;
    case LimitState::kBelowLow:
      if (!limits.low || value >= *limits.low + h) next = LimitState::kInside;
      break;
  }
  if (next == state_) {
    event.state = state_;
    return event;
  }
  event.kind = next == LimitState::kInside ? LimitEvent::kCleared : LimitEvent::kRaised;
  if (next == LimitState::kAboveHigh) passed_ = *limits.high;
  if (next == LimitState::kBelowLow) passed_ = *limits.low;
  event.limit = passed_;
  event.state = next;
  state_ = next;
  // Straight from above to below (a jump past both) is two events; the caller sees the raise.
  if (next == LimitState::kInside) {
    LimitEvent again = Update(value, limits);
    if (again.kind == LimitEvent::kRaised) return again;
  }
  return event;
}

static std::string Trim(const std::string& text) {
  const size_t first = text.find_first_not_of(" \t");
  if (first == std::string::npos) return "";
  return text.substr(first, text.find_last_not_of(" \t") - first + 1);
}

bool ParseAlertRule(const std::string& text, std::string* name, Limits* limits) {
  const size_t at = text.find_last_of("<>");
  if (at == std::string::npos || text.find_first_of("<>") != at) return false;
  const std::string key = Trim(text.substr(0, at));
  const std::string number = Trim(text.substr(at + 1));
  if (key.empty() || number.empty()) return false;
  char* end = nullptr;
  const double value = std::strtod(number.c_str(), &end);
  if (!end || *end != '\0' || !std::isfinite(value)) return false;
  *name = key;
  *limits = Limits{};
  if (text[at] == '<')
    limits->low = value;
  else
    limits->high = value;
  return true;
}

std::string NumberText(double value) {
  if (std::isnan(value)) return "";
  char text[64];
  if (value == std::floor(value) && std::fabs(value) < 1e15) {
    std::snprintf(text, sizeof text, "%.0f", value);
    return text;
  }
  // The fewest digits that read back as the same double, 15 at most: 38.47, not 38.4700000001.
  for (int digits = 1; digits <= 15; ++digits) {
    std::snprintf(text, sizeof text, "%.*g", digits, value);
    if (std::strtod(text, nullptr) == value) return text;
  }
  return text;
}

std::string AlertText(const std::string& name, const std::string& unit, double value, const LimitEvent& event) {
  const std::string u = unit.empty() ? "" : " " + unit;
  const std::string v = name + " " + NumberText(value) + u;
  switch (event.state) {
    case LimitState::kAboveHigh:
      return v + " above the high limit " + NumberText(event.limit) + u;
    case LimitState::kBelowLow:
      return v + " below the low limit " + NumberText(event.limit) + u;
    case LimitState::kInside:
      break;
  }
  return v + " back inside its limits";
}

}  // namespace quarn::monitor
