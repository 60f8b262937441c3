#!/usr/bin/env bash
# Builds the Debian packages: tessaline (the desktop program) and
# tessaline-cloud (the self-hostable service), into build/packages/ or the
# folder given as the first argument. Installs what is needed and builds
# first, like the README's commands.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=${TSL_BUILD_DIR:-$root/build}
out=$(realpath -m "${1:-$build/packages}")
bash "$root/scripts/setup.sh"
bash "$root/scripts/build.sh"
mkdir -p "$out"
(cd "$build" && cpack -G DEB -B "$out")
rm -rf "$out/_CPack_Packages"
for deb in "$out"/*.deb; do
    echo "== $deb"
    dpkg-deb --field "$deb" Package Version Depends
done
