#!/usr/bin/env bash
# Media benchmarks against the ffmpeg command line, both measured in this run.
#   assembly     120 dumped 720x1280 frames into the 180x320 session video
#   compression  A_zoom_blur_dark.mp4 and a 10 s 720x1280 clip into 320x180
#   append       frame-dump writes against plain sequential writes
# Each figure is the median of RUNS runs (default 5), ours and the baseline
# interleaved so that load on the machine hits both alike.
# usage: bench/media/run.sh [BUILD_DIR]      (default: build-media)
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
root=$(cd "$here/../.." && pwd)
build=$(cd "${1:-$root/build-media}" && pwd)
runs=${RUNS:-5}
ninja -C "$build" -j2 bench_media_recorder bench_media_stages zavo-compress >/dev/null

work=$(mktemp -d /tmp/zavo-bench-media.XXXXXX)
trap 'rm -rf "$work"' EXIT
clipA=$root/tests/data/A_zoom_blur_dark.mp4
compress=$build/apps/zavo-compress/zavo-compress
recorder=$build/bench/media/bench_media_recorder
stages=$build/bench/media/bench_media_stages

echo "== inputs"
ffmpeg -v error -y -i "$clipA" -f rawvideo -pix_fmt bgra "$work/frames.raw"
ffmpeg -v error -y -stream_loop -1 -i "$clipA" -t 10 -c:v libx264 -preset medium -crf 23 "$work/clip10.mp4"

now() { date +%s%N; }
# timed OUTVAR CMD...: runs CMD, stores "wall cpu" seconds (cpu = user + system).
timed() {
  local var=$1; shift
  /usr/bin/time -f "%e %U %S" -o "$work/time" "$@" >/dev/null
  printf -v "$var" '%s' "$(awk '{ printf "%.3f %.3f", $1, $2 + $3 }' "$work/time")"
}
seconds() { awk -v ns="$1" 'BEGIN { printf "%.3f", ns / 1e9 }'; }
median() { printf '%s\n' "$@" | sort -g | awk '{ v[NR] = $1 } END { print v[int((NR + 1) / 2)] }'; }
ratio() { awk -v a="$1" -v b="$2" 'BEGIN { printf "%.2f", a / b }'; }
# ssim OUT REF W H: SSIM "All" of OUT against REF scaled to WxH. Raw inputs
# take their options from the arrays out_opts and ref_opts.
out_opts=(); ref_opts=()
ssim() {
  local out=$1 ref=$2 size="$3:$4"
  ffmpeg -hide_banner -nostats "${out_opts[@]}" -i "$out" "${ref_opts[@]}" -i "$ref" \
    -lavfi "[1:v]scale=$size,format=yuv420p[r];[0:v]format=yuv420p[o];[o][r]ssim" -f null - 2>&1 \
    | sed -n 's/.*All:\([0-9.]*\).*/\1/p' | tail -1
}
size() { stat -c %s "$1"; }

echo "== ffmpeg start-up (a one-frame null run)"
startup=()
for ((i = 0; i < runs; i++)); do
  t=$(now); ffmpeg -v error -f lavfi -i nullsrc=s=16x16 -frames:v 1 -f null - ; startup+=($(( $(now) - t )))
done
startup_s=$(seconds "$(median "${startup[@]}")")
echo "ffmpeg start-up: ${startup_s} s"

