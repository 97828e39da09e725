#!/bin/sh
# Installs the packages, builds the recorder in every way and runs all tests.
#
#   sh scripts/check.sh             everything
#   sh scripts/check.sh STEP ...    some of: format tidy try packages spin bench fuzz compilers
#                                   coverage 32bit arm asan-ubsan tsan clang release
set -eu
cd "$(dirname "$0")/.."
case ${1:-} in
-*)
    sed -n 's/^#   *//p' scripts/check.sh
    exit 0
    ;;
esac
all='format tidy try packages spin bench fuzz compilers coverage 32bit arm asan-ubsan tsan clang'
all="$all release"
steps=${*:-$all}
jobs=$(nproc)
not_checked_out='the step format needs git and a folder that git has checked out'

# fail SENTENCE
fail() {
    echo "check.sh: $1" >&2
    exit 1
}

# build PRESET FOLDER [CMAKE-ARGUMENT ...]: configures build/FOLDER with these options only,
# whatever its earlier configuration, and builds it.
build() {
    preset=$1
    folder=$2
    shift 2
    cmake --fresh --preset "$preset" -B "build/$folder" -D TDMBREC_WARNINGS_AS_ERRORS=ON "$@" \
        > /dev/null
    cmake --build "build/$folder" -j "$jobs" -- --quiet
}

# may_skip STEP: prints the names of the tests that the step may skip, one per line.
may_skip() {
    case $1 in
    asan-ubsan | tsan) # their own allocator takes the place of the one that is counted
        echo ManyRecordings.AllocateNothingPerFrame
        ;;
    esac
}

# test_all FOLDER: runs all tests. A skipped test that may_skip does not name is a failure too.
test_all() {
    report=$PWD/build/$1/tests.xml
    rm -f "$report"
    ctest --test-dir "build/$1" -j "$jobs" --output-on-failure --progress --no-tests=error \
        --output-junit "$report"
    [ -s "$report" ] || fail "the step $1 left no report of its tests"
    may_skip "$1" > "build/$1/may_skip"
    skipped=$(sed -n 's/.*<testcase name="\([^"]*\)".* status="\(notrun\|disabled\)".*/\1/p' \
        "$report" | grep -vxFf "build/$1/may_skip") || return 0
    fail "skipped in the step $1, which does not allow it: $(echo $skipped)"
}

check_format() {
    sources=$(git ls-files '*.cpp' '*.h') || fail "$not_checked_out"
    echo "$sources" | xargs clang-format-19 --dry-run --Werror
    if git grep -nIE '[[:space:]]+$' -- . ':!*.csv'; then
        fail 'blanks at the end of a line'
    fi
    if git grep -nE '^TEST(_[FP])?\((.*_|[a-z]|\w+, *[a-z])' -- tests; then
        fail 'not the name of a test as Subject.StatesABehaviour'
    fi
    for header in $(git ls-files '*.h'); do
        end="#endif // $(echo "$header" | tr 'a-z/.' 'A-Z__')"
        [ "$(tail -n 1 "$header")" = "$end" ] || fail "$header does not end in: $end"
    done
}

# What .clang-tidy names, in every unit that a build for the desk compiles.
check_tidy() {
    cmake --fresh --preset dev -B build/tidy -D CMAKE_CXX_COMPILER=clang++-19 > /dev/null
    run-clang-tidy-19 -quiet -p build/tidy -j "$jobs" '\.cpp$' > build/tidy/report 2>&1 || {
        grep -E '(warning|error):' build/tidy/report | sort -u >&2
        fail 'clang-tidy has complaints'
    }
}

# Runs the README's first command and looks for the end of its output in the README.
check_try() {
    mkdir -p build
    if ! sh scripts/try.sh -D TDMBREC_WARNINGS_AS_ERRORS=ON > build/try.log; then
        tail -n 50 build/try.log >&2
        fail 'scripts/try.sh has failed'
    fi
    tail -n 3 build/try.log | while IFS= read -r line; do
        grep -qxF -e "$line" README.md || fail "this line is not in the README: $line"
    done
}

run_step() {
    case $1 in
    format)
        check_format
        ;;
    tidy)
        check_tidy
        ;;
    try)
        check_try
        ;;
    packages)
        sh scripts/check_packages.sh
        ;;
    spin)
        sh docs/models/check.sh
        ;;
    compilers) # the steps clang and release cover the other two
        sh scripts/check_compilers.sh clang++-16 clang++-19
        ;;
    clang)
        build release clang -D CMAKE_CXX_COMPILER=clang++
        test_all clang
        ;;
    coverage | 32bit | arm | asan-ubsan | tsan | release)
        build "$1" "$1"
        test_all "$1"
        ;;
    bench)
        build release release
        for program in build/release/bin/bench_*; do
            "$program" --benchmark_min_time=0.01 --benchmark_out=build/release/bench.json
            # A failed benchmark does not make its program fail.
            ! grep -B 9 '"error_occurred": true' build/release/bench.json >&2 ||
                fail 'a benchmark has failed'
        done
        ;;
    fuzz)
        sh fuzz/run.sh 15
        ;;
    esac
}

for step in $steps; do
    case " $all " in
    *" $step "*) ;;
    *)
        echo "check.sh: unknown step: $step; the steps are: $all" >&2
        exit 2
        ;;
    esac
done
for step in $steps; do
    case $step in
    spin | fuzz) ;;
    format) [ -e .git ] || fail "$not_checked_out" ;;
    try | packages) sh scripts/require_storage.sh command ;;
    *) sh scripts/require_storage.sh tests ;;
    esac
done
missing=$(sh scripts/install_dependencies.sh --missing tests)
echo "The steps are: $steps."
if [ -n "$missing" ]; then
    echo "First these Debian packages and their dependencies are installed, in about 5 minutes: $missing"
fi
sh scripts/install_dependencies.sh tests
for step in $steps; do
    echo "== $step"
    run_step "$step"
done
