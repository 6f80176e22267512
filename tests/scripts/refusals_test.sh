#!/bin/sh
# refusals_test.sh SCRIPT ARGUMENT...: called like this the script does nothing, says so in one line that begins with its
# name, and ends with status 2.
set -eu
name=${1##*/}
out=$(mktemp)
trap 'rm -f "$out"' EXIT
status=0
"$@" >"$out" 2>&1 || status=$?
[ $status -eq 2 ] && [ "$(wc -l <"$out")" -eq 1 ] && grep -q "^$name: .*; " "$out" && exit 0
echo "$*: status $status, and"
cat "$out"
exit 1
