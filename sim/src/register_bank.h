#pragma once
// The simulated sensor's registers: one field per table variable, answered by the get
// commands and written by the set commands of the model table.

#include <chrono>
#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "command_key.h"

namespace varkel::sim {

// One table row as the bank needs it (positions already laid out by the table loader).
struct BankVariable {
  std::string var_id;
  std::string var_name;
  std::string get_cmd;
  std::string set_cmd;
  std::string var_type;
  std::string default_val;
  uint32_t get_start_pos = 0;
  uint32_t set_start_pos = 0;
  uint32_t var_len = 0;
  float coefficient = 1.0f;
  float set_coefficient = 1.0f;
  std::vector<uint8_t> get_payload;
  std::vector<int> options;
  int range_min = 0;
  int range_max = 0;
  int component_type = -1;  // the page control: 4 = firmware upgrade area
};

// A variable pushed up by `delta` over `seconds` and back down over the next `seconds`,
// so that alerts can be shown and tested.
struct Excursion {
  std::string name;  // var_name or var_id
  double delta = 0;
  double seconds = 1;
};

class RegisterBank {
 public:
  struct Answer {
    uint8_t return_code = 0;
    std::vector<uint8_t> payload;  // for extended commands, the four code bytes come first
  };

  // live: run times count up and temperatures drift; off, every value stays put.
  RegisterBank(std::vector<BankVariable> vars, std::string model, bool live);

  bool Knows(const CommandKey& key) const;
  // One request (for extended commands, `payload` is what follows the code bytes).
  // nullopt when the table has no such command.
  std::optional<Answer> Handle(const CommandKey& key, const std::vector<uint8_t>& payload);

  // The text the program shows for a variable (by var_id, else by var_name).
  std::optional<std::string> Value(const std::string& name_or_id) const;
  bool SetValue(const std::string& name_or_id, const std::string& text);
  std::vector<std::string> VariableIds() const;

  // Starts the excursions now; false with the reason when one names no numeric variable.
  bool StartExcursions(const std::vector<Excursion>& excursions, std::string* error);

  // Every field back to the value it had when the bank was made from the table.
  void RestoreDefaults();
  // A restart: run times ("DT") start again from zero, except the totals (a "DT" whose
  // name contains "total"), which a sensor keeps across restarts.
  void RestartRunTimes();

 private:
  // kNoise: a supply with a little ripple; kPower/kCurrent: power wanders with the
  // temperatures and the current is power over voltage; kSpin: around the spin rate set;
  // kWander: a time-sync offset; kFrames: a counter at the frame rate.
  enum class Motion { kNone, kCountUp, kDrift, kNoise, kPower, kCurrent, kSpin, kWander, kFrames };
  struct Var {
    BankVariable def;
    float store_coef = 1.0f;             // coefficient of the bytes held (the get side's when readable)
    std::vector<uint8_t> bytes;          // the field as the get reply carries it (at base_time when moving)
    std::vector<uint8_t> default_bytes;  // the table's starting value
    std::chrono::steady_clock::time_point base_time;
    Motion motion = Motion::kNone;
    std::optional<Excursion> excursion;
  };

  const Var* Find(const std::string& name_or_id) const;
  Var* Find(const std::string& name_or_id);
  // The field now: moving values are worked out from their base and the clock.
  std::vector<uint8_t> Current(const Var& v) const;
  // The moving value of a measurement at `t` seconds after its base, as shown.
  double Moved(const Var& v, double base, double t) const;
  double ShownNow(const char* word) const;  // the first numeric measurement named so, or NaN
  void Store(Var& v, std::vector<uint8_t> bytes);
  std::string PlausibleText(const BankVariable& def) const;
  static Motion MotionOf(const BankVariable& def);
  Answer Get(const CommandKey& key, const std::vector<size_t>& members);
  Answer Set(const CommandKey& key, const std::vector<size_t>& members, const std::vector<uint8_t>& payload);

  // Keeps apart the server's connection threads (requests) and the embedding thread
  // (Value/SetValue); every member below is guarded by it.
  mutable std::mutex mu_;
  std::string model_;
  bool live_;
  std::vector<Var> vars_;
  std::map<CommandKey, std::vector<size_t>> get_cmds_;
  std::map<CommandKey, std::vector<size_t>> set_cmds_;
  std::chrono::steady_clock::time_point excursion_start_;
};

}  // namespace varkel::sim
