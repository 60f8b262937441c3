#!/usr/bin/env bash
# Runs the real program under a virtual X display in a private settings
# store and checks both screenshot switches and their exit codes.
set -u
exe=$1
# Xvfb may outlive a failed run: it must not keep open whatever this script
# inherited (a build lock, a pipe a caller waits on).
for fd in $(ls /proc/$$/fd); do
    [ "$fd" -gt 2 ] 2>/dev/null && eval "exec $fd>&-" 2>/dev/null
done
command -v xvfb-run >/dev/null || { echo "FAIL: xvfb-run is missing (scripts/setup.sh installs it)"; exit 1; }
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
export HOME="$work/home" XDG_CONFIG_HOME="$work/config" XDG_DATA_HOME="$work/data"
export XDG_RUNTIME_DIR="$work/runtime"
mkdir -p "$HOME" "$XDG_CONFIG_HOME/MEROVAN" "$XDG_RUNTIME_DIR" "$work/cfg"
chmod 700 "$XDG_RUNTIME_DIR"
printf '[General]\nCONFIG_FILE_PATH=%s\n' "$work/cfg" > "$XDG_CONFIG_HOME/MEROVAN/Tessaline.conf"
unset QT_QPA_PLATFORM
fail=0

# Each run starts looking for a free display at a random number: two
# "xvfb-run -a" starting at once otherwise race for the same one.

is_png() { [ -s "$1" ] && [ "$(head -c 8 "$1" | od -An -tx1 | tr -d ' \n')" = "89504e470d0a1a0a" ]; }

timeout 60 xvfb-run -a -n $((100 + RANDOM % 800)) "$exe" --screenshot "$work/shot.png" >"$work/out1" 2>&1
rc=$?
if [ $rc -ne 0 ] || ! is_png "$work/shot.png"; then
    echo "FAIL: window screenshot (exit $rc)"; cat "$work/out1"; fail=1
elif ! grep -q "screenshot.*shot.png.*saved" "$work/out1"; then
    echo "FAIL: no 'screenshot ... saved' line"; cat "$work/out1"; fail=1
else
    echo "ok: window screenshot"
fi

timeout 60 xvfb-run -a -n $((100 + RANDOM % 800)) "$exe" --screenshot "$work/missing/dir/shot.png" >"$work/out2" 2>&1
rc=$?
if [ $rc -ne 1 ] || ! grep -q "FAILED" "$work/out2"; then
    echo "FAIL: unwritable path should exit 1 with FAILED (exit $rc)"; cat "$work/out2"; fail=1
else
    echo "ok: unwritable path exits 1"
fi

timeout 60 xvfb-run -a -n $((100 + RANDOM % 800)) "$exe" --screenshot-dialog no-such-dialog "$work/d.png" >"$work/out3" 2>&1
rc=$?
if [ $rc -eq 0 ] || ! grep -q -- "--screenshot-dialog: unknown dialog" "$work/out3" || [ -e "$work/d.png" ]; then
    echo "FAIL: unknown dialog (exit $rc)"; cat "$work/out3"; fail=1
else
    echo "ok: unknown dialog reported"
fi

timeout 60 xvfb-run -a -n $((100 + RANDOM % 800)) "$exe" --screenshot-dialog config-folder "$work/cfg.png" 640x200 >"$work/out4" 2>&1
rc=$?
if [ $rc -ne 0 ] || ! is_png "$work/cfg.png"; then
    echo "FAIL: config-folder dialog screenshot (exit $rc)"; cat "$work/out4"; fail=1
else
    echo "ok: dialog screenshot"
fi
exit $fail
