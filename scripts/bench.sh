#!/usr/bin/env bash
# Builds and runs every benchmark executable (bench_* under build/bench/).
# Each prints one line per figure: name, value, unit.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=${TSL_BUILD_DIR:-$root/build}
bash "$root/scripts/build.sh"
status=0
while IFS= read -r bench; do
    echo "# $(basename "$bench")"
    "$bench" || status=1
done < <(find "$build/bench" -type f -executable -name 'bench_*' | sort)
exit $status
