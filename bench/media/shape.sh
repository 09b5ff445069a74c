#!/usr/bin/env bash
# Session video shape: how close each recorder's video, as a player shows it
# (display matrix and sample aspect ratio applied), comes to what the camera
# saw. For a portrait (720x1280) and a landscape (1280x720) camera, the middle
# frame of the frame-dump recorder's video (180x320 pixels) and of the
# compressor's (320x180 pixels) is compared by SSIM with the same camera frame
# scaled to the video's display size. Goal: SSIM >= 0.85 and the shown aspect
# within 2 % of the camera's.
# usage: bench/media/shape.sh [BUILD_DIR]      (default: build)
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
root=$(cd "$here/../.." && pwd)
build=$(cd "${1:-$root/build}" && pwd)
ninja -C "$build" -j2 bench_media_recorder zavo-compress >/dev/null
recorder=$build/bench/media/bench_media_recorder
compress=$build/apps/zavo-compress/zavo-compress
work=$(mktemp -d /tmp/zavo-bench-shape.XXXXXX)
trap 'rm -rf "$work"' EXIT
clip=$root/tests/data/A_zoom_blur_dark.mp4
frames=60
middle=$((frames / 2))

# shown VIDEO PNG: the middle frame as a player shows it.
shown() {
  ffmpeg -v error -y -i "$1" -vf "select=eq(n\,$middle),scale=trunc(iw*sar/2)*2:ih,setsar=1" -frames:v 1 "$2"
}
# ssim A B: SSIM "All" of two pictures of one size.
ssim() {
  ffmpeg -hide_banner -nostats -i "$1" -i "$2" -lavfi "[0:v]format=yuv420p[a];[1:v]format=yuv420p[b];[a][b]ssim" \
    -f null - 2>&1 | sed -n 's/.*All:\([0-9.]*\).*/\1/p' | tail -1
}
report() {  # report NAME CAMERA_W CAMERA_H VIDEO
  local name=$1 cw=$2 ch=$3 video=$4
  shown "$video" "$work/shown.png"
  local size; size=$(ffprobe -v error -select_streams v:0 -show_entries stream=width,height -of csv=p=0:s=x "$work/shown.png")
  local sw=${size%x*} sh=${size#*x}
  local stored; stored=$(ffprobe -v error -select_streams v:0 -show_entries stream=width,height -of csv=p=0:s=x "$video" | cut -dx -f1,2)
  ffmpeg -v error -y -f rawvideo -pix_fmt bgra -s "${cw}x${ch}" -i "$work/camera.raw" \
    -vf "select=eq(n\,$middle),scale=$sw:$sh:flags=bicubic" -frames:v 1 "$work/reference.png"
  local value; value=$(ssim "$work/shown.png" "$work/reference.png")
  awk -v n="$name" -v st="$stored" -v sw="$sw" -v sh="$sh" -v cw="$cw" -v ch="$ch" -v s="$value" 'BEGIN {
    aspect = (sw / sh) / (cw / ch)
    printf "%-30s stored %-8s shown %4dx%-4d aspect %.3f of the camera  SSIM %.4f = %.2fx the 0.85 goal\n",
      n, st, sw, sh, aspect, s, s / 0.85 }'
}

for camera in 720x1280 1280x720; do
  w=${camera%x*}; h=${camera#*x}
  # The portrait camera is the sample clip; the landscape one sees the same
  # face through a wider lens.
  if [ "$w" -lt "$h" ]; then filter="scale=$w:$h"; else filter="crop=720:405:0:300,scale=$w:$h"; fi
  ffmpeg -v error -y -stream_loop -1 -i "$clip" -vf "$filter" -frames:v $frames -f rawvideo -pix_fmt bgra "$work/camera.raw"

  "$recorder" "$work/camera.raw" "$w" "$h" $frames 30 "$work/dump" >/dev/null 2>&1
  report "frame-dump, $camera camera" "$w" "$h" "$work/dump/bright_fold/ZMRecordedVideo.mp4"

  # The movie output records the upright frames at their own size; the
  # compressor then brings them to 320x180.
  ffmpeg -v error -y -f rawvideo -pix_fmt bgra -s "$camera" -r 30 -i "$work/camera.raw" -c:v libx264 -preset superfast \
    -crf 18 -pix_fmt yuv420p "$work/movie.mp4"
  "$compress" "$work/movie.mp4" >/dev/null 2>&1
  report "compressor, $camera camera" "$w" "$h" "$work/movie.mp4"
done
