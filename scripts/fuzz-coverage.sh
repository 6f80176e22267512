#!/bin/sh
# Replays the kept corpus of each fuzz target in build/coverage and prints how much of the sources it aims at, as
# tests/fuzz/targets.txt names them, was reached: lines and branches.
set -eu
cd "$(dirname "$0")/.."
build=build/coverage

while read -r name sources; do
    program=$build/tests/fuzz/fuzz_${name}_replay
    [ -x "$program" ] || {
        echo "fuzz-coverage.sh: $program is not built; call 'make fuzz-coverage'" >&2
        exit 2
    }
    find $build -name '*.gcda' -delete
    "$program" "tests/fuzz/$name" >/dev/null 2>&1
    gcovr --config gcovr.cfg --filter apps/module/ --csv >$build/fuzz.csv
    awk -F , -v name="$name" -v sources="$sources" '
        BEGIN { split(sources, list, " "); for (i in list) wanted[list[i]] = 1 }
        FNR == 1 { for (i = 1; i <= NF; i++) column[$i] = i }
        $1 in wanted {
            delete wanted[$1]
            lines += $column["line_total"]; lines_hit += $column["line_covered"]
            branches += $column["branch_total"]; branches_hit += $column["branch_covered"]
        }
        END {
            for (left in wanted) {
                print "fuzz-coverage.sh: " name ": gcovr knows no " left | "cat >&2"
                exit 1
            }
            printf "%-10s lines %5.1f%% (%d of %d)   branches %5.1f%% (%d of %d)   %s\n", name,
                100 * lines_hit / lines, lines_hit, lines,
                100 * branches_hit / branches, branches_hit, branches, sources
        }' $build/fuzz.csv
done <tests/fuzz/targets.txt
