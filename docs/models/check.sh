#!/bin/sh
# Checks the models of this folder in every order of their threads' steps, and that their known-bad
# variants fail, in about 40 seconds. Needs spin and a C compiler; writes only to build/models.
set -eu
models=$(cd "$(dirname "$0")" && pwd)
build=$models/../../build/models
mkdir -p "$build"
cd "$build"

# explore MODEL DEFINITION ...: runs the verifier; its output is in the file "report".
explore() {
    model=$1
    shift
    rm -f ./*
    cp "$models/$model.pml" .
    spin "$@" -a "$model.pml" >report || return 0
    "${CC:-cc}" -w -O1 -DSAFETY -DCOLLAPSE -o pan pan.c
    ./pan -m1000000 >report 2>&1 || true
}

fail() {
    cat report
    echo "docs/models: $1" >&2
    exit 1
}

# holds MODEL DEFINITION ...: demands that the whole model is explored without an error.
holds() {
    explore "$@"
    grep -q 'errors: 0$' report && ! grep -q 'max search depth too small\|out of memory' report ||
        fail "$* does not hold"
    echo "$*: holds, $(sed -n 's/^ *\(.*\) states, stored.*/\1/p' report) states"
}

# fails MODEL DEFINITION ...: demands an error in a known-bad variant.
fails() {
    explore "$@"
    grep -q 'errors: [1-9]' report || fail "the known-bad $* passes"
    echo "$*: fails, $(sed -n 's/^pan:1: \(.*\) (at depth.*/\1/p' report)"
}

holds frame_fifo
fails frame_fifo -DSTATE_APART
fails frame_fifo -DNO_GAP

holds recordings -DBUFFERS -DWRITER -DOTHER -DNO_THREADS -DSTARTS=1
holds recordings -DBUFFERS -DSTARTS=2
holds recordings -DBUFFERS -DSYNC -DWRITER -DNO_THREADS -DSTARTS=1
holds recordings -DBUFFERS -DSYNC -DSTARTS=2
holds recordings -DOTHER -DNO_THREADS -DSTARTS=2
holds recordings -DOTHER -DSTARTS=3 -DEVENT_CALLS=1
fails recordings -DBUFFERS -DSTARTS=2 -DIDLE_LATE
fails recordings -DBUFFERS -DSTARTS=2 -DCLEAR_APART
fails recordings -DBUFFERS -DSTARTS=2 -DOUT_OF_TURN
fails recordings -DBUFFERS -DSTARTS=2 -DCLAIM_EARLY
fails recordings -DBUFFERS -DSYNC -DSTARTS=1 -DNO_JOIN
fails recordings -DBUFFERS -DSYNC -DSTARTS=1 -DDUE_KEPT
fails recordings -DOTHER -DSTARTS=2 -DNO_EXEMPTION
