#!/bin/sh
# check_exports.sh NM LIBRARY LIST: the library defines the names of the list for the outside, and no others.
set -eu
actual=$(mktemp)
trap 'rm -f "$actual"' EXIT
"$1" -D --defined-only "$2" | awk '{ print $NF }' | LC_ALL=C sort >"$actual"
LC_ALL=C diff -u "$3" "$actual"
