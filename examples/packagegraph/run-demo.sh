#!/usr/bin/env bash
# Several processes, one store: the first makes it, the second changes it and is killed, the third finds the change.
#
#   run-demo.sh BUILD_FOLDER [DATABASE [PACKAGE]]
#
# DATABASE is a package database (default: this machine's, or else the sample in examples/data), PACKAGE one of its
# packages (default: apt). Everything is kept in a temporary folder that is removed at the end.
set -euo pipefail

here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
sample=$(cd "$here/../data" && pwd)/dpkg-status-sample

if [[ $# -lt 1 || $# -gt 3 ]]; then
    echo "usage: run-demo.sh BUILD_FOLDER [DATABASE [PACKAGE]]" >&2
    exit 2
fi
program=$1/bin/packagegraph
if [[ ! -x $program ]]; then
    echo "run-demo.sh: there is no program $program; build it first: scripts/demo does" >&2
    exit 1
fi
database=${2:-/var/lib/dpkg/status}
if [[ $# -lt 2 && ! -r $database ]]; then
    echo "This machine has no $database; taking the sample in examples/data"
    database=$sample
fi
package=${3:-apt}

folder=$(mktemp -d "${TMPDIR:-/tmp}/packagegraph-XXXXXX")
pid=
finish() {
    [[ -z $pid ]] || kill -KILL "$pid" 2>/dev/null || true
    rm -rf "$folder"
}
trap finish EXIT
store=$folder/packages.store

say() {
    printf '\n--- %s\n' "$*"
}

say "First process: import $database"
"$program" import "$store" "$database"

say "Second process: open the store, walk from '$package', change it"
mkfifo "$folder/output"
"$program" hold "$store" "$package" >"$folder/output" &
pid=$!
while IFS= read -r line; do
    printf '%s\n' "$line"
    if [[ $line == "Waiting to be killed"* ]]; then
        say "kill -9 $pid: nothing closes the store"
        kill -KILL "$pid"
        break
    fi
done <"$folder/output"
status=0
wait "$pid" 2>/dev/null || status=$?
pid=
if [[ $status -ne 137 ]]; then
    echo "run-demo.sh: the second process was to be killed, but it ended with status $status" >&2
    exit 1
fi

say "Third process: open the store again"
"$program" show "$store" "$package" | tee "$folder/shown"
if ! grep -qF 'is held (1 time)' "$folder/shown"; then
    echo "run-demo.sh: the change that the second process wrote is not there" >&2
    exit 1
fi

say "Fourth process: what the store says of itself"
"$program" info "$store"

say "Fifth process: remove '$package' with what only it needs"
"$program" remove "$store" "$package" | tee "$folder/removed"
counts=$(sed -n 's/.*: \([0-9]*\) live elements before, \([0-9]*\) now$/\1 \2/p' "$folder/removed")
if [[ -z $counts || ${counts% *} -le ${counts#* } ]]; then
    echo "run-demo.sh: the file has not let go of what was removed" >&2
    exit 1
fi

say "Sixth process: the index names it no more"
if "$program" show "$store" "$package" 2>&1 | tee "$folder/gone"; then
    echo "run-demo.sh: the removed package is still there" >&2
    exit 1
fi
grep -qF "has no package '$package'" "$folder/gone"
"$program" info "$store"

if [[ -x $1/bin/qxstore ]]; then
    say "A tool that knows none of the example's classes: is the file sound?"
    "$1/bin/qxstore" verify "$store"
fi

say "The change outlived the process that made it"
