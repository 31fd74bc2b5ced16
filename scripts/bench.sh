#!/usr/bin/env bash
# Builds and runs every benchmark; each prints its figures and ratios.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/install-deps.sh
cmake -S . -B build -DVARKEL_SANITIZE=none -DVARKEL_BUILD_BENCH=ON >/dev/null
cmake --build build -j"$(nproc 2>/dev/null || echo 2)"
status=0
for b in build/bench-bin/*; do
  [ -x "$b" ] || continue
  echo "== $(basename "$b")"
  "$b" || status=1
done
exit $status
