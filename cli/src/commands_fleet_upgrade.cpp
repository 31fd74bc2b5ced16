// upgrade with --hosts: every sensor checked and the plan shown first, then the transfers,
// at most --jobs at once, none started after --max-failures failed, then the versions the
// sensors report after their restart.

#include <atomic>
#include <chrono>
#include <mutex>
#include <thread>

#include "commands_fleet.h"
#include "commands_shared.h"
#include "fleet_runner.h"

namespace varkel::cli {
namespace {

// A restarted sensor that has not answered within this is reported without its new version.
constexpr int kBackWithinMs = 60000;

// The version the upgrade is about: the firmware's, else the first the sensor reports.
std::string VersionOf(const Json& info) {
  const Json& versions = info.value("versions", Json::object());
  for (const auto& [name, value] : versions.items())
    if (name.find("Firmware") != std::string::npos) return value;
  return versions.empty() ? "" : versions.begin().value().get<std::string>();
}

// One line per sensor: on a terminal all of them redrawn in place, else a plain line at
// every tenth of a sensor's transfer.
class ProgressBoard {
 public:
  ProgressBoard(std::ostream& out, bool terminal, std::vector<std::string> labels)
      : out_(out), terminal_(terminal), labels_(std::move(labels)), percent_(labels_.size(), -1) {
    width_ = 0;
    for (const std::string& label : labels_) width_ = std::max(width_, label.size());
  }
  void Show(size_t i, uint32_t done, uint32_t total) {
    const int percent = total == 0 ? 100 : static_cast<int>(100ull * std::min(done, total) / total);
    std::lock_guard<std::mutex> lock(mu_);
    if (terminal_) {
      if (percent == percent_[i]) return;
      percent_[i] = percent;
      if (drawn_) out_ << "\033[" << labels_.size() << "A";
      for (size_t k = 0; k < labels_.size(); ++k) out_ << "\r\033[K" << Line(k) << "\n";
      drawn_ = true;
      out_ << std::flush;
    } else if (percent / 10 > percent_[i] / 10 || percent_[i] < 0) {
      percent_[i] = percent;
      out_ << Line(i) << "\n" << std::flush;
    }
  }

 private:
  std::string Line(size_t i) const {
    const std::string label = labels_[i] + std::string(width_ - labels_[i].size(), ' ');
    if (percent_[i] < 0) return label + "  waiting";
    constexpr int kWidth = 30;
    const int filled = percent_[i] * kWidth / 100;
    return label + "  [" + std::string(static_cast<size_t>(filled), '#') +
           std::string(static_cast<size_t>(kWidth - filled), ' ') + "] " + std::to_string(percent_[i]) + "%";
  }

  std::mutex mu_;
  std::ostream& out_;
  bool terminal_;
  std::vector<std::string> labels_;
  std::vector<int> percent_;
  size_t width_;
  bool drawn_ = false;
};

}  // namespace

int UpgradeMany(const Context& ctx, const FleetOptions& fleet, const std::string& file, const std::string& var_name,
                bool restart, unsigned wait_s) {
  std::vector<HostRow> rows = Rows(ctx, fleet);
  InterruptGuard guard;
  // The check: reachable, answering the model's reads, and its version now.
  std::vector<std::string> before(rows.size());
  RunJobs(rows.size(), fleet.jobs, [&](size_t i) {
    Capture(rows[i], ctx, [](const Context& c) { return Info(c); });
    rows[i].serial = rows[i].fields.value("serial_number", "");
    before[i] = VersionOf(rows[i].fields);
    if (rows[i].status != 0) rows[i].error = "check failed: " + rows[i].error;
  });
  if (InterruptGuard::interrupted()) {
    // Nothing was sent yet: every checked sensor is as it was.
    MarkNotRun(rows, std::vector<bool>(rows.size(), false), kExitInterrupted, "not upgraded: interrupted");
    return Report(ctx, rows);
  }
  std::vector<size_t> planned;
  std::vector<std::vector<std::string>> plan{{"HOST", "SERIAL", "VERSION", "PLAN"}};
  for (size_t i = 0; i < rows.size(); ++i) {
    if (rows[i].status == 0) planned.push_back(i);
    plan.push_back({rows[i].target.label, rows[i].serial.empty() ? "-" : rows[i].serial,
                    before[i].empty() ? "-" : before[i], rows[i].status == 0 ? "upgrade" : rows[i].error});
  }
  if (!ctx.json) {
    PrintTable(*ctx.out, plan);
    *ctx.out << planned.size() << " of " << rows.size() << " sensor(s) to upgrade\n" << std::flush;
  }

  std::vector<std::string> labels;
  for (size_t i : planned) labels.push_back(rows[i].target.label);
  ProgressBoard board(*ctx.err, ctx.terminal, labels);
  std::atomic<unsigned> failed_transfers{0};
  const std::vector<bool> ran = RunJobs(
      planned.size(), fleet.jobs,
      [&](size_t k) {
        HostRow& row = rows[planned[k]];
        Context c = ctx;
        c.progress = [&board, k](uint32_t done, uint32_t total) { board.Show(k, done, total); };
        Capture(row, c, [&](const Context& one) { return Upgrade(one, file, var_name, restart, wait_s); });
        row.fields["version_before"] = before[planned[k]];
        if (row.status != 0) {
          failed_transfers++;
          return;
        }
        std::string after = "at the next restart";
        if (restart) {
          // The sensor is away while it restarts; its new version comes when it answers.
          after = "unknown (not back within " + std::to_string(kBackWithinMs / 1000) + " s)";
          const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(kBackWithinMs);
          HostRow probe(row.target);
          while (std::chrono::steady_clock::now() < deadline && !InterruptGuard::interrupted()) {
            Capture(probe, ctx, [](const Context& one) { return Info(one); });
            if (probe.status == 0) {
              after = VersionOf(probe.fields);
              break;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(200));
          }
        }
        row.fields["version_after"] = after;
        row.detail = (before[planned[k]].empty() ? "?" : before[planned[k]]) + " -> " + after;
      },
      [&] { return failed_transfers.load() < fleet.max_failures; });
  std::vector<bool> upgraded(rows.size(), true);
  for (size_t k = 0; k < planned.size(); ++k) upgraded[planned[k]] = ran[k];
  if (InterruptGuard::interrupted())
    MarkNotRun(rows, upgraded, kExitInterrupted, "not upgraded: interrupted");
  else
    MarkNotRun(rows, upgraded, kExitHeldBack,
               "not upgraded: " + std::to_string(failed_transfers.load()) + " transfer(s) failed (--max-failures " +
                   std::to_string(fleet.max_failures) + ")");
  return Report(ctx, rows);
}

}  // namespace varkel::cli
