#!/bin/sh
# What is installed can be built against, by pkg-config and by CMake, and the
# programs record a file.
#     consumers_test.sh BUILD SOURCE
set -eu
build=$1 source=$2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
prefix=$work/usr
cmake --install "$build" --prefix "$prefix" >"$work/log" || { cat "$work/log"; exit 1; }

libdir=$(dirname "$(find "$prefix" -name libmediafiles.so)")
sed "s|^prefix=.*|prefix=$prefix|" "$libdir/pkgconfig/mediafiles.pc" >"$work/mediafiles.pc"
# shellcheck disable=SC2046
cc -std=c11 "$source/examples/record.c" -o "$work/by-pkg-config" \
    $(PKG_CONFIG_PATH=$work pkg-config --cflags --libs mediafiles) -Wl,-rpath,"$libdir" ${CONSUMER_FLAGS:-}

mkdir "$work/project"
cat >"$work/project/CMakeLists.txt" <<END
cmake_minimum_required(VERSION 3.25)
project(consumer C)
find_package(mediafiles 0.1 REQUIRED)
foreach(library mediafiles mediafiles-static)
    add_executable(by-\${library} "$source/examples/record.c")
    target_link_libraries(by-\${library} PRIVATE mediafiles::\${library})
endforeach()
END
cmake -S "$work/project" -B "$work/out" -DCMAKE_PREFIX_PATH="$prefix" -DCMAKE_C_FLAGS="${CONSUMER_FLAGS:-}" >"$work/log" &&
    cmake --build "$work/out" >"$work/log" || { cat "$work/log"; exit 1; }

stream=$source/testdata/h264_base_640x360_25
for program in "$work/by-pkg-config" "$work/out/by-mediafiles" "$work/out/by-mediafiles-static"; do
    "$program" "$work/clip.mp4" "$stream.h264" "$stream.units.tsv" 640 360
    if readelf -d "$program" | grep -q libstdc++; then
        echo "$program needs libstdc++"
        exit 1
    fi
    test -s "$work/clip.mp4"
    cksum <"$work/clip.mp4"
    rm "$work/clip.mp4"
done | grep -v sps | sort -u >"$work/sums"
cat "$work/sums"
test "$(wc -l <"$work/sums")" = 1
