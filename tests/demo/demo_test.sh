#!/bin/bash
# Runs the demo and checks that its steps come in order. Usage: demo_test.sh DEMO SIM MODULE. Prints the demo's output
# and names the first step that is out of order or missing.
set -u
demo=$1 sim=$2 module=$3
output=$(mktemp)
trap 'rm -f "$output"' EXIT

"$demo" "$sim" "$module" >"$output" 2>&1
status=$?
cat "$output"
[ $status -eq 0 ] || { echo "demo_test: the demo ended with status $status"; exit 1; }

# in_order reads steps, one a line: who, and what as an extended regular expression. Each stands behind the one before.
in_order() {
    local who what found line=0
    while read -r who what; do
        found=$(tail -n +$((line + 1)) "$output" | grep -n -m 1 -E "^$who +\| +[0-9]+\.[0-9]{3} .*$what") ||
            { echo "demo_test: out of order or missing: $who: $what"; exit 1; }
        line=$((line + ${found%%:*}))
    done
}

# A sender logs after sending, so the receiver's line can be the earlier one. The lines of each side are checked by
# themselves, and then those where one side acts only after the other.
in_order <<'MODULE'
module daemon link up
module tunnel data received: host 127\.0\.0\.1, path /tunnel, port [0-9]+$
module resolve: 127\.0\.0\.1 has an address
module set-up started
module TCP: connecting to 127\.0\.0\.1
module TCP: connected
module TLS: established
module upgrade: request sent
module upgrade: answer accepted
module OPT1: registration sent
module hand-off: the tunnel is open
module request 1 received: request 1 of 5
module answer 1 sent: answer: request 1 of 5
module request 2 received: request 2 of 5
module answer 2 sent
module request 3 received: request 3 of 5
module answer 3 sent
module request 4 received: request 4 of 5
module answer 4 sent
module request 5 received: request 5 of 5
module answer 5 sent
module fragmented message complete: 20000 bytes in 3 fragments
module answer 6 sent: answer: 20000 bytes
module ping received: 'hello'
module ping answered
module close received: status 1000
module close answered
module tunnel closed
module daemon link lost
module reconnecting to the daemon
module daemon link back
module ending: all goals are met
MODULE
in_order <<'PLATFORM_AND_DAEMON'
platform listening on 127\.0\.0\.1:[0-9]+, TLS
daemon listening on /tmp/cloudmgr_subconn\.sock
daemon module 'desk' registered
daemon tunnel data sent to module 'desk'
platform TLS: TLSv1\.[23]
platform upgrade request checked: as expected
platform upgrade answered: 101
platform OPT1 checked: model 'desk'
platform registration accepted
platform received text: answer: request 1 of 5
platform received text: answer: request 2 of 5
platform received text: answer: request 3 of 5
platform received text: answer: request 4 of 5
platform received text: answer: request 5 of 5
platform sent fragmented text: .* in 3 fragments
platform received text: answer: 20000 bytes
platform received pong: 'hello'
platform sent close: status 1000
platform received close: status 1000
platform close handshake done
daemon step: daemon restart
daemon stopped
daemon listening on /tmp/cloudmgr_subconn\.sock
daemon module 'desk' registered
PLATFORM_AND_DAEMON
in_order <<'BOTH'
daemon listening on
module daemon link up
module tunnel data received
module set-up started
platform upgrade request checked
platform OPT1 checked
module hand-off
module request 1 received
platform received text: answer: request 1 of 5
module ping received
platform received pong
module close received
platform received close
daemon step: daemon restart
module daemon link lost
daemon listening on
module daemon link back
BOTH
tail -n 1 "$output" | grep -q '^demo: every step seen' || { echo 'demo_test: the last line is missing'; exit 1; }
