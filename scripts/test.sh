#!/usr/bin/env bash
# Installs what is missing, builds everything and runs the whole test suite.
#   scripts/test.sh            normal build (build/)
#   scripts/test.sh --asan     AddressSanitizer + UBSan build (build-asan/)
#   scripts/test.sh --tsan     ThreadSanitizer build (build-tsan/)
set -euo pipefail
cd "$(dirname "$0")/.."

sanitize=none
build=build
case "${1:-}" in
  "") ;;
  --asan) sanitize=address; build=build-asan ;;
  --tsan) sanitize=thread; build=build-tsan ;;
  *) echo "usage: $0 [--asan|--tsan]" >&2; exit 2 ;;
esac

bash scripts/install-deps.sh

jobs=$(nproc 2>/dev/null || echo 2)
bench=ON
unity=OFF
skip=()
if [ "$sanitize" != none ]; then
  # A sanitizer suite builds only what it runs, and leaves the screenshot of the program
  # (size and colour do not change under a sanitizer) to the normal suite. Its trees are
  # built whole each time, so they compile a target's files in batches (docs/testing.md).
  bench=OFF
  unity=ON
  skip=(-LE smoke)
fi
cmake -S . -B "$build" -DVARKEL_SANITIZE="$sanitize" -DVARKEL_BUILD_BENCH="$bench" -DVARKEL_FUZZ=OFF \
  -DCMAKE_UNITY_BUILD="$unity" >/dev/null
cmake --build "$build" -j"$jobs"

export ASAN_OPTIONS="detect_leaks=1:abort_on_error=1:strict_string_checks=1"
export UBSAN_OPTIONS="print_stacktrace=1:halt_on_error=1"
export TSAN_OPTIONS="halt_on_error=1:second_deadlock_stack=1"
# Qt tests draw offscreen; the window smoke test brings its own Xvfb.
export QT_QPA_PLATFORM=offscreen

runner=()
# ThreadSanitizer cannot map its shadow memory under high-entropy address randomisation.
if [ "$sanitize" = thread ] && command -v setarch >/dev/null 2>&1; then runner=(setarch "$(uname -m)" -R); fi

# The fault-matrix tests leave one row each here; the grid is printed after the run.
matrix="$build/test-logs/fault-matrix"
rm -rf "$matrix"

status=0
"${runner[@]}" ctest --test-dir "$build" --output-on-failure -j"$jobs" "${skip[@]}" || status=$?

if compgen -G "$matrix/*.txt" >/dev/null; then
  echo
  echo "Fault matrix (outcome and milliseconds; docs/reliability.md):"
  printf '%-22s' operation
  for m in no-reply delay ret-code echo ids noise split trunc lying reset drip disc refuse silent link; do
    printf ' %8s' "$m"
  done
  echo
  cat "$matrix"/*.txt
fi
exit "$status"
