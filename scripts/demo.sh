#!/usr/bin/env bash
# The main job: runs the showcase of the component on this machine, offscreen
# (saving screenshots) when there is no display.
set -euo pipefail
cd "$(dirname "$0")/.."
if [ -z "${DISPLAY:-}" ] && [ -z "${WAYLAND_DISPLAY:-}" ]; then
  export QT_QPA_PLATFORM=offscreen
fi
out=build/screenshots
mkdir -p "$out"
exec build/apps/gallery/zavocamera-gallery --output "$out" "$@"
