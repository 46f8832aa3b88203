#!/usr/bin/env bash
# Checks of the example as its users meet it: each run is a process of its own.
#
#   check.sh PROGRAM_FOLDER
set -euo pipefail

program=$1/bin/frameloop
folder=$(mktemp -d "${TMPDIR:-/tmp}/frameloop-check-XXXXXX")
trap 'rm -rf "$folder"' EXIT
store=$folder/scene.store

fail() {
    echo "check.sh: $*" >&2
    exit 1
}

# must_say STATUS TEXTS ARGUMENT...: the program ends with the status and says the texts, which stand one to a line.
must_say() {
    local status=$1 texts=$2 text found=0
    shift 2
    "$program" "$@" >"$folder/out" 2>&1 || found=$?
    [[ $found -eq $status ]] || { cat "$folder/out" >&2; fail "'$*' ended with status $found, not $status"; }
    while IFS= read -r text; do
        grep -qF -- "$text" "$folder/out" || { cat "$folder/out" >&2; fail "'$*' does not say '$text'"; }
    done <<<"$texts"
}

must_say 0 'A scene of 4380 parts, with 7 references to nothing and 15 to parts that are made' create "$store"

# The scene can't be complete after two frames: not even its outermost parts are in memory in the first.
must_say 0 $'frame     1:     0 bound,    60 pending,   0 missing\n2 frames, ' draw "$store" --no-wait --frames 2
# All that there is arrives, and what is made on demand is made once.
must_say 0 $'frame     1:     0 bound,    60 pending,   0 missing\nat the end: 4395 bound, 0 pending, 7 missing; ' \
    draw "$store" --no-wait
must_say 0 'at the end: 4395 bound, 0 pending, 7 missing; 0 parts made on demand' draw "$store" --no-wait
# At 60 frames a second.
must_say 0 '6 frames, ' draw "$store" --frames 6

must_say 1 'none.store' draw "$folder/none.store"
must_say 1 'scene.store' create "$store"
must_say 1 "'0' is no number of frames" draw "$store" --frames 0
must_say 2 'usage: frameloop' draw
must_say 2 'usage: frameloop' draw "$store" --faster
