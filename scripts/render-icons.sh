#!/usr/bin/env bash
# Renders the SVG icon sources in resources/icons/ to the PNGs in
# resources/images/ that the program embeds. The PNGs are committed, so a
# build needs no SVG renderer; run this after editing an icon.
set -euo pipefail
cd "$(dirname "$0")/../resources"
command -v rsvg-convert >/dev/null || { echo "needs rsvg-convert (apt-get install librsvg2-bin)"; exit 1; }
mkdir -p images
for svg in icons/*.svg; do
    name=$(basename "$svg" .svg)
    size=32
    [ "$name" = logo ] && size=256
    rsvg-convert -w "$size" -h "$size" "$svg" -o "images/$name.png"
done
echo "rendered $(ls icons/*.svg | wc -l) icons"
