#!/bin/sh
# handler_test.sh HANDLER: line by line, a handler answers each message with the message, whatever its text holds, and
# nothing else with a line on its standard output.
set -eu
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# answers EVENT [ANSWER]: what a handler answers to an event. It may set the answer's fields apart by blanks.
answers() {
    printf '%s\n' "$1" >>"$work/events"
    [ $# -eq 1 ] || printf '%s\n' "$2" >>"$work/wanted"
}

answers '{"event":"state","model":"base","state":"open","cause":"none","detail":""}'
answers '{"event":"step","model":"base","step":"tcp"}'
answers '{"event":"message","model":"base","type":"text","text":"hello"}' '{"send":"hello","model":"base"}'
answers '{"event":"message","model":"base","type":"text","text":""}' '{"send":"","model":"base"}'
answers '{"event":"message","model":"text","type":"text","text":"at the end,"}' '{"send":"at the end,","model":"text"}'
answers '{"event":"message","model":"base","type":"text","text":"}}"}' '{"send":"}}","model":"base"}'
answers '{"event":"message","model":"base","text":"first,","type":"text"}' '{"send":"first,","model":"base"}'
answers '{"event":"message","model":"base","type":"text","text":"a \"quote\",\"type\":\"binary\"} and \\"}' \
    '{"send":"a \"quote\",\"type\":\"binary\"} and \\","model":"base"}'
answers '{"event":"message","model":"base","type":"binary","base64":"AAEC/w=="}' '{"send_base64":"AAEC/w==","model":"base"}'
answers '{"event":"message","model":"base","type":"text","base64":"/w=="}' '{"send_base64":"/w==","model":"base"}'
answers '{"event":"pong","model":"base","round_trip_us":500}'
answers '{"event":"closed","model":"base","status":1000,"reason":"bye"}'
answers '{"event":"refused","model":"base","line":8,"result":"the queue is full"}'

"$1" <"$work/events" 2>"$work/errors" | sed 's/": "/":"/g; s/", "/","/g' >"$work/found"
diff -u "$work/wanted" "$work/found"
grep -q 'base.*open' "$work/errors"
grep -q 'base.*not answered: .*the queue is full' "$work/errors"
