#!/usr/bin/env bash
# Installs what is missing, builds, starts the virtual lidar and opens Varkel pointed at it.
set -euo pipefail
cd "$(dirname "$0")/.."
exec bash scripts/demo.sh "$@"
