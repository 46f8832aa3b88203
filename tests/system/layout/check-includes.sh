#!/usr/bin/env bash
# Includes between modules go down only, and a public header includes no private one.
#
#   check-includes.sh SOURCE_DIR
set -euo pipefail
cd "$1"

declare -A below=(
    [qxUtils]="qxUtils"
    [qxLss]="qxUtils|qxLss"
    [qxObject]="qxUtils|qxObject"
    [qxPersistStore]="qxUtils|qxLss|qxObject|qxPersistStore"
)

status=0
complain() {
    if [ -n "$2" ]; then
        echo "$1:"
        echo "$2"
        status=1
    fi
}

for module in "${!below[@]}"; do
    up=$(grep -rnE '^\s*#\s*include\s+"' --include='*.h' --include='*.cpp' "$module" |
        grep -vE "\"(${below[$module]})/" || true)
    complain "$module includes what is not below it" "$up"

    foreign=$(grep -rnE '^\s*#\s*include\s+"qx[A-Za-z]+/src/' --include='*.h' --include='*.cpp' "$module" |
        grep -vE "\"$module/src/" || true)
    complain "$module includes another module's private headers" "$foreign"

    private=$(find "$module" -maxdepth 1 -name '*.h' -exec grep -HnE '^\s*#\s*include\s+"qx[A-Za-z]+/src/' {} + || true)
    complain "public headers of $module include private ones" "$private"
done
exit $status
