#!/usr/bin/env bash
# Checks of the example as its users meet it.
#
#   check.sh demo PROGRAM_FOLDER       the whole flow on the sample database
#   check.sh errors PROGRAM_FOLDER     what is missing or damaged ends with a clear text and status 1, and is left alone
set -euo pipefail

here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
sample=$(cd "$here/../data" && pwd)/dpkg-status-sample
what=$1
build=$2
program=$build/bin/packagegraph

folder=$(mktemp -d "${TMPDIR:-/tmp}/packagegraph-check-XXXXXX")
pid=
finish() {
    [[ -z $pid ]] || kill -KILL "$pid" 2>/dev/null || true
    rm -rf "$folder"
}
trap finish EXIT

fail() {
    echo "check.sh: $*" >&2
    exit 1
}

# must_print TEXT...: the output has these texts.
must_print() {
    local text
    for text in "$@"; do
        grep -qF -- "$text" "$folder/out" || { cat "$folder/out" >&2; fail "the output lacks '$text'"; }
    done
}

check_demo() {
    "$here/run-demo.sh" "$build" "$sample" apt >"$folder/out" 2>&1 || { cat "$folder/out" >&2; fail "the demo failed"; }
    must_print "305 installed packages" "318 objects in the file, 0 of them in memory" "apt 2.6.1" "2 pairs of packages depend on each other" \
        "objects loaded for it" "packages stayed in the file" "is not held" "written in the background" "is held (1 time)" \
        "most dependencies: " "of the index by name" "live elements before" "has no package 'apt'"
    # Packages refer to one another in circles, so the walk would not end if it followed them blindly.
    ! grep -qE ' 0 of them to a package found before' "$folder/out" || fail "the graph has no circle"
}

# must_fail FILE TEXT COMMAND...: ends with status 1, says TEXT and what to do, and leaves FILE as it is, byte by byte, or
# missing.
must_fail() {
    local file=$1 text=$2 before after status=0
    shift 2
    before=$(cksum "$file" 2>/dev/null || echo none)
    "$program" "$@" >"$folder/out" 2>&1 || status=$?
    after=$(cksum "$file" 2>/dev/null || echo none)
    [[ $status -eq 1 ]] || { cat "$folder/out" >&2; fail "'$*' ended with status $status, not 1"; }
    must_print "$text"
    [[ $(wc -l <"$folder/out") -ge 2 ]] || { cat "$folder/out" >&2; fail "'$*' does not say what to do"; }
    [[ $before == "$after" ]] || fail "'$*' changed $file"
}

check_errors() {
    local store=$folder/good.store bad=$folder/bad.store keep
    "$program" import "$store" "$sample" >/dev/null

    must_fail "$folder/none.store" none.store show "$folder/none.store" apt
    must_fail "$folder/none.store" none.status import "$folder/none.store" "$folder/none.status"
    must_fail "$store" good.store import "$store" "$sample"
    must_fail /dev/null "no package 'nonsense'" show "$store" nonsense

    : >"$bad"
    must_fail "$bad" bad.store info "$bad"
    cp "$sample" "$bad"
    must_fail "$bad" bad.store info "$bad"
    # The first segment begins at 512 KiB.
    for keep in 1 4096 100000 $((530 * 1024)); do
        head -c "$keep" "$store" >"$bad"
        must_fail "$bad" bad.store show "$bad" apt
    done
    # Damage among the objects. The store opens, so that the others can be read, and writes when it closes.
    cp "$store" "$bad"
    dd if=/dev/zero of="$bad" bs=1024 seek=520 count=8 conv=notrunc status=none
    must_fail /dev/null bad.store show "$bad" apt
    # A newer version of the format.
    cp "$store" "$bad"
    printf '\377' | dd of="$bad" bs=1 seek=8 conv=notrunc status=none
    printf '\377' | dd of="$bad" bs=1 seek=4104 conv=notrunc status=none
    must_fail "$bad" bad.store info "$bad"

    # The database.
    : >"$folder/status"
    must_fail "$folder/none.store" "is damaged: line 0" import "$folder/none.store" "$folder/status"
    printf 'Package: a\nStatus: install ok installed\nVersion 1\n' >"$folder/status"
    must_fail "$folder/none.store" "is damaged: line 3: expected 'Field: value', found 'Version 1'" \
        import "$folder/none.store" "$folder/status"
    printf 'Status: install ok installed\nVersion: 1\n\n' >"$folder/status"
    must_fail "$folder/none.store" "line 3: the end of an entry without a field 'Package'" \
        import "$folder/none.store" "$folder/status"
    head -c 3000 /dev/zero >"$folder/status"
    must_fail "$folder/none.store" "line 1: a zero byte" import "$folder/none.store" "$folder/status"

    # In use by another process.
    mkfifo "$folder/output"
    "$program" hold "$store" apt >"$folder/output" &
    pid=$!
    while IFS= read -r line; do
        [[ $line != "Waiting to be killed"* ]] || break
    done <"$folder/output"
    must_fail "$store" good.store info "$store"
    kill -KILL "$pid"
    wait "$pid" 2>/dev/null || true
    pid=

    "$program" info "$store" >"$folder/out" 2>&1 || { cat "$folder/out" >&2; fail "the good store was harmed"; }
    must_print "318 objects in the file" "the catalogue names 305 packages"
}

case $what in
demo) check_demo ;;
errors) check_errors ;;
*) fail "unknown check '$what'" ;;
esac
