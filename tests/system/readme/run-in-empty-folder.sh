#!/usr/bin/env bash
# Runs a program in an empty folder that is removed afterwards.
#
#   run-in-empty-folder.sh PROGRAM [ARGUMENT...]
set -euo pipefail

folder=$(mktemp -d "${TMPDIR:-/tmp}/qxreadme-XXXXXX")
trap 'rm -rf "$folder"' EXIT
cd "$folder"
"$@"
