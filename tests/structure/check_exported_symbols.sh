#!/bin/sh
# check_exported_symbols.sh LIBRARY LIST: the symbols that the library exports are exactly those of
# the list. Symbols that a coverage build adds are not counted.
set -eu
defined=$(mktemp)
trap 'rm -f "$defined"' EXIT
nm -D --defined-only "$1" | awk '$3 !~ /^(__gcov_.*|mangle_path)$/ { print $3 }' |
    LC_ALL=C sort > "$defined"
diff -u "$2" "$defined"
