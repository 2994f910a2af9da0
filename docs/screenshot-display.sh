# Sourced by the screenshot scripts with their arguments: a private virtual X display and a
# scratch folder, both gone when the script ends. Sets build, shots, work, width, height and
# DISPLAY.
build=$(realpath "${1:-build}")
shots=$(realpath "$(dirname "$0")")/screenshots
work=$(mktemp -d)
trap 'kill $(jobs -p) 2>/dev/null || true; wait 2>/dev/null || true; rm -rf "$work"' EXIT

width=1280
height=800
exec 3<> <(:)
Xvfb -displayfd 3 -screen 0 ${width}x${height}x24 -nolisten tcp >/dev/null 2>&1 &
read -r -t 30 number <&3
export DISPLAY=:$number
