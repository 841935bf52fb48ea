#!/usr/bin/env bash
# Installs what is missing, builds, and starts the desktop application with
# the given files (the bundled sample points when none is given). Needs a
# display; without one, run it as `xvfb-run bash scripts/vesk.sh`.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
"$root/scripts/deps.sh"
mkdir -p "$root/build"
"$root/scripts/build.sh" "$root/build" >/dev/null
if [ -z "${DISPLAY:-}${WAYLAND_DISPLAY:-}" ] && [ -z "${QT_QPA_PLATFORM:-}" ]; then
  echo "vesk: no display (DISPLAY is not set); try: xvfb-run bash scripts/vesk.sh $*" >&2
  exit 1
fi
exec "$root/build/vesk" "$@"
