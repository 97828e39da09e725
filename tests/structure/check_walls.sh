#!/bin/sh
# check_walls.sh ROOT: a folder includes only the headers that it may use.
set -eu
cd "$1"
status=0

# wall FOLDER ALLOWED: a regular expression of the headers that the folder may include.
wall() {
    includes=$(grep -rnE '^#include' --include='*.cpp' --include='*.h' "$1") || {
        echo "$1: no include lines"
        status=1
    }
    if printf '%s\n' "$includes" | grep -vE "#include ($2)"; then
        echo "^ beyond the walls of $1"
        status=1
    fi
}

standard='<c?[a-z_]+>|<std(int|def)\.h>'
wall mp4mux "\"mp4mux/|$standard"
wall aacenc "\"aacenc/|$standard|<(arm_neon|immintrin)\.h>"
wall journal "\"(journal/|mp4mux/mp4_mux\.h)|$standard"
wall recovery "\"(recovery/|journal/|mp4mux/mp4_mux\.h|aacenc/(band|huffman)_tables\.h)|$standard"
wall component '"(component/|journal/|platform/[a-z_]+\.h|mp4mux/mp4_mux\.h|aacenc/aac_enc\.h)|<'
wall platform '"platform/|<'
wall mp4read '"mp4read/|<'
wall client/input '"(client/(input/|failure\.h)|component/tdmbrec_interface\.h)|<'
wall client/report '"(client/report/|mp4read/)|<'
wall client '"(client/|mp4read/|recovery/recovery\.h|component/(tdmbrec_interface|frame_fifo)\.h|platform/(omx_il|host/host_control)\.h|mp4mux/mp4_mux\.h|aacenc/aac_enc\.h)|<'

# Not every standard library for devices has it; component/shared_fields.h is for all of them.
if grep -rnE 'atomic_ref *[<(]' --include='*.cpp' --include='*.h' mp4mux aacenc component platform; then
    echo "^ not in every standard library"
    status=1
fi
exit $status
