#!/usr/bin/env bash
# Installs what is missing, builds, and runs the most complete thing the tree holds.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/install-deps.sh
cmake -S . -B build -DVARKEL_SANITIZE=none >/dev/null
cmake --build build -j"$(nproc 2>/dev/null || echo 2)"
echo "run.sh: nothing runnable is built yet; the test suite is scripts/test.sh" >&2
