#!/usr/bin/env bash
# Installs the build into a scratch folder and checks what lands there: the
# exact list of files, the launcher, AppStream data and MIME type with the
# desktop's own validators, the installed program's answer to --version,
# and the service unit naming the installed service binary.
# Usage: check-install.sh BUILD_DIR DESKTOP_ID VERSION MIME_TYPE cloud|nocloud
set -u
build=$1 id=$2 version=$3 mime=$4 cloud=$5
fail=0
bad() { echo "FAIL: $*"; fail=1; }

for tool in desktop-file-validate appstreamcli update-mime-database; do
    command -v "$tool" >/dev/null || { echo "FAIL: $tool is missing (scripts/setup.sh installs it)"; exit 1; }
done

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
root=$work/root
prefix=$root/usr

components=(tessaline)
[ "$cloud" = cloud ] && components+=(cloud)
for component in "${components[@]}"; do
    if ! cmake --install "$build" --prefix "$prefix" --component "$component" >"$work/install.log" 2>&1; then
        cat "$work/install.log"; bad "install of component $component"; exit 1
    fi
done

expected=(
    "usr/bin/tessaline"
    "usr/share/applications/$id.desktop"
    "usr/share/doc/tessaline/README.md"
    "usr/share/icons/hicolor/scalable/apps/$id.svg"
    "usr/share/metainfo/$id.metainfo.xml"
    "usr/share/mime/packages/$id.xml"
)
for size in 16 24 32 48 64 128 256; do
    expected+=("usr/share/icons/hicolor/${size}x${size}/apps/$id.png")
done
if [ "$cloud" = cloud ]; then
    expected+=(
        "usr/bin/tessaline-cloud"
        "usr/lib/systemd/system/tessaline-cloud.service"
        "usr/share/doc/tessaline-cloud/README.md"
        "usr/share/doc/tessaline-cloud/deploy/haproxy.cfg"
        "usr/share/doc/tessaline-cloud/deploy/tessaline-cloud@.service"
    )
fi
(cd "$root" && find . -type f -o -type l | sed 's|^\./||' | sort) >"$work/found"
printf '%s\n' "${expected[@]}" | sort >"$work/expected"
if ! diff -u "$work/expected" "$work/found"; then
    bad "installed files differ from the expected list (- expected, + found)"
else
    echo "ok: ${#expected[@]} files installed where expected"
fi

for size in 16 24 32 48 64 128 256; do
    png=$prefix/share/icons/hicolor/${size}x${size}/apps/$id.png
    [ -f "$png" ] || continue
    # Width and height are the big-endian words at bytes 16 and 20.
    dims=$(od -An -tu1 -j16 -N8 "$png" | awk '{ print $3*256+$4 "x" $7*256+$8 }')
    [ "$dims" = "${size}x${size}" ] || bad "$size icon is $dims"
done

desktop=$prefix/share/applications/$id.desktop
if out=$(desktop-file-validate "$desktop" 2>&1) && [ -z "$out" ]; then
    echo "ok: desktop-file-validate"
else
    echo "$out"; bad "desktop-file-validate"
fi
grep -qx "Exec=tessaline %f" "$desktop" || bad "launcher does not pass the file to tessaline"
grep -qx "Icon=$id" "$desktop" || bad "launcher icon is not $id"
grep -qx "MimeType=$mime;" "$desktop" || bad "launcher does not claim $mime"

if out=$(appstreamcli validate --no-net --pedantic "$prefix/share/metainfo/$id.metainfo.xml" 2>&1); then
    echo "ok: appstreamcli validate"
else
    echo "$out"; bad "appstreamcli validate"
fi
grep -q "<release version=\"$version\"" "$prefix/share/metainfo/$id.metainfo.xml" || bad "metainfo does not list release $version"

# Build the MIME cache the way the desktop does and ask it about *.tsl.
if update-mime-database "$prefix/share/mime" >"$work/mime.log" 2>&1; then
    grep -q ":$mime:\*\.tsl$" "$prefix/share/mime/globs2" || bad "*.tsl is not mapped to $mime"
    grep -qx "$mime text/plain" "$prefix/share/mime/subclasses" || bad "$mime is not a kind of text/plain"
    echo "ok: MIME cache maps *.tsl to $mime"
else
    cat "$work/mime.log"; bad "update-mime-database"
fi

# The installed program, with no display at all, answers --version.
out=$(env -u DISPLAY -u WAYLAND_DISPLAY -u QT_QPA_PLATFORM HOME="$work" XDG_CONFIG_HOME="$work/config" \
      timeout 30 "$prefix/bin/tessaline" --version 2>&1)
rc=$?
if [ $rc -eq 0 ] && [ "$out" = "Tessaline $version" ]; then
    echo "ok: installed tessaline --version"
else
    bad "installed tessaline --version gave exit $rc: $out"
fi

if [ "$cloud" = cloud ]; then
    unit=$prefix/lib/systemd/system/tessaline-cloud.service
    exec_line=$(grep '^ExecStart=' "$unit")
    case "$exec_line" in
        "ExecStart=$prefix/bin/tessaline-cloud "*) echo "ok: unit starts the installed service" ;;
        *) bad "unit does not start $prefix/bin/tessaline-cloud: $exec_line" ;;
    esac
    grep -q '^WantedBy=multi-user.target' "$unit" || bad "unit has no [Install] target"
    grep -q '/usr/local/bin' "$unit" && bad "unit still names /usr/local/bin"
    if command -v systemd-analyze >/dev/null; then
        if out=$(systemd-analyze verify "$unit" 2>&1); then
            echo "ok: systemd-analyze verify"
        else
            echo "$out"; bad "systemd-analyze verify"
        fi
    else
        echo "skip: systemd-analyze is not installed"
    fi
fi
exit $fail
