#!/usr/bin/env bash
# Builds everything with AddressSanitizer and UndefinedBehaviorSanitizer into
# build-asan/ and runs the tests there; any sanitizer report fails the run.
# Slow (a full second build); run on purpose, CI does not.
#   scripts/sanitize.sh [ctest options, e.g. -R mainwindow]
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=${TSL_ASAN_BUILD_DIR:-$root/build-asan}
flags='-O1 -g -fsanitize=address,undefined -fno-omit-frame-pointer'
if [ ! -f "$build/build.ninja" ]; then
    cmake -S "$root" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Debug -DTSL_BUILD_BENCH=OFF \
        -DCMAKE_CXX_FLAGS="$flags" -DCMAKE_EXE_LINKER_FLAGS='-fsanitize=address,undefined'
fi
cmake --build "$build" --parallel "$(nproc)"
# Leak checking is off: Qt keeps process-wide caches until exit.
export ASAN_OPTIONS=detect_leaks=0 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
# The screenshot test runs the program under Xvfb with its own environment,
# and the packaging test checks installed files, not code.
(cd "$build" && ctest --output-on-failure -E 'screenshot_cli|packaging_install' "$@")
