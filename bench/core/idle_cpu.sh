#!/usr/bin/env bash
# How much CPU a whole session takes while it waits for a face: the demo,
# headless, on the empty-scene clip as a 720x1280 camera at 30 frames a
# second, measured over a window after start-up. Prints the process's CPU
# and the detector thread's, in cores (goal for the process: 0.25). With
# NOISE=n in the environment the clip gets ffmpeg's temporal noise of that
# strength, as a real sensor's frames never repeat.
#   [NOISE=8] bench/core/idle_cpu.sh [BUILD_DIR] [SECONDS] [demo options...]
set -euo pipefail
cd "$(dirname "$0")/../.."
build=${1:-build}
window=${2:-10}
shift $(( $# > 2 ? 2 : $# ))
demo=$build/apps/demo/zavocamera-demo
work=$(mktemp -d)
pid=
cleanup() { [ -n "$pid" ] && kill "$pid" 2>/dev/null; rm -rf "$work"; }
trap cleanup EXIT

clip=$work/no_face_720x1280.mp4
noise=${NOISE:+,noise=alls=$NOISE:allf=t}
ffmpeg -v error -y -i tests/data/E_no_face.mp4 \
  -vf "scale=720:1280,fps=30$noise,format=yuv420p" -c:v libx264 -preset veryfast "$clip"

QT_QPA_PLATFORM=offscreen "$demo" --camera "$clip" --no-record --timeout $((window + 20)) \
  --output "$work/out" "$@" >/dev/null 2>&1 &
pid=$!
ticks=$(getconf CLK_TCK)
# utime + stime of the whole process, in seconds.
process_cpu() { awk -v t="$ticks" '{ print ($14 + $15) / t }' "/proc/$pid/stat"; }
# Time on a core of the threads named ZCDetector, in seconds: the
# detector's own and OpenCV's workers it started, which take its name.
detector_cpu() {
  local total=0
  for task in /proc/$pid/task/*; do
    if [ "$(cat "$task/comm" 2>/dev/null)" = ZCDetector ]; then
      total=$(awk -v t="$total" '{ print t + $1 / 1e9 }' "$task/schedstat")
    fi
  done
  echo "$total"
}
sleep 4  # start-up: the camera, the screen, the face network
p0=$(process_cpu); d0=$(detector_cpu); t0=$(date +%s.%N)
sleep "$window"
p1=$(process_cpu); d1=$(detector_cpu); t1=$(date +%s.%N)
awk -v noise="${NOISE:+ with noise $NOISE}" -v p0="$p0" -v p1="$p1" -v d0="$d0" -v d1="$d1" -v t0="$t0" -v t1="$t1" 'BEGIN {
  s = t1 - t0
  printf "waiting for a face, 720x1280 at 30 fps%s, over %.1f s: process %.3f of a core (goal 0.25), detector threads %.3f (%.2f ms a frame)\n",
    noise, s, (p1 - p0) / s, (d1 - d0) / s, (d1 - d0) * 1000 / (s * 30)
}'
