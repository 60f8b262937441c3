#!/usr/bin/env bash
# Installs what is needed, builds, and starts Tessaline. Extra arguments go to
# the program (for example a serial port name to open).
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
bash "$root/scripts/setup.sh"
bash "$root/scripts/build.sh"
exec "${TSL_BUILD_DIR:-$root/build}/tessaline" "$@"
