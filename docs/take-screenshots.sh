#!/usr/bin/env bash
# Takes the screenshots in docs/screenshots: starts Tessarel on a private virtual display with
# a tray host and a sound server, and walks through its screens with synthetic input.
#   docs/take-screenshots.sh <build dir> [output dir]
set -euo pipefail
build=$(realpath "${1:-build}")
out=$(realpath -m "${2:-$(dirname "$0")/screenshots}")
mkdir -p "$out"
work=$(mktemp -d)
trap 'kill $(jobs -p) 2>/dev/null; rm -rf "$work"' EXIT

width=1600
height=1000
display=:$((170 + RANDOM % 100))
Xvfb "$display" -screen 0 ${width}x${height}x24 -nolisten tcp >/dev/null 2>&1 &
export DISPLAY=$display
for _ in $(seq 100); do xdpyinfo >/dev/null 2>&1 && break; sleep 0.05; done
convert -size ${width}x${height} gradient:'#4a6fd0'-'#8d56c9' "$work/desktop.png"
display -window root "$work/desktop.png" &
sleep 0.5

# Captures land in a throw-away home folder.
export HOME=$work/home
mkdir -p "$HOME"

# A sound server with a silent output whose monitor can be recorded.
export XDG_RUNTIME_DIR=$work/runtime
mkdir -p -m 0700 "$XDG_RUNTIME_DIR"
pulseaudio --daemonize=no --exit-idle-time=-1 --disallow-exit -n \
    --load="module-native-protocol-unix" --load="module-null-sink sink_name=speakers" \
    >/dev/null 2>&1 &



export OUT=$out
dbus-run-session -- bash -s "$build" "$width" "$height" <<'DRIVE'
set -euo pipefail
build=$1 width=$2 height=$3
shot() { sleep 0.8; import -window root "$OUT/$1.png"; }
trayer --edge top --align right --widthtype pixel --width 120 --height 32 &
sleep 1
"$build/bin/tessarel" &
sleep 2

# The tray icon sits at the right end of the tray; the popup opens under it.
xdotool mousemove $((width - 13)) 14 click 1
shot popup
# "Record Audio", the first row of the popup.
xdotool mousemove $((width - 300)) 165 click 1
shot audio-setup
# The panel is centred: 700 × 460 at the set-up screens.
left=$(((width - 700) / 2)) top=$(((height - 460) / 2))
xdotool mousemove $((left + 400)) $((top + 272)) click 1
shot format-menu
xdotool key Escape
xdotool key ctrl+s
shot snapshot-setup
xdotool key ctrl+v
shot video-setup
# Start Recording, then drag out an area on the overlay and record it.
xdotool mousemove $((left + 560)) $((top + 417)) click 1
sleep 0.5
xdotool mousemove 300 250 mousedown 1 mousemove 600 420 mousemove 900 620
shot overlay
xdotool mouseup 1
shot progress-video
# Stop Capture; the panel keeps its top-left corner while its size follows the screen.
xdotool mousemove $((left + 600)) $((top + 156)) click 1
sleep 1
shot home
xdotool key ctrl+r
sleep 0.5
xdotool mousemove $((left + 560)) $((top + 417)) click 1
sleep 1.5
shot progress-audio
xdotool mousemove $((left + 600)) $((top + 266)) click 1
sleep 1
DRIVE
