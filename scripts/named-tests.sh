#!/bin/sh
# named-tests.sh PAGE TESTS: each row of a table whose last column is headed "shown by" names tests there, in
# backquotes, and each of them exists in the folder.
set -eu
fail() {
    echo "named-tests.sh: $1" >&2
    exit 1
}
if [ $# -ne 2 ]; then
    echo "named-tests.sh: needs a page and a folder; call it as scripts/named-tests.sh docs/integration.md tests/module" >&2
    exit 2
fi

rows=$(awk -F '|' '
    /^\|/ && $(NF - 1) ~ /^ *shown by *$/ { table = 1; next }
    !/^\|/ { table = 0 }
    table && !/^\| *---/ { print $(NF - 1) }' "$1")
[ -n "$rows" ] || fail "$1 has no table with a column 'shown by'"

missing=$(echo "$rows" | while read -r row; do
    [ -n "$row" ] || echo 'a test in each row'
    for name in $(echo "$row" | tr '`,' '  '); do
        grep -q -E "^TEST(_F|_P)?\([A-Za-z_]*, $name\)" "$2"/*.cpp || echo "$name"
    done
done)
[ -z "$missing" ] || fail "named in $1, but not in $2: $missing"
