#include "failure_mode.h"

#include <algorithm>

#include "ktc_wire.h"

namespace varkel::sim {
namespace {

struct NamedMode {
  FailureMode mode;
  const char* name;
};

constexpr NamedMode kNames[] = {
    {FailureMode::kNone, "none"},
    {FailureMode::kNoReply, "no-reply"},
    {FailureMode::kDelay, "delay"},
    {FailureMode::kReturnCode, "return-code"},
    {FailureMode::kWrongEchoCmd, "wrong-echo-cmd"},
    {FailureMode::kWrongIdentifiers, "wrong-identifiers"},
    {FailureMode::kNoiseBeforeHeader, "noise-before-header"},
    {FailureMode::kSplitHeader, "split-header"},
    {FailureMode::kTruncatedPayload, "truncated-payload"},
    {FailureMode::kLyingLength, "lying-length"},
    {FailureMode::kResetMidReply, "reset-mid-reply"},
    {FailureMode::kSlowDrip, "slow-drip"},
    {FailureMode::kDisconnectAfterPieces, "disconnect-after-pieces"},
    {FailureMode::kRefusePiece, "refuse-piece"},
    {FailureMode::kSilentAfterPieces, "silent-after-pieces"},
};

std::vector<uint8_t> Slice(const std::vector<uint8_t>& v, size_t from, size_t to) {
  to = std::min(to, v.size());
  from = std::min(from, to);
  return std::vector<uint8_t>(v.begin() + static_cast<std::ptrdiff_t>(from),
                              v.begin() + static_cast<std::ptrdiff_t>(to));
}

}  // namespace

const char* FailureModeName(FailureMode mode) {
  for (const auto& n : kNames)
    if (n.mode == mode) return n.name;
  return "none";
}

std::optional<FailureMode> FailureModeFromName(const std::string& name) {
  for (const auto& n : kNames)
    if (name == n.name) return n.mode;
  return std::nullopt;
}

std::vector<std::string> FailureModeNames() {
  std::vector<std::string> out;
  for (const auto& n : kNames) out.emplace_back(n.name);
  return out;
}

std::vector<WriteStep> ShapeReply(int version, std::vector<uint8_t> f, FailureMode mode, int param) {
  const KtcLayout& l = KtcLayoutOf(version);
  const size_t header = l.header_size;
  std::vector<WriteStep> steps;
  switch (mode) {
    case FailureMode::kNoReply:
      return steps;
    case FailureMode::kDelay:
      steps.push_back({param > 0 ? param : 1000, std::move(f), WriteStep::After::kNothing});
      return steps;
    case FailureMode::kReturnCode:
      f[l.rc_at] = static_cast<uint8_t>(param != 0 ? param : 1);
      break;
    case FailureMode::kWrongEchoCmd:
      f[l.cmd_at] = static_cast<uint8_t>(f[l.cmd_at] + 1);
      break;
    case FailureMode::kWrongIdentifiers: {
      const KtcLayout& other = KtcLayoutOf(version == 2 ? 1 : 2);
      f[0] = other.id0;
      f[1] = other.id1;
      break;
    }
    case FailureMode::kNoiseBeforeHeader: {
      // Noise free of both versions' first identifiers, so it can never pass for a header.
      std::vector<uint8_t> noise;
      const size_t n = param > 0 ? static_cast<size_t>(param) : 5;
      for (size_t i = 0; i < n; ++i) noise.push_back(static_cast<uint8_t>(0x10 + (i % 0x30)));
      noise.insert(noise.end(), f.begin(), f.end());
      f.swap(noise);
      break;
    }
    case FailureMode::kSplitHeader: {
      const size_t cut = std::clamp<size_t>(param > 0 ? static_cast<size_t>(param) : 3, 1, header - 1);
      steps.push_back({0, Slice(f, 0, cut), WriteStep::After::kNothing});
      steps.push_back({20, Slice(f, cut, f.size()), WriteStep::After::kNothing});
      return steps;
    }
    case FailureMode::kTruncatedPayload: {
      const uint32_t n = ReadU32BE(f.data() + l.len_at);
      if (n == 0) {
        WriteU32BE(f.data() + l.len_at, 4);
        steps.push_back({0, std::move(f), WriteStep::After::kClose});
      } else {
        steps.push_back({0, Slice(f, 0, header + n / 2), WriteStep::After::kClose});
      }
      return steps;
    }
    case FailureMode::kLyingLength: {
      const int64_t n = static_cast<int64_t>(ReadU32BE(f.data() + l.len_at)) + (param != 0 ? param : 16);
      WriteU32BE(f.data() + l.len_at, static_cast<uint32_t>(std::max<int64_t>(n, 0)));
      break;
    }
    case FailureMode::kResetMidReply:
      steps.push_back({0, Slice(f, 0, header / 2), WriteStep::After::kReset});
      return steps;
    case FailureMode::kSlowDrip: {
      const int gap = param > 0 ? param : 5;
      steps.push_back({0, Slice(f, 0, 2), WriteStep::After::kNothing});
      for (size_t i = 2; i < f.size(); ++i) steps.push_back({gap, {f[i]}, WriteStep::After::kNothing});
      return steps;
    }
    case FailureMode::kNone:
    case FailureMode::kDisconnectAfterPieces:
    case FailureMode::kRefusePiece:
    case FailureMode::kSilentAfterPieces:
      break;
  }
  steps.push_back({0, std::move(f), WriteStep::After::kNothing});
  return steps;
}

}  // namespace varkel::sim
