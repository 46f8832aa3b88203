#!/usr/bin/env bash
# The orders in which all tests together took their locks, one pair a line: HELD <tab> WANTED. No circle may be among them.
#
#   check-lock-graph.sh FILE
#
# Pairs of one name are locks whose users order them among themselves; the recorder lets only known ones pass.
set -euo pipefail

pairs=$(sort -u "$1")
distinct=$(awk -F'\t' '$1 != $2 { print }' <<<"$pairs")
locks=$(tr '\t' '\n' <<<"$pairs" | sort -u | wc -l)
known=$(awk -F'\t' '$1 == $2' <<<"$pairs" | wc -l)
verdict=ok
cycles=0
# tsort's words end at blanks.
if ! order=$(tr ' ' '_' <<<"$distinct" | tsort 2>&1 >/dev/null); then
    cycles=$(grep -c 'contains a loop' <<<"$order")
    verdict=FAIL
    echo "$order" >&2
fi
echo "reliability lock-graph: locks=$locks pairs=$(wc -l <<<"$pairs") cycles=$cycles known=$known verdict=$verdict"
[ "$verdict" = ok ]
