#!/usr/bin/env bash
# Click to file: a snapshot of the whole screen through the desktop application's real panel,
# from the start button's click to the finished file, in PNG, JPEG and PDF, against scrot in
# the same run (see click_to_file.cpp). Each screen size runs on its own private Xvfb with a
# tray host and a session bus, once bare (plain), once with a window manager and a compositor
# (composited: openbox + picom, as a desktop has them) and on a server without the
# Composite extension (uncomposable: Tessarel then hides its windows while it grabs); every run
# saves into a private home.
#   bench/click_to_file.sh <build dir> [--runs N] [--sizes WxH,...]
#                          [--desktops plain,composited,uncomposable] [--pause-seconds S]
# Defaults: 5 runs (snapshots per format and setting), sizes 1920x1080,3840x2160, all three
# desktops, snapshots a few seconds apart; --pause-seconds 12 takes each after the application
# has let go of its pixel memory, as the first one after a while does.
# Needs: Xvfb, xdpyinfo (x11-utils), dbus-run-session, trayer, xdotool, scrot, and for the
# composited desktop openbox and picom.
set -euo pipefail
build=$(realpath "${1:-build}")
shift || true

runs=5
sizes=1920x1080,3840x2160
desktops=plain,composited,uncomposable
pause=0
while [ $# -gt 0 ]; do
    case $1 in
    --runs) runs=$2; shift 2 ;;
    --sizes) sizes=$2; shift 2 ;;
    --desktops) desktops=$2; shift 2 ;;
    --pause-seconds) pause=$2; shift 2 ;;
    *) echo "unknown option $1" >&2; exit 2 ;;
    esac
done

work=$(mktemp -d)
xvfb=
trap '[ -z "$xvfb" ] || kill $xvfb 2>/dev/null; rm -rf "$work"' EXIT

for size in ${sizes//,/ }; do
    for desktop in ${desktops//,/ }; do
        display=:$((70 + RANDOM % 100))
        extensions=()
        [ "$desktop" != uncomposable ] || extensions=(-extension Composite)
        Xvfb "$display" -screen 0 "${size}x24" "${extensions[@]}" -nolisten tcp >/dev/null 2>&1 &
        xvfb=$!
        for _ in $(seq 100); do DISPLAY=$display xdpyinfo >/dev/null 2>&1 && break; sleep 0.05; done
        home=$(mktemp -d -p "$work")
        # No shadows or fading: the compositor paints what is there, as the tests run it.
        DISPLAY=$display HOME=$home XDG_CONFIG_HOME=$home/.config dbus-run-session -- bash -c '
            helpers=()
            if [ "$0" = composited ]; then
                openbox >/dev/null 2>&1 & helpers+=($!)
                picom --backend xrender --no-fading-openclose >/dev/null 2>&1 & helpers+=($!)
            fi
            trayer --edge top --align right --widthtype pixel --width 200 --height 32 &
            helpers+=($!)
            "$1" --runs "$2" --desktop "${0/uncomposable/plain}" --pause-seconds "$3" "$4"
            kill "${helpers[@]}"
        ' "$desktop" "$build/bench/click_to_file" "$runs" "$pause" "$build/bin/tessarel" |
            tee -a "$work/all.txt"
        kill $xvfb
        wait $xvfb 2>/dev/null || true
        xvfb=
    done
done
echo "== medians =="
grep 'click to file median' "$work/all.txt"
