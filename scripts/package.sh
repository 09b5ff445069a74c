#!/usr/bin/env bash
# Release check on an already built tree (scripts/setup.sh first):
#  - API documentation (build/docs/html),
#  - install into a staging prefix, and the Debian packages (build/*.deb,
#    build/*.ddeb), each checked for what it holds and what it depends on,
#  - a pkg-config host and a CMake host that sets no C++ standard built
#    against the installed files and the unpacked packages,
#  - the example host project built against the staged package, outside the
#    tree, and run for one session on a sample clip played as its camera.
set -euo pipefail
cd "$(dirname "$0")/.."
root=$PWD
build=$root/build
stage=$build/stage
multiarch=$(dpkg-architecture -qDEB_HOST_MULTIARCH)
version=$(sed -n 's/^CMAKE_PROJECT_VERSION:STATIC=//p' "$build/CMakeCache.txt")
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

failures=0
fail() { echo "   FAILED: $*" >&2; failures=$((failures + 1)); }

echo "== API documentation"
cmake --build "$build" --target docs
echo "   $build/docs/html/index.html ($(wc -l < "$build/docs/warnings.log") warning lines)"

echo "== install and package"
rm -rf "$stage"
cmake --install "$build" --prefix "$stage" >/dev/null
rm -f "$build"/*.deb "$build"/*.ddeb
(cd "$build" && cpack -G DEB >/dev/null)
arch=$(dpkg --print-architecture)
runtime=$build/libzavocamera0_${version}_$arch.deb
dev=$build/libzavocamera-dev_${version}_$arch.deb
tools=$build/zavocamera-tools_${version}_$arch.deb
for deb in "$runtime" "$dev" "$tools" \
    "$build/libzavocamera0-dbgsym_${version}_$arch.ddeb" "$build/zavocamera-tools-dbgsym_${version}_$arch.ddeb"; do
  [ -f "$deb" ] || fail "no package $(basename "$deb")"
done
((failures == 0)) || exit 1
ls "$build"/*.deb "$build"/*.ddeb | sed 's/^/   /'

echo "== package contents"
# Paths as dpkg-deb lists them, without the leading "./". No grep -q after a
# pipe here: it stops reading at the first match, the writer dies of SIGPIPE
# and pipefail turns the match into a failure.
contents() { dpkg-deb -c "$1" | awk '{print $6}' | sed 's|^\./||'; }
has() { contents "$1" | grep -e "$2" >/dev/null; }
field() { dpkg-deb -f "$1" "$2"; }
for deb in "$runtime" "$dev" "$tools"; do
  package=$(field "$deb" Package)
  has "$deb" "^usr/share/doc/$package/copyright\$" || fail "$package: no usr/share/doc/$package/copyright"
  [ "$deb" = "$dev" ] && continue
  if has "$deb" '^usr/include/'; then fail "$package: holds headers"; fi
  if has "$deb" '^usr/lib/.*\.so$'; then fail "$package: holds an unversioned .so link"; fi
  if has "$deb" '\.pc$\|/cmake/'; then fail "$package: holds files for building hosts"; fi
done
has "$runtime" "^usr/lib/$multiarch/libZavoCamera\.so\.0\$" || fail "runtime: no libZavoCamera.so.0 in usr/lib/$multiarch"
if contents "$runtime" | grep '\.so\.' | grep -v "^usr/lib/$multiarch/" >/dev/null; then
  fail "runtime: a library outside usr/lib/$multiarch"
fi
if has "$runtime" '^usr/share/zavocamera/models/.*\.onnx$'; then
  has "$runtime" '^usr/share/zavocamera/models/LICENSE$' || fail "runtime: the face network without its licence"
fi
has "$dev" '^usr/include/ZavoCamera/camera-screen/ZMCameraBuilder\.h$' || fail "-dev: no headers"
has "$dev" "^usr/lib/$multiarch/pkgconfig/zavocamera\.pc\$" || fail "-dev: no usr/lib/$multiarch/pkgconfig/zavocamera.pc"
has "$dev" "^usr/lib/$multiarch/cmake/ZavoCamera/ZavoCameraConfig\.cmake\$" || fail "-dev: no CMake package"
# Built against one exact build of the libraries, and saying so.
for deb in "$dev" "$tools"; do
  [[ $(field "$deb" Depends) == *"libzavocamera0 (= $version)"* ]] \
    || fail "$(field "$deb" Package): does not depend on libzavocamera0 (= $version)"
done
[[ $(dpkg-deb -I "$runtime" shlibs) == *"libZavoCamera 0 libzavocamera0 "* ]] || fail "runtime: no shlibs entry for libZavoCamera"

echo "== unpacked packages"
unpacked=$work/root
for deb in "$runtime" "$dev" "$tools" "$build"/*-dbgsym_*.ddeb; do dpkg-deb -x "$deb" "$unpacked"; done
pc=$unpacked/usr/lib/$multiarch/pkgconfig/zavocamera.pc
sed -n 's/^/   /; /^   \(prefix\|libdir\|includedir\)=/p' "$pc"
pcvar() { PKG_CONFIG_PATH=$(dirname "$pc") pkg-config --variable="$1" zavocamera; }
[ "$(pcvar prefix)" = /usr ] || fail "zavocamera.pc: prefix is $(pcvar prefix), not /usr"
[ "$(pcvar libdir)" = "/usr/lib/$multiarch" ] || fail "zavocamera.pc: libdir is $(pcvar libdir), not /usr/lib/$multiarch"
# Every library the file names is there once the packages are installed,
# and so is the include folder (the .so links come from -dev, their targets
# from the runtime package).
[ -f "$unpacked$(pcvar includedir)/ZavoCamera/camera-screen/ZMCameraBuilder.h" ] || fail "zavocamera.pc: includedir $(pcvar includedir) has no headers"
for lib in $(sed -n 's/^Libs: //p' "$pc" | tr ' ' '\n' | sed -n 's/^-l//p'); do
  [ -e "$unpacked$(pcvar libdir)/lib$lib.so" ] || fail "zavocamera.pc: -l$lib not in $(pcvar libdir)"
done
# zavocore finds the face network by a path from its own folder (a UTF-16
# string in the library).
network=$(strings -el "$unpacked/usr/lib/$multiarch/libzavocore.so.0" | grep '^\.\..*/share/zavocamera/models/.*\.onnx$' || true)
network=${network%%$'\n'*}
if [ -z "$network" ]; then
  fail "libzavocore: no path to its face network"
