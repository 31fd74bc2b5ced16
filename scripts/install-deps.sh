#!/usr/bin/env bash
# Installs the Debian packages Varkel needs to build, test and run.
# Idempotent: packages already present are not fetched again. Extra package names given
# as arguments are installed too.
set -euo pipefail

PACKAGES=(
  build-essential cmake pkg-config git
  qtbase5-dev qtdeclarative5-dev qtquickcontrols2-5-dev qt3d5-dev
  qml-module-qtquick2 qml-module-qtquick-controls qml-module-qtquick-controls2
  qml-module-qtquick-layouts qml-module-qtquick-dialogs qml-module-qtquick-window2
  qml-module-qtqml-models2 qml-module-qttest qml-module-qt3d
  libssl-dev openssl
  libcsv-dev libspdlog-dev libfmt-dev libserialport-dev libpcap-dev
  libgtest-dev libgmock-dev libbenchmark-dev
  libcli11-dev nlohmann-json3-dev
  clang clang-format clang-tidy libclang-rt-14-dev
  fonts-roboto-unhinted
  libqt5svg5
  libqt5charts5-dev qml-module-qtcharts
  xvfb x11-apps imagemagick xauth python3
  tar
)
# Callers add what only they need (scripts/package.sh: the packaging tools).
PACKAGES+=("$@")

missing=()
for p in "${PACKAGES[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
    missing+=("$p")
  fi
done

if [ ${#missing[@]} -eq 0 ]; then
  echo "install-deps: all packages present"
  exit 0
fi

SUDO=""
if [ "$(id -u)" -ne 0 ]; then
  if command -v sudo >/dev/null 2>&1; then SUDO="sudo"; else
    echo "install-deps: missing packages (${missing[*]}) and not root; install them or run with sudo" >&2
    exit 1
  fi
fi

echo "install-deps: installing ${missing[*]}"
export DEBIAN_FRONTEND=noninteractive
$SUDO apt-get update -qq
$SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}"
