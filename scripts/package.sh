#!/usr/bin/env bash
# Release check on an already built tree (scripts/setup.sh first):
#  - API documentation (build/docs/html),
#  - install into a staging prefix and the Debian packages (build/*.deb),
#  - the example host project built against the staged package, outside the
#    tree, and run for one session on a sample clip played as its camera.
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
rm -f "$build"/*.deb "$build"/*.ddeb
(cd "$build" && cpack -G DEB >/dev/null)
for deb in "$build"/*.deb; do
  echo "   $deb"
  dpkg-deb --field "$deb" Depends | sed 's/^/     Depends: /'
done

echo "== example host against the installed package"
host_build=$build/host-example
rm -rf "$host_build"
cmake -S examples/host -B "$host_build" -G Ninja -DCMAKE_PREFIX_PATH="$stage" >/dev/null
cmake --build "$host_build"
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
# A private HOME keeps the session video out of the user's Documents.
HOME=$work QT_QPA_PLATFORM=offscreen timeout 120 \
  "$host_build/zavocamera-host-example" "$root/tests/data/A_zoom_blur_dark.mp4"
