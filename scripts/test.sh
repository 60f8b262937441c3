#!/usr/bin/env bash
# Installs what is needed, builds, and runs every test through CTest.
# Extra arguments go to ctest (for example -L unit or -R tst_startup).
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
bash "$root/scripts/setup.sh"
bash "$root/scripts/build.sh"
build=${TSL_BUILD_DIR:-$root/build}
cd "$build"
ctest --output-on-failure --timeout 600 --parallel 2 "$@"
