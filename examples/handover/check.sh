#!/usr/bin/env bash
# Checks of the example as its users meet it.
#
#   check.sh demo PROGRAM_FOLDER       the project there and back, with every reference in its place
#   check.sh errors PROGRAM_FOLDER     a damaged message ends with a clear text and status 1, and the store is left alone
set -euo pipefail
export LC_ALL=C # messages are bytes

here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
what=$1
build=$2
program=$build/bin/handover

folder=$(mktemp -d "${TMPDIR:-/tmp}/handover-check-XXXXXX")
trap 'rm -rf "$folder"' EXIT

fail() {
    echo "check.sh: $*" >&2
    cat "$folder/out" >&2
    exit 1
}

# must_print TEXT...: the output has these texts.
must_print() {
    local text
    for text in "$@"; do
        grep -qF -- "$text" "$folder/out" || fail "the output lacks '$text'"
    done
}

# section COMMAND...: what the demo printed for this command.
section() {
    awk -v head="--- handover $*" '$0 == head { on = 1; next } /^---/ { on = 0 } on' "$folder/out"
}

# section_has COMMAND TEXT...: that command printed these texts.
section_has() {
    local command=$1 text
    shift
    for text in "$@"; do
        grep -qF -- "$text" <<<"$(section $command)" || fail "'$command' did not print '$text'"
    done
}

check_demo() {
    local steps=12 name goid
    "$here/run-demo.sh" "$build" $steps >"$folder/out" 2>&1 || fail "the demo failed"
    section_has "create office.store 12" "12 steps with 6 parts, 0 of them done, 12 in their place" "for Ada "
    section_has "send office.store out.message" "sent 19 objects in " " with 1 Guids"
    section_has "receive site.store out.message" "received 19 new objects and 0 changed ones with 1 Guids" \
        "12 steps with 6 parts, 0 of them done, 12 in their place" "for somebody not in this store, " \
        ", here number 2: 18"
    section_has "work site.store" "13 steps with 6 parts, 9 of them done, 13 in their place" ", here number 1: 1"
    section_has "send site.store back.message" "sent 20 objects in " " with 2 Guids"
    section_has "receive office.store back.message" "received 1 new objects and 19 changed ones with 2 Guids" \
        "13 steps with 6 parts, 9 of them done, 13 in their place" "for Ada " ", here number 1: 18" ", here number 2: 1"
    section_has "talk office.store site.store" "sent 20 objects in " " with 2 Guids" \
        "received 0 new objects and 20 changed ones with 2 Guids" "sent 21 objects in " " with 0 Guids" \
        "received 1 new objects and 20 changed ones with 0 Guids"
    section_has "show site.store" "14 steps with 6 parts, 14 of them done, 14 in their place"

    # Everybody keeps the name that means the same in every store, and is found again where they are.
    for name in Ada Boris Clara; do
        goid=$(section "create office.store 12" | sed -n "s/^  in charge of .*: $name //p")
        [[ $goid =~ ^[0-9a-f-]{36}:[0-9a-f]{8}$ ]] || fail "'$goid' is no name of $name"
        section_has "receive site.store out.message" "somebody not in this store, $goid"
        section_has "receive office.store back.message" "$name $goid"
    done
    ! section "receive office.store back.message" | grep -qF "somebody" || fail "somebody was not found again"

    # A long chain of owned objects costs no stack.
    (ulimit -s 256 && "$here/run-demo.sh" "$build" 3000 >"$folder/out" 2>&1) || fail "the long project failed"
    section_has "receive site.store out.message" "3000 steps with 1200 parts, 0 of them done, 3000 in their place"
    section_has "show site.store" "3002 steps with 1200 parts"
}

# must_refuse FILE TEXT: receiving it ends with status 1 and says TEXT and what to do, and the project is as it was.
must_refuse() {
    local status=0
    "$program" receive "$folder/site.store" "$1" >"$folder/out" 2>&1 || status=$?
    [[ $status -eq 1 ]] || fail "receiving $1 ended with status $status, not 1"
    must_print "$2"
    [[ $(wc -l <"$folder/out") -ge 2 ]] || fail "it does not say what to do"
    "$program" show "$folder/site.store" >"$folder/shown"
    cmp -s "$folder/before" "$folder/shown" || fail "the project was changed by $1"
}

check_errors() {
    local good=$folder/good.message bad=$folder/bad.message size keep status=0
    : >"$folder/out"
    "$program" create "$folder/office.store" >/dev/null
    "$program" send "$folder/office.store" "$good" >/dev/null
    "$program" receive "$folder/site.store" "$good" >/dev/null
    "$program" show "$folder/site.store" >"$folder/before"

    must_refuse "$folder/none.message" none.message
    : >"$bad"
    must_refuse "$bad" "The message is damaged"
    size=$(stat -c %s "$good")
    for keep in 1 2 20 60 $((size / 2)) $((size - 1)); do
        head -c "$keep" "$good" >"$bad"
        must_refuse "$bad" "The message is damaged"
    done
    { cat "$good"; printf '\0'; } >"$bad"
    must_refuse "$bad" "The message is damaged: it goes on behind its end"
    { printf '\2'; tail -c +2 "$good"; } >"$bad"
    must_refuse "$bad" "The message is damaged" # a newer form
    sed 's/handover::Step/handover::Stop/' "$good" >"$bad"
    must_refuse "$bad" "there is no class 'handover::Stop' here"
    sed 's/handover::Project/handover::Another/' "$good" >"$bad"
    must_refuse "$bad" "there is no class 'handover::Another' here"
    printf 'handover %.0s' {1..40} >"$bad"
    must_refuse "$bad" "The message is damaged"

    # The continuation of a stream whose first message did not arrive: the space is not introduced.
    { head -c 1 "$good"; printf '\5'; tail -c +3 "$good"; } >"$bad"
    must_refuse "$bad" "an earlier one of its stream is missing"

    "$program" receive "$folder/site.store" "$good" >"$folder/out" 2>&1 || fail "the good message is refused now"
    must_print "received 0 new objects and 19 changed ones"
    "$program" show "$folder/none.store" >"$folder/out" 2>&1 || status=$?
    [[ $status -eq 1 ]] || fail "a store that is missing ended with status $status"
    must_print none.store
}

case $what in
demo) check_demo ;;
errors) check_errors ;;
*) fail "unknown check '$what'" ;;
esac
