#!/bin/sh
# Builds the recorder with each compiler of Debian 12, with warnings as errors, and checks that all
# of them make the same recording, byte for byte. Also compiles it against the standard library of
# other toolchains.
#
#   sh scripts/check_compilers.sh [COMPILER ...]
set -eu
cd "$(dirname "$0")/.."
case ${1:-} in
-h | --help)
    sed -n 's/^#   *//p' scripts/check_compilers.sh
    exit 0
    ;;
esac

for compiler in ${*:-g++-12 clang++-14 clang++-16 clang++-19}; do
    echo "$compiler"
    folder=build/compilers/$compiler
    cmake --fresh --preset release -B "$folder" -D CMAKE_CXX_COMPILER="$compiler" \
        -D TDMBREC_WARNINGS_AS_ERRORS=ON -D TDMBREC_CLIENT=OFF -D TDMBREC_BENCH=OFF > /dev/null
    cmake --build "$folder" -j "$(nproc)" --target test_e2e -- --quiet
    ctest --test-dir "$folder" -R '^Streams.TheSampleIsRecordedBitForBitAndPlays$' \
        --output-on-failure --no-tests=error > "$folder/log" || {
        cat "$folder/log"
        exit 1
    }
done

echo "clang++-14 with its own standard library"
for source in mp4mux/*.cpp mp4mux/moov/*.cpp aacenc/*.cpp journal/*.cpp recovery/*.cpp component/*.cpp \
    platform/host/*.cpp; do
    clang++-14 -std=c++20 -stdlib=libc++ -fno-exceptions -fno-rtti -fsyntax-only -I. "$source"
done
