#!/bin/sh
# check_exported_symbols.sh LIBRARY LIST: the symbols that the library defines for others are those
# of the list, no more and no fewer. Those that counting lines brings along are not the library's.
set -eu
defined=$(mktemp)
trap 'rm -f "$defined"' EXIT
nm -D --defined-only "$1" | awk '$3 !~ /^(__gcov_.*|mangle_path)$/ { print $3 }' |
    LC_ALL=C sort > "$defined"
diff -u "$2" "$defined"
