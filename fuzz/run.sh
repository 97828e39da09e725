#!/bin/sh
# Runs every harness on its corpus for some seconds, one per processor at a time. New inputs go to
# build/fuzz/corpus, failing inputs and the logs to build/fuzz.
#
#   sh fuzz/run.sh SECONDS [HARNESS ...]
set -eu
cd "$(dirname "$0")/.."
case ${1:-} in
'' | *[!0-9]*)
    sed -n 's/^#   //p' fuzz/run.sh >&2
    exit 2
    ;;
esac
seconds=$1
shift
cmake --fresh --preset fuzz -D TDMBREC_WARNINGS_AS_ERRORS=ON > /dev/null
cmake --build --preset fuzz -- --quiet
[ $# -gt 0 ] || set -- $(basename -s .cpp fuzz/fuzz_*.cpp)

# One harness, in its own shell.
run='
    log=build/fuzz/$1.log
    mkdir -p "build/fuzz/corpus/$1"
    "build/fuzz/bin/$1" -max_total_time="$0" -max_len=8192 \
        -artifact_prefix="build/fuzz/$1-" "build/fuzz/corpus/$1" "fuzz/corpus/$1" \
        > /dev/null 2> "$log" || {
        tail -n 50 "$log"
        exit 1
    }
    echo "$1: $(tail -n 1 "$log")"'
printf "%s\n" "$@" | xargs -n 1 -P "$(nproc)" sh -c "$run" "$seconds"
