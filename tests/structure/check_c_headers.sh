#!/bin/sh
# check_c_headers.sh ROOT COMPILER HEADER ...: each header compiles alone as C, and the published
# numbers are those that players have been built with.
set -eu
cd "$1"
compiler=$2
shift 2

compile() {
    "$compiler" -x c -std=c11 -Wall -Wextra -Wpedantic -Werror -I. -fsyntax-only "$@"
}

for header in "$@"; do
    printf '#include "%s"\n' "$header" | compile -
done
compile tests/structure/published_numbers.c
