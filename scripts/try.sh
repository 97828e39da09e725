#!/bin/sh
# Installs the packages, builds the recorder, records the sample programme and shows the result as
# ffprobe sees it.
#
#   sh scripts/try.sh [CMAKE-ARGUMENT ...]
set -eu
cd "$(dirname "$0")/.."
case ${1:-} in
-h | --help)
    sed -n 's/^#   *//p' scripts/try.sh
    exit 0
    ;;
esac

sh scripts/require_storage.sh command
sh scripts/install_dependencies.sh
# A folder in which scripts/check.sh has built the tests keeps them.
tests=OFF
if grep -qs '^TDMBREC_TESTS:BOOL=ON$' build/release/CMakeCache.txt &&
    [ -z "$(sh scripts/install_dependencies.sh --missing tests)" ]; then
    tests=ON
fi
cmake --fresh --preset release -D TDMBREC_WARNINGS_AS_ERRORS=$tests -D TDMBREC_TESTS=$tests \
    -D TDMBREC_BENCH=$tests "$@"
cmake --build build/release --target tdmbrec tdmbrec_component
if [ ! -e /proc/self/exe ]; then # without it the loader misses the libraries beside a program
    export LD_LIBRARY_PATH="$PWD/build/release/lib"
fi
build/release/bin/tdmbrec record --force --output programme.mp4 \
    --video samples/programme.h264 --audio samples/programme.wav
ffprobe -v warning -show_entries \
    format=filename,duration,size:stream=codec_name,profile,width,height,sample_rate,channels,nb_frames \
    -of compact programme.mp4
