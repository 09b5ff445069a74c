#!/usr/bin/env bash
# The outcome of a whole session (the demo, headless) on every test photo
# shown to the camera for 4 s, and on every test clip: what a user in front
# of each would get, and the guidance the banner showed on the way. Prints
# one line per input; exit 1 when an outcome differs from what it should be.
#   bench/core/outcomes.sh [BUILD_DIR]
set -euo pipefail
cd "$(dirname "$0")/../.."
build=${1:-build}
demo=$build/apps/demo/zavocamera-demo
data=tests/data
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# input, then the outcome it should give: a best shot, or the detector's code.
expected=(
  "matplotlib__grace_hopper.jpg bestShot"
  "skimage__astronaut.png 1000"           # a face too small for a sharp portrait
  "skimage__camera.png 1000"              # a profile, too far
  "xraylarch__Marie_Curie.jpg 1000"      # turned about 25 degrees: look straight
  "opencv-doc__baboon.jpg 1000"           # no human face
  "gpl/kphotoalbum__snow.jpg 1000"        # no face
  "gpl/kphotoalbum__bar55_2.jpg 1000"     # two faces and a third in the dark
  "gpl/kphotoalbum__qt-logo.jpg 1000"     # three faces
  "gpl/visp__Solvay_1927_1280.png 1000"   # a crowd
  "A_zoom_blur_dark.mp4 bestShot"
  "gpl/B_face_leaves.mp4 bestShot"        # the face is there for the first 1.8 s
  "C_two_faces.mp4 1000"
  "E_no_face.mp4 1000"
  "gpl/R_kphotoalbum_movie.mp4 bestShot"  # a real 160x120 webcam
)

failures=0
for entry in "${expected[@]}"; do
  read -r input want <<<"$entry"
  clip=$data/$input
  case "$input" in
    *.jpg|*.png)
      clip=$work/$(basename "${input%.*}").mp4
      ffmpeg -v error -y -loop 1 -i "$data/$input" -t 4 -r 30 \
        -vf "scale=720:1280:force_original_aspect_ratio=decrease,pad=720:1280:(ow-iw)/2:(oh-ih)/2,format=yuv420p" \
        -c:v libx264 -preset veryfast "$clip" ;;
  esac
  summary=$(QT_QPA_PLATFORM=offscreen "$demo" --camera "$clip" --no-record --timeout 60 \
              --output "$work/out" 2>/dev/null | tail -1 || true)
  read -r got said < <(python3 -c '
import json, sys
s = json.loads(sys.argv[1])
got = "bestShot" if s["outcome"] == "bestShot" else s.get("errorInnerCode", s.get("errorCode"))
said = ",".join(k.split(".")[-1] for k in s.get("guidance") or []) or "-"
if s.get("pose"):
    said += " | yaw %.0f pitch %.0f roll %.0f eyes %.2f" % (s["pose"]["yaw"], s["pose"]["pitch"], s["pose"]["roll"], s["eyesOpen"])
print(got, said)' "$summary")
  verdict=ok; [ "$got" = "$want" ] || { verdict=WRONG; failures=$((failures + 1)); }
  printf '%-36s %-9s (expected %s) %-5s %s\n' "$input" "$got" "$want" "$verdict" "$said"
done
echo "$failures wrong"
[ "$failures" -eq 0 ]
