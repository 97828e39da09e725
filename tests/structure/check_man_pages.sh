#!/bin/sh
# check_man_pages.sh ROOT COMMAND: each command has a page with exactly the options and exit codes
# of its help, and groff formats the page without a warning.
set -eu
pages=$1/docs/man
command=$2
place=$(mktemp -d)
trap 'rm -rf "$place"' EXIT
status=0

# tags PAGE SECTION: what a section of a page describes, one line each, without fonts.
tags() {
    awk -v section=".SH $2" '
        /^\.SH/ { inside = $0 == section }
        inside && is_tag { gsub(/\\f./, ""); gsub(/\\/, ""); gsub(/"/, ""); print }
        { is_tag = $0 == ".TP" }' "$pages/$1.1" | sed 's/^\.[A-Z]* //'
}

# compare WHAT PAGE: of the files help and page, which have one word on a line.
compare() {
    sort -u "$place/help" -o "$place/help"
    sort -u "$place/page" -o "$place/page"
    [ -s "$place/help" ] || echo "none in the help" > "$place/page"
    if ! diff "$place/help" "$place/page"; then
        echo "^ the $1 of the help (<) and of $2.1 (>)"
        status=1
    fi
}

# check PAGE [NAME]: the page of this command, or of all.
check() {
    page=$1
    shift
    "$command" "$@" --help > "$place/text"
    sed -n 's/^  \(-[^ {]*\).*/\1/p' "$place/text" | tr , '\n' > "$place/help"
    tags "$page" OPTIONS | grep -oE '(^| )--?[0-9A-Za-z][0-9A-Za-z-]*' | tr -d ' ' > "$place/page"
    compare options "$page"
    if [ $# = 0 ]; then
        sed '1,/^Subcommands:/d' "$place/text" | awk 'NF { print $1 }' > "$place/help"
        tags "$page" COMMANDS > "$place/page"
        compare commands "$page"
    else # a code begins a column, or precedes the name of its signal
        sed '1,/^Exit status:/d' "$place/text" | grep -oE '  [0-9]+  |[0-9]+ SIG' |
            grep -oE '[0-9]+' > "$place/help"
        tags "$page" 'EXIT STATUS' | grep -oE '[0-9]+' > "$place/page"
        compare 'exit codes' "$page"
    fi
    groff -ww -man -Tutf8 -z "$pages/$page.1" > "$place/warnings" 2>&1 || status=1
    if [ -s "$place/warnings" ]; then
        cat "$place/warnings"
        status=1
    fi
}

command -v groff > /dev/null || exit 77
check tdmbrec
for name in $("$command" --help | sed '1,/^Subcommands:/d' | awk 'NF { print $1 }'); do
    check "tdmbrec-$name" "$name"
done
exit $status
