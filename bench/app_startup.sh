#!/usr/bin/env bash
# Runs the start-up and idle benchmark of the desktop application on a private 4K virtual
# display with a tray host and a session bus, so that it needs no desktop; then, where it is
# installed, the same for Flameshot, another Qt tray tool, as the peer. With --captures, each
# also takes 4K snapshots (and Tessarel records a movie) and its memory is read a minute after
# each. Both save into private homes.
#   bench/app_startup.sh <build dir> [--runs N] [--idle-seconds S] [--captures]
#                        [--settle-seconds S]
set -euo pipefail
build=$(realpath "${1:-build}")
shift || true

display=:$((70 + RANDOM % 100))
Xvfb "$display" -screen 0 3840x2160x24 -nolisten tcp >/dev/null 2>&1 &
xvfb=$!
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

# Also the peer's private home: its settings leave out its first-start greeting, the update
# check and notifications, so that it idles in the tray as it does on every later start.
work=$(mktemp -d)
trap 'kill $xvfb 2>/dev/null; rm -rf "$work"' EXIT
mkdir -p "$work/own"
HOME=$work/own XDG_CONFIG_HOME=$work/own/.config run_in_tray "$@" "$build/bin/tessarel" |
    tee "$work/own.txt"
if command -v flameshot >/dev/null; then
    mkdir -p "$work/peer/.config/flameshot"
    printf '%s\n' '[General]' showStartupLaunchMessage=false checkForUpdates=false \
        showDesktopNotification=false showHelp=false \
        >"$work/peer/.config/flameshot/flameshot.ini"
    HOME=$work/peer XDG_CONFIG_HOME=$work/peer/.config run_in_tray "$@" flameshot |
        tee "$work/peer.txt"
    # Tessarel's medians over the peer's.
    awk 'BEGIN { n = 0 }
         /^median/ && !/ after a / && !/ click to file / { for (i = 1; i < NF; ++i) {
                         if ($i == "icon") start[n] = $(i + 1)
                         if ($i == "resident") resident[n] = $(i + 1)
                         if ($i == "PSS") pss[n] = $(i + 1) }
                     ++n }
         END { if (n == 2) printf "Tessarel / Flameshot: start %.2f x, resident %.2f x, PSS %.2f x\n",
                   start[0] / start[1], resident[0] / resident[1], pss[0] / pss[1] }' \
        "$work/own.txt" "$work/peer.txt"
    # A minute after each snapshot, Tessarel's over the peer's.
    for capture in "PNG snapshot" "JPEG snapshot"; do
        grep -h "after a 4K $capture" "$work/own.txt" "$work/peer.txt" | grep '^median' |
            awk -v what="$capture" '
                { for (i = 1; i < NF; ++i) {
                      if ($i == "resident") resident[NR] = $(i + 1)
                      if ($i == "PSS") pss[NR] = $(i + 1) } }
                END { if (NR == 2) printf "Tessarel / Flameshot after a 4K %s: resident %.2f x, PSS %.2f x\n",
                          what, resident[1] / resident[2], pss[1] / pss[2] }'
    done
fi
