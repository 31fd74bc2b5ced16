#pragma once
// Low and high limits of one quantity and whether it is beyond them. An alert is raised
// when a value passes a limit and is raised again only after the value has come back
// inside by the hysteresis, so noise around a limit does not chatter.

#include <optional>
#include <string>

namespace quarn::monitor {

struct Limits {
  std::optional<double> low;
  std::optional<double> high;
  bool any() const { return low.has_value() || high.has_value(); }
};

// How far inside a limit a value must come back before the alert can fire again: a
// fraction of the span between the limits, or of the one limit's size when only one is set.
double Hysteresis(const Limits& limits, double fraction);

enum class LimitState { kInside, kBelowLow, kAboveHigh };

struct LimitEvent {
  enum Kind { kNone, kRaised, kCleared } kind = kNone;
  LimitState state = LimitState::kInside;  // the state the value went to
  double limit = 0;                        // the limit passed (the one left, when cleared)
};

class LimitWatch {
 public:
  // `fraction` 0: back inside is enough to re-arm.
  explicit LimitWatch(double fraction = 0.0) : fraction_(fraction) {}
  // A value not read (NaN) changes nothing.
  LimitEvent Update(double value, const Limits& limits);
  LimitState state() const { return state_; }
  void Reset() { state_ = LimitState::kInside; }

 private:
  double fraction_;
  LimitState state_ = LimitState::kInside;
  double passed_ = 0;
};

// "NAME<VALUE" (alert below VALUE) or "NAME>VALUE" (alert above VALUE); false for any
// other form. The name is trimmed and must not be empty.
bool ParseAlertRule(const std::string& text, std::string* name, Limits* limits);

// "Laser Temperature 46.2 °C above the high limit 45 °C" and its kin; `unit` may be empty.
std::string AlertText(const std::string& name, const std::string& unit, double value, const LimitEvent& event);

// Numbers as the recording and the alert lines write them: shortest round trip up to 15
// significant digits, no exponent for integers below 1e15.
std::string NumberText(double value);

}  // namespace quarn::monitor
