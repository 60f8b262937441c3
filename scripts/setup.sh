#!/usr/bin/env bash
# Installs every Debian package the build, the program and the tests need.
# Idempotent: safe to run again. Package lists live in scripts/packages/*.txt,
# one package per line, so each area keeps its own list.
set -euo pipefail
here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)

packages=$(cat "$here"/packages/*.txt | sed -e 's/#.*//' | tr -s ' \t' '\n' | sed '/^$/d' | sort -u)

missing=()
for p in $packages; do
    if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed'; then
        missing+=("$p")
    fi
done

if [ ${#missing[@]} -eq 0 ]; then
    echo "setup: all packages present"
    exit 0
fi

sudo_cmd=()
if [ "$(id -u)" -ne 0 ]; then
    sudo_cmd=(sudo)
fi
export DEBIAN_FRONTEND=noninteractive
echo "setup: installing ${missing[*]}"
"${sudo_cmd[@]}" apt-get update -q
"${sudo_cmd[@]}" apt-get install -y -q --no-install-recommends "${missing[@]}"
