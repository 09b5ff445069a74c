#!/usr/bin/env bash
# Release check on an already built tree (scripts/setup.sh first):
#  - API documentation (build/docs/html),
#  - install into a staging prefix, and the Debian packages (build/*.deb,
#    build/*.ddeb), each checked for what it holds and what it depends on,
#  - a pkg-config host and a CMake host that sets no C++ standard built
#    against the installed files and the unpacked packages,
#  - the example host project built against the staged package, outside the
#    tree, and run for one session on a sample clip played as its camera;
#  - the QML example host the same way, in Xvfb: once to a best shot, once
#    closed by its window after 1.5 s, which must end it within a second.
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
  # QML plug-ins are modules loaded by name, not libraries to link.
  if contents "$deb" | grep '^usr/lib/.*\.so$' | grep -v '/qt6/qml/' >/dev/null; then
    fail "$package: holds an unversioned .so link"
  fi
  if has "$deb" '\.pc$\|/cmake/'; then fail "$package: holds files for building hosts"; fi
done
has "$runtime" "^usr/lib/$multiarch/libZavoCamera\.so\.0\$" || fail "runtime: no libZavoCamera.so.0 in usr/lib/$multiarch"
# The QML module where Debian's Qt looks for modules, with the library it loads.
for file in qmldir ZavoCameraQuick.qmltypes libZavoCameraQuickplugin.so; do
  has "$runtime" "^usr/lib/$multiarch/qt6/qml/ZavoCamera/$file\$" || fail "runtime: no QML module file $file"
done
has "$runtime" "^usr/lib/$multiarch/libZavoCameraQuick\.so\.0\$" || fail "runtime: no libZavoCameraQuick.so.0"
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
grep -Eq '^[0-9]+ best shot [0-9]+\.[0-9]{2}$' "$work/out" || fail "QML host: no best shot"
grep -Eq '^[0-9]+ video .+' "$work/out" || fail "QML host: no video line"
grep -q ' exited 0$' "$work/out" || fail "QML host: a best shot must exit 0"
# A clip without a face: only the window's closing ends the session.
run_qml_host --close-after-ms 1500 "$root/tests/data/E_no_face.mp4"
grep -q ' error The capture was cancelled\.$' "$work/out" || fail "QML host: no canceled error"
grep -q ' exited 1$' "$work/out" || fail "QML host: an error must exit 1"
closed=$(awk '/ error /{print $1; exit}' "$work/out")
exited=$(awk '/ exited /{print $1}' "$work/out")
echo "   closed to exit: $((exited - closed)) ms"
((exited - closed < 1000)) || fail "QML host: took $((exited - closed)) ms to exit after its window closed"
((failures == 0)) || exit 1
