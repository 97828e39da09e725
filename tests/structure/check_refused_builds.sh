#!/bin/sh
# check_refused_builds.sh ROOT COMPILER [FLAG ...]: a compilation that would change the bytes of a
# file, or for a machine whose threads cannot share a word, fails with a message that says so. Flags
# that the compiler does not have are left out.
set -eu
root=$1
shift
place=$(mktemp -d) # a compiler that counts lines leaves a file where it runs
trap 'rm -rf "$place"' EXIT
cd "$place"
status=0
tried=0

# refuse MESSAGE FILE FLAGS PROBE: the probe is a line that compiles where the flags have an effect.
refuse() {
    message=$1
    file=$2
    flags=$3
    probe=$4
    shift 4
    printf '#include <cstdint>\n%s\n' "$probe" |
        "$@" $flags -std=c++20 -x c++ -fsyntax-only - 2> /dev/null || return 0
    tried=$((tried + 1))
    said=$("$@" $flags -std=c++20 -I"$root" -fsyntax-only "$root/$file" 2>&1) || true
    if ! printf '%s\n' "$said" | grep -q "error.*$message"; then
        echo "$file was not refused with $flags"
        status=1
    fi
}

system_headers='-idirafter /usr/include/x86_64-linux-gnu'
for file in mp4mux/moov/movie_box.cpp mp4mux/moov/sample_table.cpp; do
    refuse 'build without -Ofast' $file -Ofast '' "$@"
    refuse 'build without -Ofast' $file '-O2 -ffast-math' '' "$@"
    refuse 'not x87' $file "-m32 -mno-sse $system_headers" '' "$@"
done
refuse 'little-endian' mp4mux/box_writer.h '-mbig-endian -x c++' \
    'static_assert(__BYTE_ORDER__ == __ORDER_BIG_ENDIAN__);' "$@"
refuse 'atomic 64-bit words' component/frame_fifo.cpp "-m32 -march=i386 $system_headers" \
    'static_assert(!__atomic_always_lock_free(8, nullptr));' "$@"
if [ "$tried" -lt 4 ]; then
    echo "$* has hardly any of the flags"
    status=1
fi
exit $status
