#!/bin/sh
# check_visible.sh READELF ARCHIVE LIST: what the sources give default visibility is what the list names. The version
# script hides the rest in silence, so a new function that was not put on the list would be missed by its first caller.
set -eu
actual=$(mktemp)
trap 'rm -f "$actual"' EXIT
"$1" -sW "$2" | awk '$5 == "GLOBAL" && $6 == "DEFAULT" && $7 != "UND" && $8 !~ /^_Z/ { print $8 }' |
    LC_ALL=C sort >"$actual"
LC_ALL=C diff -u "$3" "$actual"
