#!/usr/bin/env bash
# Builds the libFuzzer targets with clang into build-fuzz/ and runs each one
# for the given number of seconds (default 60), starting from the seeds in
# tests/fuzz/corpus. New inputs found go to build-fuzz/corpus/<target>;
# crashes are written to build-fuzz/findings/. Usage: scripts/fuzz.sh [seconds]
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
seconds=${1:-60}
build=${TSL_FUZZ_BUILD_DIR:-$root/build-fuzz}

bash "$root/scripts/setup.sh" >/dev/null
if ! dpkg-query -W -f='${Status}' libclang-rt-14-dev 2>/dev/null | grep -q 'install ok installed'; then
    sudo_cmd=()
    [ "$(id -u)" -ne 0 ] && sudo_cmd=(sudo)
    DEBIAN_FRONTEND=noninteractive "${sudo_cmd[@]}" apt-get install -y -q --no-install-recommends clang libclang-rt-14-dev
fi

if [ ! -f "$build/build.ninja" ]; then
    CC=clang CXX=clang++ cmake -S "$root" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
        -DTSL_BUILD_FUZZ=ON -DTSL_BUILD_TESTS=OFF -DTSL_BUILD_BENCH=OFF
fi
targets=(hexparser modbusvalues crcparams telnet xmodem)
cmake --build "$build" --parallel "$(nproc)" --target "${targets[@]/#/fuzz_}"

mkdir -p "$build/findings"
status=0
for target in "${targets[@]}"; do
    corpus="$build/corpus/$target"
    mkdir -p "$corpus"
    log="$build/findings/$target.log"
    echo "== fuzz_$target for ${seconds}s"
    if "$build/tests/fuzz/fuzz_$target" "$corpus" "$root/tests/fuzz/corpus/$target" \
        -max_total_time="$seconds" -max_len=4096 -timeout=10 -rss_limit_mb=2048 \
        -artifact_prefix="$build/findings/$target-" -print_final_stats=1 >"$log" 2>&1; then
        grep -E '^(#[0-9]+ +DONE|stat::number_of_executed_units|stat::peak_rss_mb)' "$log" || true
    else
        tail -n 40 "$log"
        echo "fuzz_$target found a problem: see $log and $build/findings/"
        status=1
    fi
done
exit $status