elif [ -f "$unpacked/usr/share/zavocamera/models/$(basename "$network")" ]; then
  [ -f "$unpacked/usr/lib/$multiarch/$network" ] || fail "libzavocore looks for its network at $network from its folder: not there"
fi
# Shipped binaries are stripped; their debug sections are in -dbgsym, by build ID.
for elf in "$unpacked"/usr/lib/"$multiarch"/*.so.*.*.* "$unpacked"/usr/bin/*; do
  name=${elf#"$unpacked"/}
  if readelf -S "$elf" | grep '\.debug_info' >/dev/null; then fail "$name: ships .debug_info"; fi
  id=$(readelf -n "$elf" | sed -n 's/.*Build ID: //p')
  debug=$unpacked/usr/lib/debug/.build-id/${id:0:2}/${id:2}.debug
  [ -f "$debug" ] && readelf -S "$debug" 2>/dev/null | grep '\.debug_info' >/dev/null || fail "$name: no debug symbols in a -dbgsym package"
done
((failures == 0)) || exit 1
echo "   stripped, with debug symbols by build ID"

echo "== pkg-config host against the staged install"
export PKG_CONFIG_PATH=$stage/lib/$multiarch/pkgconfig
pkg-config --cflags --libs zavocamera | sed 's/^/   /'
[ "$(pkg-config --variable=prefix zavocamera)" = "$stage" ] || fail "staged zavocamera.pc: prefix is not $stage"
g++ -std=c++20 tests/package/host.cpp $(pkg-config --cflags --libs zavocamera) -o "$work/pkgconfig-host"
LD_LIBRARY_PATH=$stage/lib/$multiarch QT_QPA_PLATFORM=offscreen "$work/pkgconfig-host" | sed 's/^/   /'
# Without C++20 the headers stop at one line saying so.
if g++ -std=c++17 -fsyntax-only tests/package/host.cpp $(pkg-config --cflags zavocamera) 2>"$work/cxx17.log"; then
  fail "the public headers compiled as C++17"
else
  first=$(grep -m1 'error' "$work/cxx17.log")
  [[ $first == *"#error \"ZavoCamera's headers need C++20"* ]] || fail "C++17 build: the first error is not the C++20 notice: $first"
fi
unset PKG_CONFIG_PATH

echo "== CMake host without a C++ standard against the unpacked packages"
cmake -S tests/package/cmake-host -B "$work/cmake-host" -G Ninja \
  -DZavoCamera_DIR="$unpacked/usr/lib/$multiarch/cmake/ZavoCamera" >/dev/null
cmake --build "$work/cmake-host" >/dev/null
QT_QPA_PLATFORM=offscreen "$work/cmake-host/zavocamera-cmake-host" | sed 's/^/   /'
((failures == 0)) || exit 1

echo "== example host against the installed package"
host_build=$build/host-example
rm -rf "$host_build"
cmake -S examples/host -B "$host_build" -G Ninja -DCMAKE_PREFIX_PATH="$stage" >/dev/null
cmake --build "$host_build"
# A private HOME keeps the session video out of the user's Documents; the
# session example writes its face and video into its working folder.
mkdir "$work/home"
(cd "$work/home" && HOME=$work/home QT_QPA_PLATFORM=offscreen timeout 120 \
  "$host_build/zavocamera-host-example" "$root/tests/data/A_zoom_blur_dark.mp4")
test -s "$work/home/face.png" && ls "$work"/home/videos/zavocamera-session.mp4 >/dev/null
HOME=$work/home QT_QPA_PLATFORM=offscreen timeout 120 \
  "$host_build/zavocamera-host-builder-example" "$root/tests/data/A_zoom_blur_dark.mp4"
