#!/bin/sh
# man_test.sh program PROGRAM PAGE: the page has the options and the steps of --help, each once, and no others.
# man_test.sh library EXPORTS PAGE: every name of the library that the page shows in bold is one that it exports.
set -eu
export LC_ALL=C
kind=$1 source=$2 page=$3
wanted=$(mktemp) found=$(mktemp)
trap 'rm -f "$wanted" "$found"' EXIT

program() {
    "$source" --help | awk '
        /^Steps:/ { steps = 1 }
        /^$/ { steps = 0 }
        /^  --/ { print $1 }
        steps && /^  [a-z]/ && !seen[$1]++ { print $1 }' | sort >"$wanted"
    awk '
        /^# / { listed = $2 == "OPTIONS" || $2 == "STEPS" }
        listed && /^\*/ { sub(/^\*/, ""); sub(/\*.*/, ""); print }' "$page" | sort >"$found"
    [ -s "$wanted" ] || { echo "$source lists no options"; exit 1; }
    diff -u "$wanted" "$found"
}

library() {
    grep -o '\*[A-Za-z]*_[A-Za-z0-9_]*\*' "$page" | tr -d '*' | sort -u >"$found"
    [ -s "$found" ] || { echo "$page shows no name"; exit 1; }
    unknown=$(comm -13 "$source" "$found")
    [ -z "$unknown" ] || { echo "$page shows what is not exported: $unknown"; exit 1; }
}

"$kind"
