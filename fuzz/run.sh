#!/bin/sh
# Runs every harness on its corpus for some seconds. New inputs go to build/fuzz/corpus, what breaks
# a promise to build/fuzz, with the log.
#
#   sh fuzz/run.sh SECONDS [HARNESS ...]
set -eu
cd "$(dirname "$0")/.."
seconds=$1
shift
cmake --preset fuzz -D TDMBREC_WARNINGS_AS_ERRORS=ON > /dev/null
cmake --build --preset fuzz -- --quiet
all="fuzz_aacenc fuzz_access_unit fuzz_bitstream fuzz_frame_fifo fuzz_mp4_reader fuzz_mp4mux
    fuzz_mux_helpers fuzz_recording"
for name in ${*:-$all}; do
    log=build/fuzz/$name.log
    mkdir -p "build/fuzz/corpus/$name"
    "build/fuzz/bin/$name" -max_total_time="$seconds" -max_len=8192 -artifact_prefix="build/fuzz/$name-" \
        "build/fuzz/corpus/$name" "fuzz/corpus/$name" > /dev/null 2> "$log" || {
        tail -n 50 "$log"
        exit 1
    }
    echo "$name: $(tail -n 1 "$log")"
done
