#!/usr/bin/env bash
# Remakes the hand-made seeds of the fuzz corpora (the rest of each corpus is
# what fuzzing found worth keeping). Needs the ffmpeg command line.
set -euo pipefail
cd "$(dirname "$0")"
clip=../tests/data/A_zoom_blur_dark.mp4
media=corpus/asset_reader
dump=corpus/frame_dump
answer=corpus/liveness_answer
mkdir -p "$media" "$dump" "$answer"
ff() { ffmpeg -v error -y -ss 1 -i "$clip" "$@"; }

# Tiny, few frames, each container and codec the recorder and the movie output
# are likely to meet.
ff -frames:v 4 -vf scale=48:64 -c:v libx264 -preset ultrafast -pix_fmt yuv420p "$media/seed-h264.mp4"
ff -frames:v 3 -vf scale=64:48 -c:v libx264 -preset ultrafast -pix_fmt yuv420p -metadata:s:v rotate=90 "$media/seed-rotated.mp4"
ff -frames:v 3 -vf scale=32:24 -c:v mjpeg -q:v 20 "$media/seed-mjpeg.avi"
ff -frames:v 3 -vf scale=32:24 -c:v mpeg4 -q:v 20 "$media/seed-mpeg4.avi"
ffmpeg -v error -y -ss 1 -i "$clip" -f lavfi -i "sine=duration=0.1" -frames:v 3 -vf scale=48:32 \
  -c:v libx264 -preset ultrafast -c:a aac -b:a 16k -shortest "$media/seed-audio.mkv"
ff -frames:v 2 -vf scale=32:32 -map 0:v -map 0:v -c:v libx264 -preset ultrafast "$media/seed-two-tracks.mp4"
ff -frames:v 3 -vf scale=32:48 -c:v libx264 -preset ultrafast -movflags +faststart "$media/seed-faststart.mp4"
ff -frames:v 2 -vf scale=30:18 -c:v libx264 -preset ultrafast -pix_fmt yuv444p "$media/seed-odd-444.mov"
# Cut short, as a crash or a full disk leaves them.
head -c 1500 "$media/seed-h264.mp4" > "$media/seed-h264-cut.mp4"
head -c 2000 "$media/seed-faststart.mp4" > "$media/seed-faststart-cut.mp4"
head -c 1200 "$media/seed-mjpeg.avi" > "$media/seed-mjpeg-cut.avi"
head -c 900 "$media/seed-audio.mkv" > "$media/seed-audio-cut.mkv"

# Frame files: the first byte picks the capture size (index into the
# harness's table), the rest is the file. Real BGRA rows, exact, short, long.
raw() { ffmpeg -v error -ss 1 -i "$clip" -frames:v 1 -vf "scale=$1" -pix_fmt bgra -f rawvideo - 2>/dev/null || true; }
{ printf '\x03'; raw 16:16; } > "$dump/seed-16x16-exact"
{ printf '\x03'; raw 16:16 | head -c 700; } > "$dump/seed-16x16-short"
{ printf '\x05'; raw 64:48; raw 8:8; } > "$dump/seed-64x48-long"
{ printf '\x02'; raw 5:7 | head -c 139; } > "$dump/seed-5x7-ragged"
{ printf '\x06'; raw 180:320 | head -c 4000; } > "$dump/seed-180x320-start"
printf '\x00' > "$dump/seed-empty"
{ printf '\x04'; raw 33:9; } > "$dump/seed-33x9-exact"

# Server answers: flags byte, status byte, reason line, body.
printf '\x01\x00OK\n{"live": true}' > "$answer/seed-live"
printf '\x01\x00OK\n{"live": false, "message": "eyes closed"}' > "$answer/seed-not-live"
printf '\x01\x00OK\n{"quality_error": "too dark"}' > "$answer/seed-quality"
printf '\x01\x08Unprocessable\n{"code": 11038, "message": "no face"}' > "$answer/seed-code"
printf '\x01\x0cInternal Server Error\n<html>oops</html>' > "$answer/seed-html-500"
printf '\x03\x2c\x01\x00\x00Odd\n{"live": "yes"}' > "$answer/seed-raw-status"
printf '\x14' > "$answer/seed-no-answer"
printf '\x01\x00OK\n[{"live": true}]' > "$answer/seed-array"
printf '\x01\x00OK\n{"code": 1e400, "live": true}' > "$answer/seed-huge-code"

# Webcams: a format list as v4l2-ctl prints it, then frames, each string
# ended the way FuzzedDataProvider ends one (a backslash and one more byte;
# a backslash inside is doubled).
webcam=corpus/webcam_formats
mkdir -p "$webcam"
ff -frames:v 2 -vf scale=32:24 -c:v mjpeg -q:v 10 -f image2 -update 0 /tmp/zavo-seed-%d.jpg
ff -frames:v 1 -vf scale=32:24 -pix_fmt yuyv422 -f rawvideo /tmp/zavo-seed.yuyv
python3 - "$webcam" ../tests/data/v4l2 <<'PY'
import pathlib, sys
out, fixtures = pathlib.Path(sys.argv[1]), pathlib.Path(sys.argv[2])
def field(b): return b.replace(b"\\", b"\\\\") + b"\\x"
small = lambda code, name: (f"ioctl: VIDIOC_ENUM_FMT\n\tType: Video Capture\n\n\t[0]: '{code}' ({name})\n"
                            "\t\tSize: Discrete 32x24\n\t\t\tInterval: Discrete 0.033s (30.000 fps)\n").encode()
jpegs = [pathlib.Path(f"/tmp/zavo-seed-{i}.jpg").read_bytes() for i in (1, 2)]
yuyv = pathlib.Path("/tmp/zavo-seed.yuyv").read_bytes()
seeds = {
    "seed-mjpeg": field(small("MJPG", "Motion-JPEG, compressed")) + b"".join(field(j) for j in jpegs),
    "seed-mjpeg-cut": field(small("MJPG", "Motion-JPEG, compressed")) + field(jpegs[0][: len(jpegs[0]) // 2]) + field(jpegs[1] + b"\0" * 64),
    "seed-yuyv": field(small("YUYV", "YUYV 4:2:2")) + field(yuyv) + field(yuyv[:100]),
}
for name in ("usb1080p_h264", "stepwise", "only_640x480"):
    seeds[f"seed-{name}"] = field((fixtures / f"{name}.txt").read_bytes()) + field(jpegs[0])
for name, data in seeds.items():
    (out / name).write_bytes(data)
PY
rm -f /tmp/zavo-seed-*.jpg /tmp/zavo-seed.yuyv
