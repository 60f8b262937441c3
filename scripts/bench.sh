#!/usr/bin/env bash
# Builds everything and runs every benchmark executable under build/bench.
# Each prints one line per figure: name, value, unit.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
bash "$root/scripts/setup.sh" >/dev/null
bash "$root/scripts/build.sh" >/dev/null
build=${TSL_BUILD_DIR:-$root/build}
status=0
while IFS= read -r bench; do
    echo "== $(basename "$bench")"
    "$bench" || status=1
done < <(find "$build/bench" -type f -name 'bench_*' -perm -u+x | sort)
exit $status
