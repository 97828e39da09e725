#!/bin/sh
# check_headers.sh ROOT COMPILER HEADER ...: each header compiles alone, as C++ and as C, and the
# published numbers are those that players have been built with.
set -eu
cd "$1"
compiler=$2
shift 2

compile() {
    "$compiler" -Wall -Wextra -Wpedantic -Werror -I. -fsyntax-only "$@"
}

for header in "$@"; do
    printf '#include "%s"\n' "$header" | compile -x c++ -std=c++20 -
    printf '#include "%s"\n' "$header" | compile -x c -std=c11 -
done
compile -x c -std=c11 tests/structure/published_numbers.c
compile -x c++ -std=c++20 tests/structure/published_numbers.c
