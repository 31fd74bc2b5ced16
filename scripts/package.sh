#!/usr/bin/env bash
# Builds the Debian packages varkel, varkel-cli, varkel-sim and varkel-data from the normal
# build tree (build/) into build-deb/, then checks them: desktop entry, metadata, lintian
# (an error fails the script). docs/packaging.md describes the packages.
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/install-deps.sh dpkg-dev lintian desktop-file-utils appstream librsvg2-bin

# The same configuration scripts/test.sh uses, so an existing build/ is reused as it is.
cmake -S . -B build -DVARKEL_SANITIZE=none -DVARKEL_BUILD_BENCH=ON >/dev/null
jobs=$(nproc 2>/dev/null || echo 2)
cmake --build build -j"$jobs" --target varkel varkel-cli varkel-sim varkel_package_files

rm -rf build-deb
cpack --config build/CPackConfig.cmake -B build-deb >/dev/null
rm -rf build-deb/_CPack_Packages
ls -1 build-deb/*.deb

desktop-file-validate packaging/varkel.desktop
appstreamcli validate --no-net build/package-files/example.quarntech.Varkel.metainfo.xml
lintian --fail-on error --tag-display-limit 0 build-deb/*.deb
echo "package: packages in build-deb/, lintian without errors"
