#!/bin/sh
# line_counts_test.sh FOLDER: the examples are as short as the documents say.
set -eu
cd "$1"
status=0
for example in echo_*.c echo_*.cpp; do
    limit=60
    [ "$example" != echo_poll.c ] || limit=45
    lines=$(wc -l <"$example")
    [ "$lines" -lt $limit ] || { echo "$example has $lines lines, not under $limit"; status=1; }
done
exit $status
