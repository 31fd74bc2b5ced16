#!/usr/bin/env bash
# Mutation run: plants each listed one-line fault in a scratch copy of HEAD, rebuilds
# what the named tests need, runs them and says whether they caught it. A fault the
# tests let through is a missing test. Not part of CI.
#
#   scripts/mutants.sh [options] [LIST]        LIST defaults to tests/mutants.txt
#     --only N[,M..]   run only these faults (numbered from 1 in list order)
#     --match REGEX    run only faults whose file or description matches REGEX
#     --jobs N         build and test jobs (default 2)
#     --timeout S      time-out in seconds of a test that sets none of its own (default 90)
#     --check          only check the list against HEAD; build and run nothing
#
# LIST: one fault per line, four TAB-separated fields:
#   file (repo-relative)  original text (exactly once in the file)  replacement  ctest regex
# A line starting with '#' is a comment; the comment right above a fault describes it.
#
# The scratch tree (a worktree of HEAD: commit what the run should see) and its build
# live in build-mutants/ (VARKEL_MUTANTS_DIR to move it). The first run builds the test
# programs the list names; later runs rebuild incrementally. Exit status 0 only when every
# fault was caught and the list is sound.
set -uo pipefail

root=$(git -C "$(dirname "$0")/.." rev-parse --show-toplevel) || exit 2
cd "$root" || exit 2

list=tests/mutants.txt
only=""
match=""
jobs=2
timeout=90
check_only=0
while [ $# -gt 0 ]; do
  case "$1" in
    --only) only=",${2:?--only needs a number},"; shift 2 ;;
    --match) match=${2:?--match needs a regex}; shift 2 ;;
    --jobs) jobs=${2:?--jobs needs a number}; shift 2 ;;
    --timeout) timeout=${2:?--timeout needs seconds}; shift 2 ;;
    --check) check_only=1; shift ;;
    -h | --help) sed -n '2,20p' "$0" | sed 's/^# \{0,1\}//'; exit 0 ;;
    -*) echo "mutants: unknown option $1" >&2; exit 2 ;;
    *) list=$1; shift ;;
  esac
done
[ -f "$list" ] || { echo "mutants: no list $list" >&2; exit 2; }

area=${VARKEL_MUTANTS_DIR:-$root/build-mutants}
tree=$area/tree
build=$area/build
head=$(git rev-parse HEAD)

