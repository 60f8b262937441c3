#!/usr/bin/env bash
# Builds and runs every benchmark executable under build/bench/ and
# build/server/bench/ (the cloud service's, a few minutes); each prints
# one line per figure (name, value, unit). TSL_BENCH_WINDOW_SECONDS sets how
# long the sixteen-pane window is loaded (default 10).
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=${TSL_BUILD_DIR:-$root/build}
bash "$root/scripts/build.sh"
status=0
while IFS= read -r bench; do
    name=$(basename "$bench")
    args=()
    case $name in
        bench_window_panes) args=(--seconds "${TSL_BENCH_WINDOW_SECONDS:-10}") ;;
    esac
    echo "== $name"
    "$bench" "${args[@]}" || status=1
done < <(find "$build/bench" "$build/server/bench" -type f -executable -name 'bench_*' 2>/dev/null | sort)
exit $status
