#!/usr/bin/env bash
# Builds Varkel and the virtual lidar, starts the virtual lidar on loopback and opens
# Varkel already pointed at it. Varkel's settings live in a throw-away home for the run,
# so a demo never rewrites the user's own. The virtual lidar stops when the window closes.
#   scripts/demo.sh [varkel arguments...]
# Environment: VARKEL_BUILD_DIR (default build), VARKEL_DEMO_MODEL (default Quenta),
# VARKEL_DEMO_DATA_PORT (default 2368): the UDP port of the virtual lidar's point-data
# stream to this machine, which the Data Stream page watches.
set -euo pipefail
cd "$(dirname "$0")/.."

build=${VARKEL_BUILD_DIR:-build}
model=${VARKEL_DEMO_MODEL:-Quenta}
data_port=${VARKEL_DEMO_DATA_PORT:-2368}

bash scripts/install-deps.sh
cmake -S . -B "$build" -DVARKEL_SANITIZE=none >/dev/null
cmake --build "$build" --target varkel varkel-sim -j"$(nproc 2>/dev/null || echo 2)"

demo_home=$(mktemp -d "${TMPDIR:-/tmp}/varkel-demo.XXXXXX")
sim_log="$demo_home/varkel-sim.log"
sim_pid=""
cleanup() {
  if [ -n "$sim_pid" ]; then
    kill "$sim_pid" 2>/dev/null || true
    wait "$sim_pid" 2>/dev/null || true
  fi
  rm -rf "$demo_home"
}
trap cleanup EXIT

# Port 0: the virtual lidar picks a free port and prints it. "Zelto" is the serial sensor:
# it answers on two pseudo-terminals, whose paths it prints too.
sim_args=(--model "$model" --host 127.0.0.1 --port 0 --udp "127.0.0.1:$data_port")
[ "$model" = Zelto ] && sim_args+=(--serial)
"$build/bin/varkel-sim" "${sim_args[@]}" >"$sim_log" 2>&1 &
sim_pid=$!
port=""
for _ in $(seq 1 100); do
  port=$(sed -n 's/.* on 127\.0\.0\.1:\([0-9][0-9]*\).*/\1/p' "$sim_log" | head -n 1)
  [ -n "$port" ] && break
  if ! kill -0 "$sim_pid" 2>/dev/null; then
    echo "demo: the virtual lidar did not start:" >&2
    cat "$sim_log" >&2
    exit 1
  fi
  sleep 0.1
done
if [ -z "$port" ]; then
  echo "demo: the virtual lidar did not report its port" >&2
  exit 1
fi
echo "demo: virtual lidar ($model) on 127.0.0.1:$port"

# Varkel reads its connection settings from the documents folder of this home.
settings_dir="$demo_home/Documents/VelmoraDataFiles"
mkdir -p "$settings_dir" "$demo_home/.config" "$demo_home/run"
chmod 700 "$demo_home/run"
if [ "$model" = Zelto ]; then
  for _ in $(seq 1 50); do
    grep -q "serial data (RS485)" "$sim_log" && break
    sleep 0.1
  done
fi
uart=$(sed -n 's/.*serial commands (UART) on \(.*\)$/\1/p' "$sim_log" | head -n 1)
rs485=$(sed -n 's/.*serial data (RS485) on \(.*\)$/\1/p' "$sim_log" | head -n 1)
cat >"$settings_dir/RecvSettings.ini" <<INI
[General]
device_ip_address=127.0.0.1
ktc_port=$port
udp_port=$data_port
rs485_com=${rs485:-/dev/ttyUSB0}
rs232_com=${uart:-/dev/ttyUSB1}
INI
# A chosen model opens selected ("Marvo-KTC" is reached only this way).
[ -n "${VARKEL_DEMO_MODEL:-}" ] && set -- "-moduleVM=$model" "$@"

status=0
HOME="$demo_home" XDG_CONFIG_HOME="$demo_home/.config" XDG_RUNTIME_DIR="$demo_home/run" \
  "$build/bin/varkel" "$@" || status=$?
exit "$status"
