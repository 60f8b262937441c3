#!/usr/bin/env bash
# Hostile load and bad input against one pane, on loopback and pseudo-
# terminals only: server churn, connection storms of 200 and 1000 clients,
# "All clients" with one client that never reads, a UDP flood, a peer that
# never reads, a serial flood with the log on, a disk that fills and frees,
# damaged stored settings, random bytes in every encoding, and XMODEM-CRC /
# YMODEM receive from lrzsz through a noisy line beside lrzsz's own. Each scenario is bounded in
# time and prints one figure per line. Run on purpose; CI does not.
#
#   scripts/soak.sh [seconds per scenario, default 30] [scenario ...]
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=${TSL_BUILD_DIR:-$root/build}
seconds=${1:-30}
shift || true
scenarios=("$@")
[ ${#scenarios[@]} -gt 0 ] || scenarios=(churn storm200 storm1000 allclients udp noread serial disk settings encodings noisyline)
bash "$root/scripts/build.sh" >/dev/null
export QT_QPA_PLATFORM=offscreen QT_LOGGING_RULES='*.debug=false;*.warning=false'
export XDG_RUNTIME_DIR=${XDG_RUNTIME_DIR:-$(mktemp -d)}
chmod 700 "$XDG_RUNTIME_DIR"
status=0
for scenario in "${scenarios[@]}"; do
    echo "== $scenario"
    if [ "$scenario" = noisyline ]; then
        # Not bounded by the scenario time: each receive runs to its end.
        timeout 3600 "$build/bench/transfer/bench_transfer" noisy 2>/dev/null || status=1
        continue
    fi
    timeout $((seconds * 30 + 120)) "$build/bench/terminal/soak_pane" "$scenario" --seconds "$seconds" 2>/dev/null \
        | grep -v propagateSizeHints || status=1
done
exit $status
