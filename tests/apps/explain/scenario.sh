#!/bin/bash
# Causes provoked for real: cloudtunnel-module writes the library's log against cloudtunnel-sim, and cloudtunnel-explain
# tells what happened. Usage: scenario.sh SCENARIO SIM MODULE EXPLAIN. The functions at the end are the scenarios.
set -u
scenario=$1 sim=$2 module=$3 explain=$4
work=$(mktemp -d)
sim_pid='' module_pid='' level=5
patience=40 # seconds that anything expected may take on a busy machine

# Both processes are ended here whatever happened, and waited for: the next test that has the lock would find a daemon
# that still listens.
clean_up() {
    for pid in $module_pid $sim_pid; do kill -KILL "$pid" && wait "$pid"; done 2>/dev/null
    rm -rf "$work"
}
trap clean_up EXIT
trap 'exit 130' INT
trap 'exit 143' TERM

fail() {
    echo "$scenario: $1"
    for file in "$work"/*; do
        echo "--- ${file##*/}"
        cut -c 1-300 "$file"
    done
    exit 1
}

exec 9>/tmp/cloudmgr_subconn.lock
flock -w 100 9 || fail 'another demo or test holds /tmp/cloudmgr_subconn.lock'

# wait_for FILE TEXT: until the text stands in the file, `patience` seconds at most.
wait_for() {
    local end=$((SECONDS + patience))
    until grep -q -a -e "$2" "$work/$1" 2>/dev/null; do
        [ $SECONDS -lt $end ] || fail "'$2' did not appear in $1"
        sleep 0.05
    done
}

# run TEXT ARGUMENT...: a simulator with these arguments, those without a dash are steps, and a module until the text
# stands in its log. A stopped module closes an open tunnel; one that is stopped late has started again. The answer to a
# request shows that the module has the tunnel, which a reset would take from one that has not read so far.
run() {
    local awaited=$1 arguments=() argument
    shift
    for argument in "$@"; do
        [[ $argument == -* ]] || arguments+=(--do)
        arguments+=("$argument")
    done
    "$sim" --seconds 60 --timeout $patience --stay "${arguments[@]}" </dev/null >"$work/sim" 2>&1 9>&- &
    sim_pid=$!
    wait_for sim 'daemon .* listening on '
    start_module "$awaited"
}

start_module() {
    "$module" --seconds 60 --log "$work/log" --log-level "$level" </dev/null >"$work/module" 2>&1 9>&- &
    module_pid=$!
    wait_for log "$1"
    kill -TERM "$module_pid"
    wait "$module_pid"
    module_pid=''
    "$explain" "$work/log" >"$work/told" || fail 'the log was not explained'
    grep -q ', 0 unknown$' "$work/told" || fail 'a line is unknown'
    "$explain" --blanked "$work/log" >"$work/blanked"
    ! grep -q -e 'desk-token' -e 'desk-cookie' "$work/blanked" "$work/told" || fail 'a secret is shown'
}

tells() {
    local text
    for text in "$@"; do grep -q -e "$text" "$work/told" || fail "'$text' is not told"; done
}

open() {
    run 'rcv close msg' wait-tunnel 'close 1000 bye'
    tells 'desk: up: TCP to 127.0.0.1:[0-9]*, TLS, upgrade and the registration' \
        'the platform closed the tunnel with status 1000 and the reason "bye"' '[1-9] came up, down at the end'
}
upgrade_refused() {
    level=6
    run 'not expect http resp status' --answer-status=403
    tells 'failed at the upgrade; TCP to .*, TLS came up' 'answered the upgrade with HTTP status 403 Forbidden'
}
status_hidden() {
    run 'not expect http resp status' --answer-status=502
    tells 'answered the upgrade with another HTTP status than 101' 'look at: .* level 6 shows the status'
}
accept_wrong() {
    run 'Rcv acception error' --upgrade=wrong-accept
    tells 'the Sec-WebSocket-Accept of the answer 101 does not belong' 'wrong accept key [1-9]'
}
upgrade_closed() {
    run 'connect failed process complete' --upgrade=close
    tells 'ended the connection in place of an answer to the upgrade'
}
registration_refused() {
    run 'error ret code 5' --ret-code=5
    tells 'failed at the registration; TCP to .*, TLS, upgrade came up' 'refused the registration with retCode 5'
}
registration_malformed() {
    run 'Parsing json error' --opt1=malformed
    tells 'answer to the registration is no JSON'
}
registration_binary() {
    run 'error opt code 2' --opt1=binary
    tells 'answered the registration with a frame of opcode 2, not a text'
}
registration_closed() {
    run 'connect failed process complete' --opt1=close
    tells 'in place of an answer to the registration'
}
name_unknown() {
    run 'because no addrinfo' --host=nowhere.invalid
    tells 'the name nowhere.invalid was not resolved: ' 'the name was not resolved [1-9]'
}
refused() {
    run 'Connect proc failed' --no-platform --port=9
    tells 'connecting to 127.0.0.1:9 failed: Connection refused' 'connection refused [1-9]'
}
# The platform speaks no TLS where the library does: on every port but 80.
no_tls() {
    run 'Ssl connection(read) was not completed' --plain --port=8443
    tells 'the set-up failed at TLS; TCP to 127.0.0.1:8443 came up'
}
broken() {
    run 'Socket data proc error' wait-tunnel 'request hello' drop
    tells 'desk: the tunnel ended' 'the connection broke (Connection reset by peer)'
}
closed() {
    run 'Del ws connect node ok' wait-tunnel
    tells 'desk: the tunnel ended' 'closed by this side 1'
}
daemon_closed() {
    run 'Del socket connect node ok' wait-tunnel 'request hello' 'closed desk'
    tells "the daemon's notice: the tunnel is closed" "after the daemon's notice that"
}
errors_only() {
    level=2
    run 'error ret code 5' --ret-code=5
    tells 'refused the registration with retCode 5' '[1-9] set-up'
}
everything() {
    level=9
    run 'rcv close msg' wait-tunnel 'requests 2' 'fragmented 20000' 'ping hello' 'close 1000 bye'
    tells '[0-9]:[0-9]*\.[0-9]* 20[0-9]*  desk: up: ' 'status 1000 and the reason "bye"'
}
no_daemon() {
    start_module 'connect kyrcloud error'
    tells 'daemon: no link: .*; the library tries again every 10 s'
}

$scenario
