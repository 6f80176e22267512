#!/bin/bash
# Compares the table of faults in the page of the simulator with new runs. Rows that differ are shown and run once more
# by themselves, since a hundred processes at once can be slower on a busy machine than the times in the rows allow;
# what the library does otherwise than the page says differs again. Usage: faults_test.sh SCRIPT SIM MODULE PAGE
set -u
script=$1 sim=$2 module=$3 page=$4

table=$(sed -n '/^| fault | the library logs/,/^$/p' "$page" | sed '/^$/d')
runs=$("$script" "$sim" "$module") || exit 1
diff - <(echo "$runs") <<<"$table" && exit

rows_of() { sed -n "s/^| \`\([^\`]*\)\` | .*/\1/p"; }
diff <(rows_of <<<"$table") <(rows_of <<<"$runs") >/dev/null || { echo 'the rows are not those of the script' >&2; exit 1; }
mapfile -t again < <(diff <(echo "$table") <(echo "$runs") | sed -n 's/^< //p' | rows_of)
[ ${#again[@]} -gt 0 ] || exit 1
echo "once more by themselves: ${again[*]}"
runs=$("$script" "$sim" "$module" "${again[@]}") || exit 1
for row in "${again[@]}"; do grep -F "| \`$row\` |" <<<"$table"; done | diff - <(sed 1,2d <<<"$runs")
