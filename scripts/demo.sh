#!/usr/bin/env bash
# The main job: one face-capture session with the demo host on the sample
# clip built into it. With a display the camera screen opens in a window;
# without one it runs offscreen and prints a one-line JSON summary. Results
# (best shot, screenshot, session video) go to build/demo-output/.
set -euo pipefail
cd "$(dirname "$0")/.."
if [ -z "${DISPLAY:-}" ] && [ -z "${WAYLAND_DISPLAY:-}" ]; then
  export QT_QPA_PLATFORM=offscreen
fi
out=build/demo-output
mkdir -p "$out"
exec build/apps/demo/zavocamera-demo --output "$out" "$@"
