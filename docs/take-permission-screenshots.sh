#!/usr/bin/env bash
# Takes the permission alert's screenshots in docs/screenshots, as a user meets it: on a
# Wayland desktop that captures the screen only through the desktop portal, the user declines
# the portal's screen-sharing dialog and Tessarel shows the permission prompt.
#   docs/take-permission-screenshots.sh <build dir>
# The desktop is weston, which lets no application copy the screen, in a window of a private
# virtual X display (so that xdotool types into it and import takes its picture), with the
# real xdg-desktop-portal frontend on a private session bus and, as the desktop's
# screen-sharing dialog, the tests' ScreenCast backend told to decline. Light, then dark (Qt's
# gtk3 platform theme with Adwaita:dark, as on a GNOME desktop set to dark).
set -euo pipefail
. "$(dirname "$0")/screenshot-display.sh" "$@"
export XDG_RUNTIME_DIR=$work/runtime
mkdir -p -m 0700 "$XDG_RUNTIME_DIR"
weston --backend=x11-backend.so --use-pixman --width=$width --height=$height \
    --socket=wayland-tessarel --idle-time=0 >"$work/weston.log" 2>&1 &
for _ in $(seq 100); do [ -S "$XDG_RUNTIME_DIR/wayland-tessarel" ] && break; sleep 0.1; done
sleep 1

# The portal's configuration: the tests' backend is this desktop's ScreenCast and Access.
mkdir -p "$work/portals" "$work/control"
cat >"$work/portals/tessarel-test.portal" <<'PORTAL'
[portal]
DBusName=org.freedesktop.impl.portal.desktop.tessarel_test
Interfaces=org.freedesktop.impl.portal.Access;org.freedesktop.impl.portal.ScreenCast;
UseIn=tessarel-test
PORTAL
touch "$work/control/decline"

tour() {
    local scheme=$1
    export HOME=$work/home-$scheme SHOTS=$shots SCHEME=$scheme BUILD=$build WORK=$work
    export width height
    mkdir -p "$HOME/Downloads" "$HOME/.config"
    echo 'XDG_DOWNLOAD_DIR="$HOME/Downloads"' >"$HOME/.config/user-dirs.dirs"
    dbus-run-session -- bash -s 2> >(grep -v "fd limit" >&2) <<'DRIVE'
set -euo pipefail
# The session's daemons end with it.
trap 'kill $(jobs -p) 2>/dev/null || true; wait 2>/dev/null || true' EXIT
export XDG_CURRENT_DESKTOP=tessarel-test XDG_DESKTOP_PORTAL_DIR=$WORK/portals
pipewire >/dev/null 2>&1 &
for _ in $(seq 100); do [ -S "$XDG_RUNTIME_DIR/pipewire-0" ] && break; sleep 0.1; done
"$BUILD/tests/support/portal/portal_screencast_backend" "$WORK/control" \
    "screen:0:0:$width:$height:$width:$height:1:0" >/dev/null 2>&1 &
sleep 1
/usr/libexec/xdg-desktop-portal -r >/dev/null 2>&1 &
sleep 1
shot() { sleep 0.8; import -window root "$SHOTS/$1-$SCHEME.png"; }
keys() { for key in "$@"; do xdotool key "$key"; sleep 0.15; done; }
export WAYLAND_DISPLAY=wayland-tessarel QT_QPA_PLATFORM=wayland
"$BUILD/bin/tessarel" 2>/dev/null &
app=$!
sleep 2
# Starting it again brings the panel forward at home; weston gives it the keyboard.
"$BUILD/bin/tessarel"
sleep 1
# Snapshot: Close, Save To, Format, Take Snapshot. The desktop asks whether Tessarel may
# share the screen, the user declines, and the permission prompt comes.
keys ctrl+s Tab Tab Tab Tab Return
sleep 1
shot permission-alert
keys Escape
kill "$app"
wait "$app" || true
DRIVE
}

tour light
QT_QPA_PLATFORMTHEME=gtk3 GTK_THEME=Adwaita:dark tour dark
