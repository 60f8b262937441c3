#!/usr/bin/env bash
# Renders the program's logo (resources/icons/logo.svg) to the PNG sizes
# installed into the hicolor icon theme. The PNGs are committed so a build
# needs no SVG renderer; run this after changing the logo.
set -euo pipefail
here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
command -v rsvg-convert >/dev/null || { echo "needs rsvg-convert (apt-get install librsvg2-bin)"; exit 1; }
for size in 16 24 32 48 64 128 256; do
    rsvg-convert -w "$size" -h "$size" "$here/../resources/icons/logo.svg" -o "$here/icons/$size.png"
done
echo "rendered $(ls "$here"/icons/*.png | wc -l) icon sizes"
