#!/usr/bin/env bash
# Two stores, one project: it goes from the office to the site, is worked on there, and comes back.
#
#   run-demo.sh BUILD_FOLDER [STEPS]
#
# Everything is kept in a temporary folder that is removed at the end.
set -euo pipefail

if [[ $# -lt 1 || $# -gt 2 ]]; then
    echo "usage: run-demo.sh BUILD_FOLDER [STEPS]" >&2
    exit 2
fi
program=$1/bin/handover
if [[ ! -x $program ]]; then
    echo "run-demo.sh: there is no program $program; build it first" >&2
    exit 1
fi
folder=$(mktemp -d "${TMPDIR:-/tmp}/handover-XXXXXX")
trap 'rm -rf "$folder"' EXIT
cd "$folder"

run() {
    printf '\n--- handover %s\n' "$*"
    "$program" "$@"
}

run create office.store "${2:-12}"
run send office.store out.message
run receive site.store out.message
run work site.store
run send site.store back.message
run receive office.store back.message
run talk office.store site.store
run show site.store
