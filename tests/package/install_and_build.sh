#!/usr/bin/env bash
# Installs a built tree into a temporary prefix, builds examples/minimal.cpp against it out of
# tree, once with CMake (find_package) and once with pkg-config, and plays a 2-s stream from a
# loopback origin (the installed `ovalto serve`) with each.
#   tests/package/install_and_build.sh BUILD_DIR SOURCE_DIR
set -euo pipefail
build=$(cd "$1" && pwd)
source=$(cd "$2" && pwd)
work=$(mktemp -d)
serve_pid=""
cleanup() {
    [ -n "$serve_pid" ] && kill "$serve_pid" 2>/dev/null || true
    rm -rf "$work"
}
trap cleanup EXIT
fail() { echo "package test: $*" >&2; exit 1; }

prefix=$work/prefix
cmake --install "$build" --prefix "$prefix" >/dev/null
example=$prefix/share/ovalto/examples/minimal.cpp
for f in lib/libovalto.a include/Ovalto/ovalto/Ovalto.h include/Ovalto/ovalto/Bridge.h \
    include/Ovalto/platform/Url.h bin/ovalto lib/cmake/Ovalto/OvaltoConfig.cmake \
    lib/cmake/Ovalto/OvaltoConfigVersion.cmake lib/pkgconfig/ovalto.pc; do
    [ -e "$prefix/$f" ] || fail "$f was not installed"
done

mkdir -p "$work/cmake"
cat >"$work/cmake/CMakeLists.txt" <<CMAKE
cmake_minimum_required(VERSION 3.25)
project(minimal CXX)
find_package(Ovalto 1.0 REQUIRED)
add_executable(minimal $example)
target_link_libraries(minimal PRIVATE Ovalto::ovalto)
CMAKE
cmake -S "$work/cmake" -B "$work/cmake/build" -G Ninja -DCMAKE_PREFIX_PATH="$prefix" \
    -DCMAKE_BUILD_TYPE=Release >/dev/null || fail "find_package(Ovalto 1.0) failed"
cmake --build "$work/cmake/build" >/dev/null || fail "the CMake build of the example failed"
# A version the package does not promise is refused.
sed -i 's/Ovalto 1.0 REQUIRED/Ovalto 2.0 REQUIRED/' "$work/cmake/CMakeLists.txt"
if cmake -S "$work/cmake" -B "$work/cmake/build2" -G Ninja -DCMAKE_PREFIX_PATH="$prefix" >/dev/null 2>&1; then
    fail "find_package(Ovalto 2.0) was accepted"
fi

export PKG_CONFIG_PATH=$prefix/lib/pkgconfig
# shellcheck disable=SC2046
c++ -O1 "$example" $(pkg-config --cflags --libs ovalto) -o "$work/minimal-pc" || fail "the pkg-config build failed"

# One 2-s rendition of the sample, served by the installed tool.
clip=$work/clip
mkdir -p "$clip"
cp "$source/samples/sample/video/low/init.mp4" "$source/samples/sample/video/low/seg0.m4s" "$clip/"
printf '#EXTM3U\n#EXT-X-VERSION:7\n#EXT-X-TARGETDURATION:2\n#EXT-X-MEDIA-SEQUENCE:0\n#EXT-X-PLAYLIST-TYPE:VOD\n#EXT-X-MAP:URI="init.mp4"\n#EXTINF:2.0,\nseg0.m4s\n#EXT-X-ENDLIST\n' >"$clip/media.m3u8"
"$prefix/bin/ovalto" serve "$clip" >"$work/serve.log" 2>&1 &
serve_pid=$!
url=""
for _ in $(seq 100); do
    url=$(grep -o 'http://127.0.0.1:[0-9]*/' "$work/serve.log" | head -1 || true)
    [ -n "$url" ] && break
    sleep 0.1
done
[ -n "$url" ] || fail "ovalto serve did not start: $(cat "$work/serve.log")"

for program in "$work/cmake/build/minimal" "$work/minimal-pc"; do
    out=$(timeout 60 "$program" "${url}media.m3u8") || fail "$program failed: $out"
    case $out in
    "played 2"* | "played 1.9"*) ;;
    *) fail "$program did not play the clip: $out" ;;
    esac
done
echo "package test: installed, built with CMake and pkg-config, played"
