#!/bin/sh
# The same streams give the same bytes whatever the processor: every build
# records them, whole and killed on the way by the limit of a file's size, and
# repairs what the build before it left. All files are those of the first build,
# which must be the host's; under COMMAND run the others for the host.
#     [UNDER=COMMAND] exchange_test.sh STREAMS BUILD BUILD...
set -eu
streams=$1
shift
[ $# -ge 2 ] || exit 2 # one alone would be compared with itself
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
# shellcheck disable=SC3045
ulimit -c 0

# Runs a program under the emulator that its processor needs; after the first build, under what is asked for.
# shellcheck disable=SC2086
run() {
    case $(readelf -h "$1" 2>/dev/null | sed -n 's/ *Machine: *//p') in
    ARM) set -- qemu-arm -L /usr/arm-linux-gnueabihf "$@" ;;
    AArch64) set -- qemu-aarch64 -L /usr/aarch64-linux-gnu "$@" ;;
    *) [ "$n" = 1 ] || set -- ${UNDER:-} "$@" ;;
    esac
    timeout 60 "$@"
}

# record_all BUILD DIRECTORY: each whole, and ended by SIGXFSZ, so many blocks of 512 bytes into the file
record_all() {
    mkdir "$2"
    for blocks in 150 320 unlimited; do
        [ $blocks = unlimited ] && expected=0 || expected=153
        while read -r name video width height audio format; do
            # shellcheck disable=SC2086
            (ulimit -f $blocks && run "$1/examples/example-record" "$2/$name-$blocks.mp4" "$video" "${video%.*}.units.tsv" \
                "$width" "$height" "$audio" "${audio%.*}.units.tsv" $format) >"$work/output" 2>&1 && status=0 || status=$?
            if [ "$status" != "$expected" ] || grep '^==[0-9]*==' "$work/output"; then # a line of valgrind's
                echo "$1: $name, at most $blocks blocks: status $status instead of $expected" && exit 1
            fi
        done <<END
h264 $streams/h264_base_640x360_25.h264 640 360 $streams/aac_lc_48000_2.aac 2 48000
h265 $streams/h265_cra_2slices_640x360_30.h265 640 360 $streams/aac_voaac_44100_2.aac 2 44100
END
    done
}

first=$1
n=0
for build in "$@"; do
    n=$((n + 1))
    record_all "$build" "$work/$n"
    diff -rq "$work/1" "$work/$n"
done
left=$n
n=0
for build in "$@"; do
    n=$((n + 1))
    cp -r "$work/$left" "$work/repaired-$n" # what the build before it left; for the first, the last one's
    left=$n
    recover=$(realpath "$build/examples/example-recover")
    (cd "$work/repaired-$n" && run "$recover" .) >"$work/unsorted"
    sort "$work/unsorted" >"$work/output-$n" # a directory has no order
    cmp "$work/output-1" "$work/output-$n"
    diff -rq "$work/repaired-1" "$work/repaired-$n"
done
"$first/tests/check-mp4" "$work"/repaired-1/*.mp4 >/dev/null
files=$(find "$work/1" "$work/repaired-1" -type f | wc -l)
echo "$n builds, $files files each, $(cat "$work"/1/* "$work"/repaired-1/* | wc -c) bytes: the same"
