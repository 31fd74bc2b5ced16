#include "register_bank.h"

#include <algorithm>
#include <cctype>
#include <cmath>

#include "field_text.h"
#include "hex_text.h"
#include "ktc_wire.h"
#include "return_codes.h"

namespace varkel::sim {
namespace {

std::string Lower(std::string s) {
  for (auto& c : s) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return s;
}

bool NameHas(const BankVariable& def, const char* word) {
  return Lower(def.var_name).find(word) != std::string::npos;
}

// Temperatures wander by this much around their base over a minute.
constexpr double kDriftAmplitude = 1.5;
constexpr double kDriftPeriodS = 60.0;

// Noise in [-1, 1] that changes ten times a second, the same for the same time and seed.
double Noise(double t, uint32_t seed) {
  uint32_t x = static_cast<uint32_t>(static_cast<int64_t>(t * 10.0)) * 2654435761u ^ seed * 40503u;
  x ^= x >> 15;
  x *= 2246822519u;
  x ^= x >> 13;
  return static_cast<double>(x % 20001u) / 10000.0 - 1.0;
}

// Tables show "xxxxxxxx" or "xx.xx.xx.xx" until the first read; a sensor never reports those.
bool IsPlaceholder(const std::string& text) {
  return text.find_first_not_of("xX.") == std::string::npos;
}

}  // namespace

RegisterBank::RegisterBank(std::vector<BankVariable> vars, std::string model, bool live)
    : model_(std::move(model)), live_(live) {
  const auto now = std::chrono::steady_clock::now();
  vars_.reserve(vars.size());
  for (auto& def : vars) {
    Var v;
    v.def = std::move(def);
    v.store_coef = v.def.get_cmd.empty() ? v.def.set_coefficient : v.def.coefficient;
    v.base_time = now;
    const size_t len = v.def.var_len;
    std::optional<std::vector<uint8_t>> bytes;
    if (!IsPlaceholder(v.def.default_val))
      bytes = EncodeValueText(v.def.var_type, v.def.default_val, v.store_coef, len);
    if (!bytes) bytes = EncodeValueText(v.def.var_type, PlausibleText(v.def), v.store_coef, len);
    v.bytes = bytes ? *bytes : std::vector<uint8_t>(len, 0);
    v.default_bytes = v.bytes;
    // Only measurements move: a setting (a variable the sensor lets one write) keeps the
    // value written, or a backup could never be restored to an identical sensor.
    const bool measurement = v.def.set_cmd.empty();
    if (measurement && v.def.var_type == "DT") {
      v.motion = Motion::kCountUp;
    } else if (measurement && IsNumericType(v.def.var_type)) {
      v.motion = MotionOf(v.def);
    }
    const size_t index = vars_.size();
    if (auto key = ParseCommandText(v.def.get_cmd)) get_cmds_[*key].push_back(index);
    if (auto key = ParseCommandText(v.def.set_cmd)) set_cmds_[*key].push_back(index);
    vars_.push_back(std::move(v));
  }
}

RegisterBank::Motion RegisterBank::MotionOf(const BankVariable& def) {
  if (NameHas(def, "temp")) return Motion::kDrift;
  if (NameHas(def, "voltage")) return Motion::kNoise;
  if (NameHas(def, "power")) return Motion::kPower;
  if (NameHas(def, "current")) return Motion::kCurrent;
  if (NameHas(def, "motor speed")) return Motion::kSpin;
  if (NameHas(def, "offset")) return Motion::kWander;
  if (NameHas(def, "frame counter")) return Motion::kFrames;
  return Motion::kNone;
}

double RegisterBank::ShownNow(const char* word) const {
  for (const auto& v : vars_)
    if (v.def.set_cmd.empty() && IsNumericType(v.def.var_type) && NameHas(v.def, word)) {
      const auto bytes = Current(v);
      const auto shown = DecodeNumber(v.def.var_type, bytes, v.store_coef);
      if (shown) return *shown;
    }
  return NAN;
}

double RegisterBank::Moved(const Var& v, double base, double t) const {
  const auto seed = static_cast<uint32_t>(std::hash<std::string>{}(v.def.var_id));
  switch (v.motion) {
    case Motion::kDrift:
      return base + kDriftAmplitude * std::sin(2.0 * M_PI * t / kDriftPeriodS);
    case Motion::kNoise:
      return base * (1.0 + 0.002 * Noise(t, seed));
    case Motion::kPower:
      // The laser and the heaters draw more as the board warms: power follows the drift.
      return base * (1.0 + 0.03 * std::sin(2.0 * M_PI * t / kDriftPeriodS) + 0.005 * Noise(t, seed));
    case Motion::kCurrent: {
      const double power = ShownNow("power");
      const double volts = ShownNow("voltage");
      if (std::isnan(power) || std::isnan(volts) || volts <= 0) return base * (1.0 + 0.005 * Noise(t, seed));
      return power / volts;
    }
    case Motion::kSpin: {
      double set = base;
      for (const auto& s : vars_)
        if (!s.def.set_cmd.empty() && NameHas(s.def, "spin rate"))
          if (auto rate = DecodeNumber(s.def.var_type, s.bytes, s.store_coef)) set = *rate;
      return set * (1.0 + 0.002 * Noise(t, seed));
    }
    case Motion::kWander:
      return base + 40.0 * std::sin(t / 7.0) + 15.0 * std::sin(t / 2.3) + 5.0 * Noise(t, seed);
    case Motion::kFrames:
      return base + std::floor(t * 10.0);
    case Motion::kNone:
    case Motion::kCountUp:
      break;
  }
  return base;
}

bool RegisterBank::StartExcursions(const std::vector<Excursion>& excursions, std::string* error) {
  std::lock_guard<std::mutex> lock(mu_);
  excursion_start_ = std::chrono::steady_clock::now();
  for (auto& v : vars_) v.excursion.reset();
  for (const Excursion& e : excursions) {
    Var* v = Find(e.name);
    if (!v || !IsNumericType(v->def.var_type) || e.seconds <= 0) {
      if (error) *error = "--excursion: " + e.name + " is no numeric variable of " + model_;
      return false;
    }
    v->excursion = e;
  }
  return true;
}

std::string RegisterBank::PlausibleText(const BankVariable& def) const {
  const std::string& t = def.var_type;
  if (t == "string") {
    if (NameHas(def, "sn") || NameHas(def, "serial")) return "VK24110" + std::to_string(def.var_len);
    // A part number names the model, as a real sensor's does.
    if (def.var_name == "PN" || NameHas(def, "part")) return model_ + "-P128-A";
    return model_;
  }
  if (t == "HWVER") return "2.1.0 (REV-C)";
  if (t == "SWVER_YMD") return "1.4.2 (2026-03-18)";
  if (t == "DT") return "3601";
  if (t == "IP") return "192.168.1.201";
  if (t == "MAC") return "00:0E:C6:12:34:56";
  if (t == "raw") return "";
  if (NameHas(def, "temp")) return "45";
  if (!def.options.empty()) return std::to_string(def.options.front());
  if (def.range_min != 0 || def.range_max != 0) return std::to_string(def.range_min);
  return "0";
}

std::vector<uint8_t> RegisterBank::Current(const Var& v) const {
  const bool moving = live_ && v.motion != Motion::kNone;
  if (!moving && !v.excursion) return v.bytes;
  const auto now = std::chrono::steady_clock::now();
  const double t = std::chrono::duration<double>(now - v.base_time).count();
  if (moving && v.motion == Motion::kCountUp) {
    uint64_t s = 0;
    for (uint8_t b : v.bytes) s = (s << 8) | b;
    s += static_cast<uint64_t>(t);
    std::vector<uint8_t> out(v.bytes.size());
    for (size_t i = 0; i < out.size(); ++i) out[out.size() - 1 - i] = static_cast<uint8_t>(s >> (8 * i));
    return out;
  }
  const auto base = DecodeNumber(v.def.var_type, v.bytes, v.store_coef);
  if (!base) return v.bytes;
  double shown = moving ? Moved(v, *base, t) : *base;
  if (v.excursion) {
    // Up over the first stretch, down over the second, then back to normal.
    const double e = std::chrono::duration<double>(now - excursion_start_).count() / v.excursion->seconds;
    const double rise = e < 1 ? e : e < 2 ? 2 - e : 0;
    shown += v.excursion->delta * rise;
  }
  auto moved = EncodeNumber(v.def.var_type, shown, v.store_coef, v.bytes.size());
  return moved ? *moved : v.bytes;
}

void RegisterBank::Store(Var& v, std::vector<uint8_t> bytes) {
  v.bytes = std::move(bytes);
  v.base_time = std::chrono::steady_clock::now();
}

bool RegisterBank::Knows(const CommandKey& key) const {
  std::lock_guard<std::mutex> lock(mu_);
  return get_cmds_.count(key) != 0 || set_cmds_.count(key) != 0;
}

std::optional<RegisterBank::Answer> RegisterBank::Handle(const CommandKey& key, const std::vector<uint8_t>& payload) {
  std::lock_guard<std::mutex> lock(mu_);
  const auto get = get_cmds_.find(key);
  const auto set = set_cmds_.find(key);
  if (get != get_cmds_.end()) {
    // A command that both reads and writes is a read when it carries a get payload of the table.
    const bool is_read = std::any_of(get->second.begin(), get->second.end(),
                                     [&](size_t i) { return vars_[i].def.get_payload == payload; });
    if (is_read) return Get(key, get->second);
  }
  if (set != set_cmds_.end()) return Set(key, set->second, payload);
  if (get != get_cmds_.end()) return Answer{kRcBadPayload, {}};
  return std::nullopt;
}

RegisterBank::Answer RegisterBank::Get(const CommandKey& key, const std::vector<size_t>& members) {
  // Every field of the command is filled, whatever get payload picked it: the program
  // cuts each variable at its own table position.
  size_t size = key.extended ? 4 : 0;
  for (size_t i : members) size = std::max<size_t>(size, vars_[i].def.get_start_pos + vars_[i].def.var_len);
  Answer a;
  a.payload.assign(size, 0);
  for (size_t i : members) {
    const auto bytes = Current(vars_[i]);
    const size_t n = std::min<size_t>(bytes.size(), vars_[i].def.var_len);
    std::copy(bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(n),
              a.payload.begin() + vars_[i].def.get_start_pos);
  }
  if (key.extended) WriteU32BE(a.payload.data(), key.code);
  return a;
}

RegisterBank::Answer RegisterBank::Set(const CommandKey& key, const std::vector<size_t>& members,
                                       const std::vector<uint8_t>& payload) {
  size_t need = 0;
  for (size_t i : members) need = std::max<size_t>(need, vars_[i].def.set_start_pos + vars_[i].def.var_len);
  Answer a;
  if (key.extended) {
    a.payload.assign(4, 0);
    WriteU32BE(a.payload.data(), key.code);
  }
  if (payload.size() < need) {
    a.return_code = kRcBadPayload;
    return a;
  }
  for (size_t i : members) {
    Var& v = vars_[i];
    const auto from = payload.begin() + v.def.set_start_pos;
    // A field of length 0 (the shared secret key) takes the whole payload.
    std::vector<uint8_t> field =
        v.def.var_len == 0 ? payload : std::vector<uint8_t>(from, from + static_cast<std::ptrdiff_t>(v.def.var_len));
    if (IsNumericType(v.def.var_type) && v.def.set_coefficient != v.store_coef) {
      // Written scaled by the set coefficient, read back scaled by the get one.
      const auto shown = DecodeNumber(v.def.var_type, field, v.def.set_coefficient);
      auto stored = shown ? EncodeNumber(v.def.var_type, *shown, v.store_coef, field.size()) : std::nullopt;
      if (stored) field = *stored;
    }
    Store(v, std::move(field));
  }
  return a;
}

const RegisterBank::Var* RegisterBank::Find(const std::string& name_or_id) const {
  for (const auto& v : vars_)
    if (v.def.var_id == name_or_id) return &v;
  for (const auto& v : vars_)
    if (v.def.var_name == name_or_id) return &v;
  return nullptr;
}

RegisterBank::Var* RegisterBank::Find(const std::string& name_or_id) {
  return const_cast<Var*>(static_cast<const RegisterBank*>(this)->Find(name_or_id));
}

std::optional<std::string> RegisterBank::Value(const std::string& name_or_id) const {
  std::lock_guard<std::mutex> lock(mu_);
  const Var* v = Find(name_or_id);
  if (!v) return std::nullopt;
  const auto bytes = Current(*v);
  if (auto text = DecodeValueText(v->def.var_type, bytes, v->store_coef)) return text;
  // Types the program does not decode ("raw"...) are given as their bytes.
  return quarn::lidar::ToHexSpaced(bytes);
}

bool RegisterBank::SetValue(const std::string& name_or_id, const std::string& text) {
  std::lock_guard<std::mutex> lock(mu_);
  Var* v = Find(name_or_id);
  if (!v) return false;
  auto bytes = EncodeValueText(v->def.var_type, text, v->store_coef, v->bytes.size());
  if (!bytes) return false;
  Store(*v, std::move(*bytes));
  return true;
}

std::vector<std::string> RegisterBank::VariableIds() const {
  std::lock_guard<std::mutex> lock(mu_);
  std::vector<std::string> ids;
  for (const auto& v : vars_) ids.push_back(v.def.var_id);
  return ids;
}

void RegisterBank::RestoreDefaults() {
  std::lock_guard<std::mutex> lock(mu_);
  for (auto& v : vars_) Store(v, v.default_bytes);
}

void RegisterBank::RestartRunTimes() {
  std::lock_guard<std::mutex> lock(mu_);
  for (auto& v : vars_)
    if (v.def.var_type == "DT" && !NameHas(v.def, "total")) Store(v, std::vector<uint8_t>(v.bytes.size(), 0));
}

}  // namespace varkel::sim
