#!/bin/sh
# What is installed, or unpacked from the packages, can be built against, by
# pkg-config and by CMake, in C and in C++; the programs record a file each, and
# so does the command where it is there.
#     consumers_test.sh SOURCE BUILD
#     consumers_test.sh SOURCE BUILD/CPackConfig.cmake
#     consumers_test.sh SOURCE PACKAGE.deb...
set -eu
source=$1
shift
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
prefix=$work/usr
case $1 in
*.cmake)
    cpack --config "$1" -B "$work/packages" >"$work/log" 2>&1 || { cat "$work/log"; exit 1; }
    set -- "$work"/packages/*.deb
    ;;
esac
if [ -d "$1" ]; then
    cmake --install "$1" --prefix "$prefix" >"$work/log" || { cat "$work/log"; exit 1; }
else
    for package in "$@"; do dpkg -x "$package" "$work"; done
fi

libdir=$(dirname "$(find "$prefix" -name libmediafiles.so)")
for library in mediafiles mediafiles-recorder; do
    sed "s|^prefix=.*|prefix=$prefix|" "$libdir/pkgconfig/$library.pc" >"$work/$library.pc"
done
by_pkg_config() # LIBRARY EXAMPLE PROGRAM COMPILER...
{
    library=$1 example=$source/examples/$2 program=$work/$3
    shift 3
    # shellcheck disable=SC2046,SC2086
    "$@" "$example" -o "$program" $(PKG_CONFIG_PATH=$work pkg-config --cflags --libs "$library") -Wl,-rpath,"$libdir" \
        ${CONSUMER_FLAGS:-}
}
by_pkg_config mediafiles record.c by-pkg-config cc -std=c11
by_pkg_config mediafiles-recorder recover.c recover cc -std=c11
by_pkg_config mediafiles-recorder dashcam.c dashcam-c cc -std=c11
by_pkg_config mediafiles-recorder dashcam.cpp dashcam-cpp c++ -std=c++20

mkdir "$work/project"
cat >"$work/project/CMakeLists.txt" <<END
cmake_minimum_required(VERSION 3.25)
project(consumer C CXX)
find_package(mediafiles 0.1 REQUIRED COMPONENTS recorder)
foreach(library mediafiles mediafiles-static)
    add_executable(by-\${library} "$source/examples/record.c")
    target_link_libraries(by-\${library} PRIVATE mediafiles::\${library})
endforeach()
foreach(library mediafiles-recorder mediafiles-recorder-static)
    add_executable(by-\${library} "$source/examples/recover.c")
    add_executable(dashcam-c-\${library} "$source/examples/dashcam.c")
    add_executable(dashcam-cpp-\${library} "$source/examples/dashcam.cpp")
    target_compile_features(dashcam-cpp-\${library} PRIVATE cxx_std_20)
    foreach(program by dashcam-c dashcam-cpp)
        target_link_libraries(\${program}-\${library} PRIVATE mediafiles::\${library})
    endforeach()
endforeach()
END
cmake -S "$work/project" -B "$work/out" -DCMAKE_PREFIX_PATH="$prefix" -DCMAKE_C_FLAGS="${CONSUMER_FLAGS:-}" \
    -DCMAKE_CXX_FLAGS="${CONSUMER_FLAGS:-}" >"$work/log" || { cat "$work/log"; exit 1; }
cmake --build "$work/out" >"$work/log" || { cat "$work/log"; exit 1; }

stream=$source/testdata/h264_base_640x360_25
export LD_LIBRARY_PATH="$libdir"
if [ -x "$prefix/bin/mediafiles" ]; then
    "$prefix/bin/mediafiles" record "$stream.h264" -o "$work/command.mp4" --fps 25
    "$prefix/bin/mediafiles" inspect "$work/command.mp4" >"$work/inspected"
fi
if [ -e "$libdir/gstreamer-1.0/libgstmediafiles.so" ] && [ -z "${CONSUMER_FLAGS:-}" ]; then
    GST_PLUGIN_PATH=$libdir/gstreamer-1.0 GST_REGISTRY=$work/registry gst-inspect-1.0 mediafilessink >"$work/inspected"
    grep -q 'License *MIT' "$work/inspected"
fi
for program in "$work/by-pkg-config" "$work/out/by-mediafiles" "$work/out/by-mediafiles-static"; do
    "$program" "$work/clip.mp4" "$stream.h264" "$stream.units.tsv" 640 360
    if readelf -d "$program" | grep -q libstdc++; then
        echo "$program needs libstdc++" >&2
        exit 1
    fi
    test -s "$work/clip.mp4"
    cksum <"$work/clip.mp4"
    for recover in "$work/recover" "$work/out/by-mediafiles-recorder" "$work/out/by-mediafiles-recorder-static"; do
        "$recover" "$work/clip.mp4" >"$work/recovered"
        grep -q 'clip.mp4: finished$' "$work/recovered" || { cat "$work/recovered" >&2; exit 1; }
    done
    rm "$work/clip.mp4"
done >"$work/output"
grep -v sps "$work/output" | sort -u >"$work/sums"
cat "$work/sums"
test "$(wc -l <"$work/sums")" = 1

sound=$source/testdata/aac_lc_48000_2
for program in "$work"/dashcam-c* "$work"/out/dashcam-c*; do
    mkdir "$work/card"
    "$program" "$work/card" "$stream.h264" "$stream.units.tsv" "$sound.aac" "$sound.units.tsv" 1000 2>"$work/log"
    "$work/recover" "$work/card" >"$work/recovered"
    grep -q '00000001_.*mp4: finished$' "$work/recovered" || { cat "$work/log" "$work/recovered" >&2; exit 1; }
    rm -r "$work/card"
done
