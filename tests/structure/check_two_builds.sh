#!/bin/sh
# check_two_builds.sh ROOT COMPILER CMAKE: the library has the same bytes in whatever folders its
# sources and its build are, and links to a device's libraries in place of the stand-in.
set -eu
root=$1
compiler=$2
cmake=$3
place=$(mktemp -d)
trap 'rm -rf "$place"' EXIT

fail() {
    echo "$1"
    exit 1
}

# configure TREE [ARGUMENT ...]
configure() {
    tree=$1
    shift
    "$cmake" -S "$tree" -B "$tree/out" -D CMAKE_CXX_COMPILER="$compiler" "$@" > "$place/log" 2>&1 ||
        fail "$(cat "$place/log")"
}

build() {
    "$cmake" --build "$1/out" -j 2 --target tdmbrec_component > "$place/log" 2>&1 ||
        fail "$(cat "$place/log")"
}

one=$place/one
two=$place/two/deeper
for tree in "$one" "$two"; do
    mkdir -p "$tree"
    (cd "$root" && cp -R CMakeLists.txt cmake packaging mp4mux aacenc journal recovery platform \
        component mp4read client "$tree")
    configure "$tree" -G Ninja -D CMAKE_BUILD_TYPE=RelWithDebInfo \
        -D TDMBREC_CLIENT=OFF -D TDMBREC_TESTS=OFF -D TDMBREC_BENCH=OFF
    build "$tree"
done
library=out/lib/libOMX.QVR.tdmbrec.so
stand_in=out/lib/libplatform_host.so
for file in "$library" "$stand_in"; do
    cmp "$one/$file" "$two/$file"
    ! grep -qF "$place" "$one/$file" || fail "$file names a folder of the machine that built it"
done

# A device's library, without a name of its own (soname), that defines the stand-in's symbols.
mkdir -p "$place/device/platform"
nm -D --defined-only "$one/$stand_in" | sed -n 's/.* T \(.*\)/void \1(void) {}/p' > "$place/device.c"
"$compiler" -shared -fPIC -x c "$place/device.c" -o "$place/device/libdevice.so"
configure "$two" -D "TDMBREC_PLATFORM_LIBRARIES=$place/device/libdevice.so"
build "$two"
needed=$(readelf -d "$two/$library" | grep -E 'NEEDED|RPATH|RUNPATH')
! echo "$needed" | grep -qE 'platform_host|RPATH|RUNPATH' || fail "$needed"
echo "$needed" | grep -qF '[libdevice.so]' || fail "$needed"
echo '#error "the header of the device"' > "$place/device/platform/storage_info.h"
configure "$two" -D "TDMBREC_PLATFORM_INCLUDE=$place/device"
(build "$two") | grep -q 'error.*the header of the device' || fail 'not the header of the device'
! "$cmake" --build "$two/out" --target platform_host > /dev/null 2>&1 || fail 'the stand-in is left'
