#!/bin/sh
# Installs what is needed, builds the recorder in every way and runs all tests.
#
#   sh scripts/check.sh             everything
#   sh scripts/check.sh STEP ...    some of: format bench fuzz 32bit arm asan-ubsan tsan clang
#                                   release
set -eu
cd "$(dirname "$0")/.."
steps=${*:-format bench fuzz 32bit arm asan-ubsan tsan clang release}
jobs=$(nproc)

# build PRESET FOLDER [CMAKE-ARGUMENT ...]
build() {
    preset=$1
    folder=$2
    shift 2
    cmake --preset "$preset" -B "build/$folder" -D TDMBREC_WARNINGS_AS_ERRORS=ON "$@" > /dev/null
    cmake --build "build/$folder" -j "$jobs" -- --quiet
}

test_all() {
    ctest --test-dir "build/$1" -j "$jobs" --output-on-failure --progress --no-tests=error
}

sources() {
    git ls-files '*.cpp' '*.h'
}

sh scripts/install_dependencies.sh tests
for step in $steps; do
    echo "== $step"
    case $step in
    format)
        sources | xargs clang-format --dry-run --Werror
        if git grep -nIE '[[:space:]]+$' -- . ':!*.csv'; then
            exit 1
        fi
        ;;
    release)
        build release release
        test_all release
        ;;
    clang)
        build release clang -D CMAKE_CXX_COMPILER=clang++
        test_all clang
        ;;
    32bit | arm | asan-ubsan | tsan)
        build "$step" "$step"
        test_all "$step"
        ;;
    bench)
        build release release
        for program in build/release/bin/bench_*; do
            "$program" --benchmark_min_time=0.01
        done
        ;;
    fuzz)
        sh fuzz/run.sh 4
        ;;
    *)
        echo "unknown step: $step" >&2
        exit 2
        ;;
    esac
done
