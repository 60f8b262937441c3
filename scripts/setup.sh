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

sudo_cmd=()
if [ "$(id -u)" -ne 0 ]; then
    sudo_cmd=(sudo)
fi
export DEBIAN_FRONTEND=noninteractive
updated=no
apt_install() {
    if [ $updated = no ]; then
        "${sudo_cmd[@]}" apt-get update -q
        updated=yes
    fi
    "${sudo_cmd[@]}" apt-get install -y -q --no-install-recommends "$@"
}

if [ ${#missing[@]} -eq 0 ]; then
    echo "setup: all packages present"
else
    echo "setup: installing ${missing[*]}"
    apt_install "${missing[@]}"
fi

# Debian's nodejs comes without npm; other builds of nodejs bring their own.
if ! command -v npm >/dev/null; then
    echo "setup: installing npm"
    apt_install npm
fi

# The browser tests' npm packages, exactly as the committed lockfile names
# them. Skipped when they are already there, so setup stays quick offline.
browser="$here/../tests/browser"
stamp="$browser/node_modules/.installed-from-lock"
if ! cmp -s "$browser/package-lock.json" "$stamp"; then
    echo "setup: installing the browser tests' npm packages"
    (cd "$browser" && npm ci --no-audit --no-fund && cp package-lock.json "$stamp")
fi