echo "== assembly: 120 frames 720x1280 BGRA -> 180x320 H.264"
ours=(); ours_cpu=(); cli=(); cli_cpu=(); append=(); plain=(); unsynced=()
for ((i = 0; i < runs; i++)); do
  out=$("$recorder" "$work/frames.raw" 720 1280 120 30 "$work/rec" 2>/dev/null)
  ours+=($(awk '/^flush_s/ { print $2 }' <<<"$out"))
  ours_cpu+=($(awk '/^flush_cpu_s/ { print $2 }' <<<"$out"))
  append+=($(awk '/^append_mb_s/ { print $2 }' <<<"$out"))
  plain+=($(awk '/^plain_write_mb_s/ { print $2 }' <<<"$out"))
  unsynced+=($(awk '/^unsynced_atomic_mb_s/ { print $2 }' <<<"$out"))
  timed t ffmpeg -v error -y -f rawvideo -pix_fmt bgra -s 720x1280 -r 30 -i "$work/frames.raw" -vf scale=180:320 -c:v libx264 "$work/cli-assembly.mp4"
  cli+=(${t% *}); cli_cpu+=(${t#* })
done
cp "$work/rec/bright_fold/ZMRecordedVideo.mp4" "$work/ours-assembly.mp4"
o=$(median "${ours[@]}"); c=$(median "${cli[@]}"); oc=$(median "${ours_cpu[@]}"); cc=$(median "${cli_cpu[@]}")
c_net=$(awk -v c="$c" -v s="$startup_s" 'BEGIN { printf "%.3f", c - s }')
rawopts=(-f rawvideo -pix_fmt bgra -s 720x1280 -r 30)
echo "ours (in process): $o s wall, $oc s cpu   ffmpeg: $c s wall ($c_net s without start-up), $cc s cpu"
echo "speed-up: $(ratio "$c" "$o")x   (against ffmpeg less its start-up: $(ratio "$c_net" "$o")x; cpu time: $(ratio "$cc" "$oc")x)   goal >= 1.5x"
ref_opts=("${rawopts[@]}")
echo "SSIM vs the frames scaled to 180x320: ours $(ssim "$work/ours-assembly.mp4" "$work/frames.raw" 180 320)" \
     " ffmpeg $(ssim "$work/cli-assembly.mp4" "$work/frames.raw" 180 320) (ffmpeg picks 4:4:4 chroma for BGRA input)"
ref_opts=()
echo "size: ours $(size "$work/ours-assembly.mp4") B   ffmpeg $(size "$work/cli-assembly.mp4") B"

echo "== append: frame-dump writes vs plain sequential writes of the same bytes"
a=$(median "${append[@]}"); p=$(median "${plain[@]}"); u=$(median "${unsynced[@]}")
echo "append: $a MB/s   plain write: $p MB/s   ratio: $(ratio "$a" "$p")   goal >= 0.8"
echo "  the same files written aside and renamed by hand: $u MB/s (ratio $(ratio "$u" "$p"))"

compare_compression() {
  local name=$1 input=$2
  echo "== compression: $name -> 320x180 H.264"
  local ours=() ours_cpu=() cli=() cli_cpu=() t
  for ((i = 0; i < runs; i++)); do
    cp "$input" "$work/in-place.mp4"
    timed t "$compress" "$work/in-place.mp4"
    ours+=(${t% *}); ours_cpu+=(${t#* })
    timed t ffmpeg -v error -y -i "$input" -an -vf scale=320:180 -c:v libx264 "$work/cli-compress.mp4"
    cli+=(${t% *}); cli_cpu+=(${t#* })
  done
  local o c oc cc so sc
  o=$(median "${ours[@]}"); c=$(median "${cli[@]}"); oc=$(median "${ours_cpu[@]}"); cc=$(median "${cli_cpu[@]}")
  # Each against the source at its own shown geometry: ours keeps a portrait
  # source portrait (180x320 shown, through the display matrix), the command
  # line squeezes it into 320x180.
  local shown="320 180"
  [ "$(ffprobe -v error -select_streams v:0 -show_entries stream=width,height -of csv=p=0:s=x "$input" | awk -Fx '{ print ($1 < $2) }')" = 1 ] && shown="180 320"
  so=$(ssim "$work/in-place.mp4" "$input" $shown); sc=$(ssim "$work/cli-compress.mp4" "$input" 320 180)
  echo "ours: $o s wall, $oc s cpu   ffmpeg: $c s wall, $cc s cpu   (both whole processes)"
  echo "speed-up: $(ratio "$c" "$o")x   cpu time: $(ratio "$cc" "$oc")x   goal >= 1.5x"
  echo "SSIM vs the source scaled to 320x180: ours $so   ffmpeg $sc   difference $(awk -v a="$so" -v b="$sc" 'BEGIN { printf "%+.4f", a - b }')   goal >= -0.01"
  echo "size: ours $(size "$work/in-place.mp4") B   ffmpeg $(size "$work/cli-compress.mp4") B   ratio $(ratio "$(size "$work/in-place.mp4")" "$(size "$work/cli-compress.mp4")")   goal <= 1.1"
}
compare_compression "A_zoom_blur_dark.mp4 (4 s)" "$clipA"
compare_compression "10 s 720x1280 clip" "$work/clip10.mp4"

echo "== stages of A_zoom_blur_dark.mp4, one thread each (ms per frame)"
"$stages" "$clipA" "$work"
