#!/usr/bin/env bash
# Takes the screenshots in docs/screenshots by touring Tessarel on a private virtual display
# with synthetic input (scripts/tour).
#   docs/take-screenshots.sh <build dir>
set -euo pipefail
docs=$(realpath "$(dirname "$0")")
tour=$(mktemp -d)
trap 'rm -rf "$tour"' EXIT
"$docs/../scripts/tour" "${1:-build}" "$tour" >/dev/null
cp "$tour"/screens/*.png "$docs/screenshots/"
rm "$docs/screenshots/after-recordings.png"
