#!/usr/bin/env bash
# The window's CPU with the Monitor page shown and sampling at 1 s (target: at most 3 % of
# one core): ./scripts/run.sh (the virtual lidar on loopback) under Xvfb, Connect, the
# Monitor tab, then the process's user + system time from /proc/<pid>/stat over a span.
# Prints the figure and the machine's load; nothing is asserted.
#   bench/window/monitor_cpu.sh [SECONDS] [TAB_X]   (default 30 s; TAB_X: another tab's x)
# Environment: VARKEL_BENCH_DISPLAY (default :96; an Xvfb 1320x820 is started when none
# answers there), VARKEL_BUILD_DIR (default build), VARKEL_BENCH_SHOT (a PNG file: the
# screen at the end, to see what was measured).
set -euo pipefail
cd "$(dirname "$0")/../.."
secs=${1:-30}
tab_x=${2:-727}
display=${VARKEL_BENCH_DISPLAY:-:96}
export DISPLAY=$display

xvfb_pid=""
run_pid=""
pid=""
cleanup() {
  # The window first: the script that started it then stops the virtual lidar and exits.
  [ -n "${pid:-}" ] && kill "$pid" 2>/dev/null || true
  [ -n "$run_pid" ] && wait "$run_pid" 2>/dev/null || true
  [ -n "$xvfb_pid" ] && kill "$xvfb_pid" 2>/dev/null || true
}
trap cleanup EXIT

if ! xdpyinfo >/dev/null 2>&1; then
  Xvfb "$display" -screen 0 1320x820x24 >/dev/null 2>&1 &
  xvfb_pid=$!
  for _ in $(seq 1 50); do xdpyinfo >/dev/null 2>&1 && break; sleep 0.1; done
fi

# Clicks go to the topmost window: another one left on this display would take them.
if xdotool search --name '^Varkel$' >/dev/null 2>&1; then
  echo "monitor_cpu: a Varkel window is already open on $display" >&2
  exit 1
fi
log=$(mktemp "${TMPDIR:-/tmp}/varkel-cpu.XXXXXX")
bash scripts/run.sh >"$log" 2>&1 &
run_pid=$!
for _ in $(seq 1 600); do
  pid=$(pgrep -P "$run_pid" -x varkel || true)
  [ -n "$pid" ] && xdotool search --pid "$pid" >/dev/null 2>&1 && break
  sleep 0.2
done
[ -n "$pid" ] || { echo "monitor_cpu: the window did not start" >&2; cat "$log" >&2; exit 1; }
sleep 3
xdotool mousemove 1060 42 click 1
sleep 3
xdotool mousemove "$tab_x" 93 click 1
# Let the page settle: its charts are made, the first samples arrive.
sleep 10

ticks() { awk '{print $14 + $15}' "/proc/$pid/stat"; }
# Per thread: "tid name ticks", to see where the time goes.
threads() {
  for f in /proc/"$pid"/task/*/stat; do
    awk '{ i = index($0, ") "); name = substr($0, index($0, "(") + 1, i - index($0, "(") - 1); gsub(/ /, "_", name)
           split(substr($0, i + 2), f, " "); print $1, name, f[12] + f[13] }' "$f" 2>/dev/null
  done
}
hz=$(getconf CLK_TCK)
threads >"$log.threads0"
before=$(ticks)
start=$(date +%s.%N)
sleep "$secs"
after=$(ticks)
end=$(date +%s.%N)
threads >"$log.threads1"
# Threads that used 0.1 % or more, busiest first.
awk -v t="$secs" -v hz="$hz" 'NR == FNR { was[$1] = $3; next } { d = $3 - was[$1]; if (d / hz / t >= 0.001) printf "  thread %-16s %5.2f %%\n", $2, d / hz / t * 100 }' \
  "$log.threads0" "$log.threads1" | sort -k3 -nr
rm -f "$log.threads0" "$log.threads1"
[ -n "${VARKEL_BENCH_SHOT:-}" ] && import -window root "$VARKEL_BENCH_SHOT"
awk -v a="$before" -v b="$after" -v s="$start" -v e="$end" -v hz="$hz" -v load="$(cat /proc/loadavg)" \
  'BEGIN { printf "window CPU: %.2f %% of one core over %.1f s (target <= 3 %%); load %s\n", (b - a) / hz / (e - s) * 100, e - s, load }'
rm -f "$log"
