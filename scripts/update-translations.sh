#!/usr/bin/env bash
# Refreshes translations/zh_CN_<area>.ts from the sources of each area.
# New texts appear as unfinished entries: translate them (Simplified Chinese)
# before committing; the translations test fails while any is left.
set -euo pipefail
cd "$(dirname "$0")/.."
lupdate=/usr/lib/qt6/bin/lupdate
for area in common app connection terminal bridge transfer tools cloud settings forms; do
    [ -d "$area" ] || continue
    if ! find "$area" -name '*.cpp' -o -name '*.h' -o -name '*.ui' | grep -q .; then
        continue
    fi
    "$lupdate" -silent -I . -locations none -no-obsolete -source-language en -target-language zh_CN \
        "$area" -ts "translations/zh_CN_$area.ts"
done
