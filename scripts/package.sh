#!/usr/bin/env bash
# Release check on an already built tree (scripts/setup.sh first):
#  - API documentation (build/docs/html),
#  - install into a staging prefix and a Debian package (build/*.deb),
#  - the example host project built against the staged package, outside the
#    tree, and run for one session on a sample clip played as its camera;
#  - the QML example host the same way, in Xvfb: once to a best shot, once
#    closed by its window after 1.5 s, which must end it within a second.
set -euo pipefail
cd "$(dirname "$0")/.."
root=$PWD
build=$root/build
stage=$build/stage

echo "== API documentation"
cmake --build "$build" --target docs
echo "   $build/docs/html/index.html ($(wc -l < "$build/docs/warnings.log") warning lines)"

echo "== install and package"
rm -rf "$stage"
cmake --install "$build" --prefix "$stage" >/dev/null
(cd "$build" && cpack -G DEB >/dev/null)
deb=$(ls "$build"/zavocamera_*.deb)
dpkg-deb --info "$deb" | sed -n '/Depends/p'
echo "   $deb"

echo "== example host against the installed package"
host_build=$build/host-example
rm -rf "$host_build"
cmake -S examples/host -B "$host_build" -G Ninja -DCMAKE_PREFIX_PATH="$stage" >/dev/null
cmake --build "$host_build"
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
# A private HOME keeps the session video out of the user's Documents; the
# session example writes its face and video into its working folder.
(cd "$work" && HOME=$work QT_QPA_PLATFORM=offscreen timeout 120 \
  "$host_build/zavocamera-host-example" "$root/tests/data/A_zoom_blur_dark.mp4")
test -s "$work/face.png" && ls "$work"/videos/zavocamera-session.mp4 >/dev/null
HOME=$work QT_QPA_PLATFORM=offscreen timeout 120 \
  "$host_build/zavocamera-host-builder-example" "$root/tests/data/A_zoom_blur_dark.mp4"

echo "== QML example host against the installed package, in Xvfb"
qml_build=$build/qml-host-example
rm -rf "$qml_build"
cmake -S examples/qml-host -B "$qml_build" -G Ninja -DCMAKE_PREFIX_PATH="$stage" >/dev/null
cmake --build "$qml_build"
qml_host=$qml_build/zavocamera-qml-host-example
# Runs the QML host in its own X server; its output goes to $work/out, and
# the last line says when it exited and with what status.
run_qml_host() {
  HOME=$work LC_ALL=C.UTF-8 LANGUAGE= xvfb-run -a -s "-screen 0 1920x1080x24" env QT_QPA_PLATFORM=xcb \
    bash -c '"$@" | while IFS= read -r line; do echo "$(date +%s%3N) $line"; done
             echo "$(date +%s%3N) exited ${PIPESTATUS[0]}"' _ timeout 120 "$qml_host" "$@" | tee "$work/out"
}
run_qml_host "$root/tests/data/A_zoom_blur_dark.mp4"
grep -Eq '^[0-9]+ best shot [0-9]+\.[0-9]{2}$' "$work/out" || { echo "QML host: no best shot" >&2; exit 1; }
grep -Eq '^[0-9]+ video .+' "$work/out" || { echo "QML host: no video line" >&2; exit 1; }
grep -q ' exited 0$' "$work/out" || { echo "QML host: a best shot must exit 0" >&2; exit 1; }
# A clip without a face: only the window's closing ends the session.
run_qml_host --close-after-ms 1500 "$root/tests/data/E_no_face.mp4"
grep -q ' error The capture was cancelled\.$' "$work/out" || { echo "QML host: no canceled error" >&2; exit 1; }
grep -q ' exited 1$' "$work/out" || { echo "QML host: an error must exit 1" >&2; exit 1; }
closed=$(awk '/ error /{print $1; exit}' "$work/out")
exited=$(awk '/ exited /{print $1}' "$work/out")
echo "   closed to exit: $((exited - closed)) ms"
((exited - closed < 1000)) || { echo "QML host: took $((exited - closed)) ms to exit after its window closed" >&2; exit 1; }
