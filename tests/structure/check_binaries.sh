#!/bin/sh
# check_binaries.sh BUILD SOURCES: no library or program names the folder that it was built in or
# that of its sources.
set -eu
! grep -lF -e "$1" -e "$2" "$1"/lib/* "$1"/bin/* 2> /dev/null
