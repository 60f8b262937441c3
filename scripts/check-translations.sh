#!/usr/bin/env bash
# Fails when a user-visible text in the sources has no Simplified Chinese
# translation, listing the texts that are missing.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
lupdate=/usr/lib/qt6/bin/lupdate
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
status=0
for area in common app connection terminal bridge transfer tools cloud settings forms; do
    [ -d "$root/$area" ] || continue
    if ! find "$root/$area" -name '*.cpp' -o -name '*.h' -o -name '*.ui' | grep -q .; then
        continue
    fi
    ts="$work/zh_CN_$area.ts"
    if [ -f "$root/translations/zh_CN_$area.ts" ]; then
        cp "$root/translations/zh_CN_$area.ts" "$ts"
    fi
    (cd "$root" && "$lupdate" -silent -I . -locations none -no-obsolete -source-language en \
        -target-language zh_CN "$area" -ts "$ts")
    missing=$(grep -c 'type="unfinished"' "$ts" || true)
    if [ "$missing" -gt 0 ]; then
        echo "translations/zh_CN_$area.ts lacks $missing translation(s):"
        grep -B1 'type="unfinished"' "$ts" | grep '<source>' | sed 's/^ */  /' | head -40
        status=1
    fi
done
[ $status -eq 0 ] && echo "every text has a translation"
exit $status
