#!/usr/bin/env bash
# Builds the libFuzzer targets (clang; the libraries get AddressSanitizer, UBSan and
# coverage too) and runs each for SECONDS seconds (default 60) on a copy of its seed
# corpus in fuzz/corpus/<target>/, with fuzz/<name>.dict when there is one. Working
# corpora, logs and findings stay under build-fuzz/fuzz-runs/<target>/. Prints one line
# per target and exits 1 when any target left a crash, leak, timeout or out-of-memory file.
#   scripts/fuzz.sh [SECONDS]
set -euo pipefail
cd "$(dirname "$0")/.."
root=$(pwd)

seconds=${1:-60}
case "$seconds" in
  '' | *[!0-9]* | 0) echo "usage: $0 [SECONDS]  (a whole number above 0)" >&2; exit 2 ;;
esac

bash scripts/install-deps.sh

build=$root/build-fuzz
targets=(varkel_table_fuzzer marvo_package_fuzzer ktc_reply_fuzzer serial_reply_fuzzer
         value_text_fuzzer value_codec_fuzzer console_text_fuzzer)
CC=clang CXX=clang++ cmake -S . -B "$build" -DVARKEL_FUZZ=ON -DVARKEL_BUILD_UI=OFF -DVARKEL_BUILD_TESTS=OFF \
  -DVARKEL_BUILD_BENCH=OFF >/dev/null
if ! cmake --build "$build" -j"${VARKEL_FUZZ_JOBS:-2}" --target "${targets[@]}" >"$build/fuzz-build.log" 2>&1; then
  tail -n 40 "$build/fuzz-build.log" >&2
  echo "fuzz: build failed, see $build/fuzz-build.log" >&2
  exit 1
fi

export ASAN_OPTIONS="detect_leaks=1:abort_on_error=1"
export UBSAN_OPTIONS="print_stacktrace=1:halt_on_error=1"

total=0
printf '%-22s %12s %8s %9s\n' target executions seconds findings
for t in "${targets[@]}"; do
  work=$build/fuzz-runs/$t
  rm -rf "$work"
  mkdir -p "$work/corpus" "$work/findings" "$work/logs"
  if [ -d "fuzz/corpus/$t" ]; then cp fuzz/corpus/"$t"/* "$work/corpus/"; fi
  extra=()
  [ "$t" = varkel_table_fuzzer ] && extra+=("$root/Config/varID")  # the shipped tables as seeds
  dict=fuzz/${t%_fuzzer}.dict
  dict_arg=()
  [ -f "$dict" ] && dict_arg=("-dict=$root/$dict")
  start=$(date +%s)
  # The libraries' own log lines (standard output and error) would only slow the run;
  # libFuzzer and the sanitizers keep writing their reports to fuzz.log.
  VARKEL_LOG_DIR=$work/logs "$build/bin/$t" -max_total_time="$seconds" -timeout=10 -close_fd_mask=3 \
    -print_final_stats=1 -artifact_prefix="$work/findings/" "${dict_arg[@]}" "$work/corpus" "${extra[@]}" \
    >"$work/fuzz.log" 2>&1 || true
  took=$(($(date +%s) - start))
  runs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$work/fuzz.log" | tail -1)
  [ -n "$runs" ] || runs=$(grep -o '^#[0-9]*' "$work/fuzz.log" | tail -1 | tr -d '#')
  found=$(find "$work/findings" -type f \( -name 'crash-*' -o -name 'leak-*' -o -name 'timeout-*' -o -name 'oom-*' \) | wc -l)
  total=$((total + found))
  printf '%-22s %12s %8s %9s\n' "$t" "${runs:-0}" "$took" "$found"
  if [ "$found" -ne 0 ]; then
    find "$work/findings" -type f | sed 's/^/    /'
    echo "    log: $work/fuzz.log"
  fi
done

if [ "$total" -ne 0 ]; then
  echo "fuzz: $total finding(s)" >&2
  exit 1
fi
