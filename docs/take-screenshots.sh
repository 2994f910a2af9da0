#!/usr/bin/env bash
# Takes the screenshots in docs/screenshots: Tessarel on a private virtual display with a
# desktop around it (the openbox window manager, the picom compositor, a tint2 panel with its
# tray), in the light and in the dark scheme, driven with the keyboard, and with the pointer
# where only a pointer will do (the tray icon, the area of a video).
#   docs/take-screenshots.sh <build dir>
# The dark scheme comes from GTK's Adwaita:dark through Qt's gtk3 platform theme
# (qt6-gtk-platformtheme), as on a GNOME desktop set to dark.
set -euo pipefail
# The error alert names the save folder. As root the tour runs with a private /home, so that
# the pictures show /home/you rather than a path of the machine that took them.
if [ "$(id -u)" -eq 0 ] && [ -z "${TESSAREL_PRIVATE_HOME:-}" ]; then
    TESSAREL_PRIVATE_HOME=1 exec unshare --mount --propagation private "$0" "$@"
fi
. "$(dirname "$0")/screenshot-display.sh" "$@"
xsetroot -solid '#5b62cc'
openbox >/dev/null 2>&1 &
sleep 1
picom --backend xrender --no-fading-openclose >/dev/null 2>&1 &
tint2 >/dev/null 2>&1 &
sleep 1

export XDG_RUNTIME_DIR=$work/runtime
mkdir -p -m 0700 "$XDG_RUNTIME_DIR"
pulseaudio --daemonize=no --exit-idle-time=-1 --disallow-exit -n \
    --load="module-native-protocol-unix" --load="module-null-sink sink_name=speakers" \
    --load="module-always-sink" >/dev/null 2>&1 &
for _ in $(seq 100); do pactl info >/dev/null 2>&1 && break; sleep 0.1; done
pactl set-default-sink speakers

tour() {
    local scheme=$1
    if [ -n "${TESSAREL_PRIVATE_HOME:-}" ]; then
        mountpoint -q /home || mount -t tmpfs tmpfs /home
        rm -rf /home/you
        HOME=/home/you
    else
        HOME=$work/home-$scheme
    fi
    export HOME SHOTS=$shots SCHEME=$scheme BUILD=$build height
    mkdir -p "$HOME/Downloads" "$HOME/.config"
    echo 'XDG_DOWNLOAD_DIR="$HOME/Downloads"' >"$HOME/.config/user-dirs.dirs"
    dbus-run-session -- bash -s 2> >(grep -v "fd limit" >&2) <<'DRIVE'
set -euo pipefail
shot() { sleep 0.8; import -window root "$SHOTS/$1-$SCHEME.png"; }
keys() { for key in "$@"; do xdotool key "$key"; sleep 0.15; done; }
"$BUILD/bin/tessarel" 2>/dev/null &
app=$!
sleep 2
# Its tray icon: the small window of the process docked in tint2's tray.
for window in $(xdotool search --pid "$app" 2>/dev/null); do
    eval "$(xdotool getwindowgeometry --shell "$window")"
    if [ "$WIDTH" -le 48 ] && [ "$HEIGHT" -le 48 ] && [ "$Y" -gt $((height / 2)) ]; then
        xdotool mousemove $((X + WIDTH / 2)) $((Y + HEIGHT / 2)) click 1
        shot popup
        xdotool key Escape
        break
    fi
done
# Starting it again brings the panel forward at home.
"$BUILD/bin/tessarel"
sleep 1
shot home
keys ctrl+r
shot audio-setup
# Close, Save To, Format: the format menu opens on the current format.
keys Tab Tab Tab Return
shot format-menu
keys Escape ctrl+v
shot video-setup
keys ctrl+s
shot snapshot-setup
# Close, Save To, Format, Take Snapshot.
keys Tab Tab Tab Tab Return
sleep 1
shot home-after-snapshot
keys ctrl+r Tab Tab Tab Tab Return
sleep 0.5
sox -q -n -r 48000 -c 2 -b 16 -e signed -t raw - synth 4 sine 440 vol 0.5 |
    pacat --raw --rate=48000 --channels=2 --format=s16le 2>/dev/null &
shot progress-audio
sleep 1.5
# Close, Stop Capture.
keys Tab Tab Return
sleep 1.5
# Video has one format and no menu: Close, Save To, Start Recording. Start covers the screen
# with the overlay; a drag with the pointer chooses the area.
keys ctrl+v Tab Tab Tab Return
sleep 1
xdotool mousemove 340 180 mousedown 1
sleep 0.2
xdotool mousemove 600 380
sleep 0.2
xdotool mousemove 940 560
shot region-overlay
xdotool mouseup 1
sleep 1.5
shot progress-video
sleep 1
keys Tab Tab Return
sleep 2
# Home: the options button comes first, its menu opens on "About...".
keys Tab Return
shot options-menu
keys Return
shot about
keys Return
# A save folder that is not a folder: the capture fails with a message.
rm -rf "$HOME/Downloads"
touch "$HOME/Downloads"
keys ctrl+s Tab Tab Tab Tab Return
shot error-alert
keys Return
kill "$app"
wait "$app" || true
DRIVE
}

tour light
QT_QPA_PLATFORMTHEME=gtk3 GTK_THEME=Adwaita:dark tour dark
