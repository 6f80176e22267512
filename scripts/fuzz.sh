#!/bin/sh
# Fuzzes every target of build/fuzz, or those named, for so many seconds each, with one line of output each. A finding is
# made as small as possible within a minute, kept under tests/fuzz/<target>/crashes, where every test run replays it, and
# printed with the command that repeats it; then the script fails. What the targets learn stays in build/fuzz/corpus.
# Called with 'keep' in place of the seconds, the script keeps the smallest corpus that reaches all of it.
set -eu
cd "$(dirname "$0")/.."

complain() {
    echo "fuzz.sh: $1; $2" >&2
    exit 2
}

how="call it as: scripts/fuzz.sh <seconds>|keep [target ...]"
seconds=${1:-}
case $seconds in
    keep) ;;
    "" | *[!0-9]* | 0*) complain "'$seconds' is no number of seconds" "$how" ;;
esac
shift
known=$(cut -d ' ' -f 1 tests/fuzz/targets.txt)
# shellcheck disable=SC2086 # a list of words
[ $# -gt 0 ] || set -- $known
for name; do
    echo "$known" | grep -qx "$name" || complain "there is no target '$name'" "there are: $(echo "$known" | tr '\n' ' ')"
    [ -x "build/fuzz/tests/fuzz/fuzz_$name" ] || complain "fuzz_$name is not built" "call 'make fuzz'"
done

# A small quarantine and short stacks make the runs twice as fast; the command that repeats a finding uses the long ones.
fast="quarantine_size_mb=4:malloc_context_size=2"

keep_finding() { # name, program, artifact
    kept=tests/fuzz/$1/crashes/$(basename "$3" | cut -c 1-16)
    mkdir -p "tests/fuzz/$1/crashes"
    "$2" -minimize_crash=1 -max_total_time=60 -close_fd_mask=3 -exact_artifact_path="$kept" "$3" >/dev/null 2>&1 || true
    [ -s "$kept" ] || cp "$3" "$kept"
    echo "fuzz.sh: $1: a finding, kept as $kept; repeat it with: $2 $kept" >&2
}

keep_corpus() { # name, program
    kept=tests/fuzz/$1/corpus
    smallest=build/fuzz/smallest/$1
    rm -rf "$smallest"
    mkdir -p "$smallest" "$kept" "build/fuzz/corpus/$1"
    "$2" -merge=1 -use_counters=0 -max_len=2048 -close_fd_mask=3 "$smallest" \
        "tests/fuzz/$1/seeds" "$kept" "build/fuzz/corpus/$1" >"build/fuzz/$1.log" 2>&1
    rm -rf "$kept"
    mkdir -p "$kept"
    for file in "$smallest"/*; do cp "$file" "$kept/$(basename "$file" | cut -c 1-10)"; done
    echo "$1: $(find "$kept" -type f | wc -l) files, $(cat "$kept"/* | wc -c) bytes"
}

status=0
for name; do
    program=build/fuzz/tests/fuzz/fuzz_$name
    if [ "$seconds" = keep ]; then
        keep_corpus "$name" "$program"
        continue
    fi
    learnt=build/fuzz/corpus/$name
    found=build/fuzz/found/$name
    log=build/fuzz/$name.log
    rm -rf "$found"
    mkdir -p "$learnt" "$found"
    dictionary=tests/fuzz/$name/words.dict
    set -- -max_total_time="$seconds" -timeout=10 -close_fd_mask=3 -print_final_stats=1 -artifact_prefix="$found/"
    [ ! -f "$dictionary" ] || set -- "$@" -dict="$dictionary"
    set -- "$@" "$learnt"
    for kept in seeds corpus crashes; do
        [ ! -d "tests/fuzz/$name/$kept" ] || set -- "$@" "tests/fuzz/$name/$kept"
    done
    if ASAN_OPTIONS=$fast "$program" "$@" >"$log" 2>&1; then
        awk -v name="$name" '
            /inline 8-bit counters/ { match($0, /[0-9]+ inline/); all = substr($0, RSTART, RLENGTH - 7) }
            / cov: / { match($0, / cov: [0-9]+/); edges = substr($0, RSTART + 6, RLENGTH - 6) }
            /number_of_executed_units/ { runs = $2 }
            /average_exec_per_sec/ { pace = $2 }
            END {
                printf "%-10s %10d runs %7d a second   %5d of %d edges of the library\n", name, runs, pace, edges, all
            }' "$log"
        continue
    fi
    status=1
    artifact=$(find "$found" -type f | head -n 1)
    if [ -n "$artifact" ]; then
        keep_finding "$name" "$program" "$artifact"
    else
        echo "fuzz.sh: $name: ended without naming its input; see $log" >&2
    fi
done
exit $status
