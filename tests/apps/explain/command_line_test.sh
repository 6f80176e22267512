#!/bin/bash
# What a user meets on the command line of cloudtunnel-explain, given as the only argument.
set -u
explain=$1
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
failures=0
echo 'E 1.5 [Model desk] rcv close msg, status 1000, reason [].' >"$work/log"
echo 'of another program' >"$work/other"

# check STATUS TEXT INPUT ARGUMENT...: runs the program, expects the status; with status 0 the text on standard output and
# nothing on standard error, else one line with the text on standard error.
check() {
    local wanted=$1 text=$2 input=$3 status says=$work/out
    shift 3
    "$explain" "$@" <"$input" >"$work/out" 2>"$work/err"
    status=$?
    [ "$wanted" -eq 0 ] || says=$work/err
    if [ $status -eq "$wanted" ] && grep -q -e "$text" "$says" &&
        { [ "$wanted" -eq 0 ] && [ ! -s "$work/err" ] || [ "$(wc -l <"$work/err")" -eq "$((wanted > 0))" ]; }; then
        return
    fi
    echo "failed: cloudtunnel-explain $* (status $status, expected $wanted and '$text')"
    cat "$work/out" "$work/err"
    failures=$((failures + 1))
}

check 0 '^Usage: cloudtunnel-explain' /dev/null --help
check 0 '^cloudtunnel-explain [0-9]' /dev/null --version
check 0 'desk: the tunnel ended' /dev/null "$work/log"
check 0 'desk: the tunnel ended' "$work/log"
check 0 'desk: the tunnel ended' "$work/log" -
check 0 'desk: 0 set-ups seen' /dev/null --summary "$work/log"
check 0 '"cause":"closed-by-platform"' "$work/log" --json
check 0 '"cause":"closed-by-platform"' /dev/null --json --model desk "$work/log"
check 0 'The log: 1 lines' "$work/log" --model other
check 0 '^E 1.5 \[Model desk\]' /dev/null --blanked "$work/log"
check 2 "unknown option '--nonsense'" /dev/null --nonsense
check 2 "unknown option '$work/log'" /dev/null "$work/log" "$work/other"
check 2 '--model needs a value: --model NAME' /dev/null --model
check 1 "$work/missing: No such file or directory" /dev/null "$work/missing"
check 1 "$work: Is a directory" /dev/null "$work"
check 1 "$work/other: no message of the library is in it" /dev/null "$work/other"
check 1 'standard input: no message of the library is in it' /dev/null

"$explain" "$work/log" >/dev/full 2>"$work/err" && failures=$((failures + 1))
grep -q 'the output cannot be written' "$work/err" || failures=$((failures + 1))
[ $failures -eq 0 ]
