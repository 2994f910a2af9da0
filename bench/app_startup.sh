#!/usr/bin/env bash
# Runs the start-up and idle benchmark of the desktop application on a private virtual display
# with a tray host and a session bus, so that it needs no desktop; then, where it is installed,
# the same for Flameshot, another Qt tray tool, as the peer.
#   bench/app_startup.sh <build dir> [--runs N] [--idle-seconds S]
set -euo pipefail
build=$(realpath "${1:-build}")
shift || true

display=:$((70 + RANDOM % 100))
Xvfb "$display" -screen 0 1920x1080x24 -nolisten tcp >/dev/null 2>&1 &
xvfb=$!
trap 'kill $xvfb 2>/dev/null' EXIT
export DISPLAY=$display
for _ in $(seq 100); do xdpyinfo >/dev/null 2>&1 && break; sleep 0.05; done

run_in_tray() {
    dbus-run-session -- bash -c '
        trayer --edge top --align right --widthtype pixel --width 200 --height 32 &
        tray=$!
        "$0" "$@"
        kill $tray
    ' "$build/bench/app_startup" "$@"
}

run_in_tray "$@" "$build/bin/tessarel"
if command -v flameshot >/dev/null; then
    # A private home, so that the peer starts as it does the first time, like Tessarel here.
    peer_home=$(mktemp -d)
    HOME=$peer_home XDG_CONFIG_HOME=$peer_home/.config run_in_tray "$@" flameshot
    rm -rf "$peer_home"
fi