# ---- the list --------------------------------------------------------------------
# Each fault becomes one entry in each parallel array: file, original, replacement,
# regex, description (the comment above it or the change itself) and list line.
files=() origs=() repls=() regexes=() descs=() linenos=()
bad=0
n=0
comment=""
while IFS= read -r line || [ -n "$line" ]; do
  n=$((n + 1))
  line=${line%$'\r'}
  if [[ "$line" =~ ^[[:space:]]*# ]]; then
    comment=$(sed -E 's/^[[:space:]]*#+[[:space:]]*//' <<<"$line")
    continue
  fi
  if [[ -z "${line//[[:space:]]/}" ]]; then
    comment=""
    continue
  fi
  # Split by hand: read would merge two TABs, and an empty replacement deletes the text.
  f=()
  rest=$line
  while [[ "$rest" == *$'\t'* ]]; do
    f+=("${rest%%$'\t'*}")
    rest=${rest#*$'\t'}
  done
  f+=("$rest")
  if [ "${#f[@]}" -ne 4 ] || [ -z "${f[0]}" ] || [ -z "${f[1]}" ] || [ -z "${f[3]}" ]; then
    echo "bad line $list:$n: needs four TAB-separated fields (file, original, replacement, test regex)"
    bad=$((bad + 1))
    comment=""
    continue
  fi
  if [ "${f[1]}" = "${f[2]}" ]; then
    echo "bad line $list:$n: the replacement is the original"
    bad=$((bad + 1))
    comment=""
    continue
  fi
  files+=("${f[0]}")
  origs+=("${f[1]}")
  repls+=("${f[2]}")
  regexes+=("${f[3]}")
  change="'${f[1]}' -> '${f[2]}'"
  descs+=("${comment:-$change}")
  linenos+=("$n")
  comment=""
done <"$list"

# How often TEXT occurs in FILE, and the line of its first occurrence.
occurrences() {
  python3 - "$1" "$2" <<'EOF'
import sys
text = open(sys.argv[1], encoding="utf-8").read()
needle = sys.argv[2]
at = text.find(needle)
print(text.count(needle), text.count("\n", 0, at) + 1 if at >= 0 else 0)
EOF
}

# Replaces the single occurrence of ORIGINAL in FILE by REPLACEMENT.
plant() {
  python3 - "$1" "$2" "$3" <<'EOF'
import sys
path, old, new = sys.argv[1:4]
text = open(path, encoding="utf-8").read()
assert text.count(old) == 1
open(path, "w", encoding="utf-8").write(text.replace(old, new))
EOF
}

# Faults are checked against HEAD's files, so a list that has gone stale says so
# before anything is built.
valid=()
for i in "${!files[@]}"; do
  file=${files[$i]}
  where="$list:${linenos[$i]}"
  if [ -n "$only" ] && [[ "$only" != *",$((i + 1)),"* ]]; then continue; fi
  if [ -n "$match" ] && ! [[ "$file ${descs[$i]}" =~ $match ]]; then continue; fi
  if ! git cat-file -e "HEAD:$file" 2>/dev/null; then
    echo "bad line $where: $file is not a file of HEAD"
    bad=$((bad + 1))
    continue
  fi
  case "$file" in
    tests/*) echo "bad line $where: faults go into production code, not into $file"; bad=$((bad + 1)); continue ;;
  esac
  read -r count at < <(occurrences <(git show "HEAD:$file") "${origs[$i]}")
  if [ "$count" -ne 1 ]; then
    echo "bad line $where: the original text occurs $count times in $file, not once"
    bad=$((bad + 1))
    continue
  fi
  linenos[i]="${linenos[$i]} $at"
  valid+=("$i")
done

if [ "$check_only" = 1 ]; then
  echo "${#valid[@]} faults checked, $bad bad lines"
  [ "$bad" -eq 0 ]
  exit
fi
[ "${#valid[@]}" -gt 0 ] || { echo "mutants: no fault to run"; exit 2; }

# ---- the scratch tree --------------------------------------------------------------
mkdir -p "$area"
if [ ! -e "$tree/.git" ]; then
  git worktree add --detach "$tree" "$head" >/dev/null 2>&1 || { echo "mutants: cannot create $tree" >&2; exit 2; }
fi
git -C "$tree" checkout -q -f --detach "$head" || exit 2

launcher=()
if command -v ccache >/dev/null 2>&1; then
  launcher=(-DCMAKE_CXX_COMPILER_LAUNCHER=ccache -DCMAKE_C_COMPILER_LAUNCHER=ccache)
  # The scratch build's own objects come back from the cache after each fault is undone.
  export CCACHE_BASEDIR=$area CCACHE_NOHASHDIR=1
fi
# Configured on every run: the tree moved to HEAD, and files may have come or gone since.
cmake -S "$tree" -B "$build" -DVARKEL_SANITIZE=none -DVARKEL_BUILD_BENCH=OFF "${launcher[@]}" \
  >"$area/configure.log" 2>&1 || { echo "mutants: configure failed, see $area/configure.log" >&2; exit 2; }

export QT_QPA_PLATFORM=offscreen

# The programs that hold the tests REGEX names. Tests already registered with ctest name
# their program; gtest tests not yet built are found in the test sources and mapped to
# their program through the compile database, so a first run builds only what it needs.
targets_for() {
  ctest --test-dir "$build" -R "$1" --show-only=json-v1 2>/dev/null | python3 -c '
import json, os, re, sys
build, tree, regex = sys.argv[1:4]
names = set()
try:
    registered = json.load(sys.stdin).get("tests", [])
except ValueError:
    registered = []
for test in registered:
    for arg in test.get("command", []):
        if arg.startswith(build + "/") and not os.path.isdir(arg):
            names.add(os.path.basename(arg))
            break
pattern = re.compile(regex)
declared = re.compile(r"^\s*(?:TEST|TEST_F|TEST_P|TYPED_TEST)\(\s*(\w+)\s*,\s*(\w+)\s*\)", re.M)
for entry in json.load(open(os.path.join(build, "compile_commands.json"))):
    source = entry["file"]
    program = re.search(r"CMakeFiles/([^/ ]+)\.dir/", entry["command"])
    if not program or not source.startswith(tree + "/tests/") or not os.path.exists(source):
        continue
    with open(source, encoding="utf-8", errors="replace") as text:
        if any(pattern.search(s + "." + t) for s, t in declared.findall(text.read())):
            names.add(program.group(1))
print(" ".join(sorted(names)))' "$build" "$tree" "$1"
}

start=$(date +%s)
declare -A fault_targets
all_targets=""
for i in "${valid[@]}"; do
  fault_targets[$i]=$(targets_for "${regexes[$i]}")
  all_targets+=" ${fault_targets[$i]}"
done
# shellcheck disable=SC2086  # one word per target
all_targets=$(printf '%s\n' $all_targets | sort -u | tr '\n' ' ')
echo "building the unchanged tree at ${head:0:12}: $all_targets"
# shellcheck disable=SC2086
if [ -n "${all_targets// /}" ] &&
  ! nice -n 10 cmake --build "$build" -j"$jobs" --target $all_targets >"$area/build.log" 2>&1; then
  echo "mutants: the unchanged tree does not build, see $area/build.log" >&2
  exit 2
fi
# A test that fails without a fault would count every fault as caught.
union=""
for i in "${valid[@]}"; do union+="${union:+|}(${regexes[$i]})"; done
echo "running the named tests on the unchanged tree ..."
if ! nice -n 10 ctest --test-dir "$build" -R "$union" -j"$jobs" --timeout "$timeout" >"$area/baseline.log" 2>&1; then
  echo "mutants: the named tests fail without any fault, see $area/baseline.log" >&2
  exit 2
fi
echo "they pass ($(($(date +%s) - start)) s so far)"

planted=""
undo() {
  [ -n "$planted" ] && git -C "$tree" checkout -q -- "$planted"
  planted=""
}
trap 'undo; exit 130' INT TERM
trap undo EXIT

killed=0 survived=0 failed=0
survivors=()
for i in "${valid[@]}"; do
  file=${files[$i]}
  read -r listline at <<<"${linenos[$i]}"
  label="$file:$at  ${descs[$i]}"
  t0=$(date +%s)
  # Asked again: a program built just now has registered the tests it holds.
  targets=$(targets_for "${regexes[$i]}")
  if [ -z "$targets" ]; then
    echo "bad line $list:$listline: no test matches ${regexes[$i]}"
    bad=$((bad + 1))
    continue
  fi
  planted=$file
  plant "$tree/$file" "${origs[$i]}" "${repls[$i]}"
  log=$area/fault-$((i + 1)).log
  # shellcheck disable=SC2086  # one word per target
  if ! nice -n 10 cmake --build "$build" -j"$jobs" --target $targets >"$log" 2>&1; then
    verdict="build-failed"
    failed=$((failed + 1))
    survivors+=("$list:$listline (does not build, see $log)")
  elif nice -n 10 ctest --test-dir "$build" -R "${regexes[$i]}" -j"$jobs" --timeout "$timeout" --stop-on-failure \
    >>"$log" 2>&1; then
    verdict=survived
    survived=$((survived + 1))
    survivors+=("$list:$listline")
  else
    verdict=killed
    killed=$((killed + 1))
  fi
  undo
  printf '%-12s %s  (%ss)\n' "$verdict" "$label" "$(($(date +%s) - t0))"
done

total=$((killed + survived + failed))
summary="$killed killed, $((survived + failed)) survived of $total"
[ "$failed" -eq 0 ] || summary+=" ($failed of them did not build: bad list lines)"
echo "$summary, $(($(date +%s) - start)) s"
[ "$bad" -eq 0 ] || echo "$bad bad lines in $list"
for s in "${survivors[@]}"; do echo "not killed: $s"; done
[ "$survived" -eq 0 ] && [ "$failed" -eq 0 ] && [ "$bad" -eq 0 ]
