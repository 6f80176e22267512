#!/bin/bash
# What a user meets on the command line of cloudtunnel-module, given as the only argument.
set -u
module=$1
out=$(mktemp) err=$(mktemp)
trap 'rm -f "$out" "$err"' EXIT
failures=0

# check STATUS TEXT ARGUMENT...: runs the program, expects the status; with status 0 the text on standard output and
# nothing on standard error, else one line with the text on standard error and nothing on standard output.
check() {
    local wanted=$1 text=$2 status says=$out quiet=$err
    shift 2
    "$module" "$@" >"$out" 2>"$err" </dev/null
    status=$?
    [ "$wanted" -eq 0 ] || says=$err quiet=$out
    if [ $status -eq "$wanted" ] && grep -q -e "$text" "$says" && [ ! -s "$quiet" ] &&
        { [ "$wanted" -eq 0 ] || [ "$(wc -l <"$says")" -eq 1 ]; }; then
        return
    fi
    echo "failed: cloudtunnel-module $* (status $status, expected $wanted and '$text')"
    cat "$out" "$err"
    failures=$((failures + 1))
}

check 0 '^Usage: cloudtunnel-module' --help
check 0 '^cloudtunnel-module [0-9]' --version
check 2 "unknown option '--nonsense'" --nonsense
check 2 "unknown option 'word'" word
check 2 '--model needs a value: --model NAME' --model
check 2 'has 32 bytes, at most 31 fit' --model 12345678901234567890123456789012
check 2 'has 32 bytes, at most 31 fit' --sub-name=12345678901234567890123456789012
check 2 '--model: the text is empty' --model ''
check 2 "--log-level: '10' is not a number from 0 to 9" --log-level 10
check 2 "--exchanges: '0' is not a number" --exchanges 0
check 2 "--seconds: '1s' is not a number" --seconds 1s
check 2 "--fragment-size: '5' is not a number from 125 to 65535" --fragment-size 5
check 2 "--max-message: '1' is not a number" --max-message 1
check 2 "--model: 'a' is given twice" --model a --model a
check 2 "--ping: '-1' is not a number from 0 to 86400" --ping -1
check 2 '--exec: the text is empty' --exec ''
check 2 '--lines takes no argument' --lines=yes
check 2 'has 108 bytes, at most 107 fit' --socket "$(printf '%0108d' 0)"
check 1 'the socket /nowhere/socket cannot be made: No such file' --socket /nowhere/socket
check 1 'the log file /nowhere/module.log cannot be opened' --log /nowhere/module.log
[ $failures -eq 0 ]
