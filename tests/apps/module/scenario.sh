#!/bin/bash
# Whole scenarios: cloudtunnel-module, or the example, against cloudtunnel-sim.
# Usage: scenario.sh SCENARIO SIM MODULE EXAMPLE. The functions at the end are the scenarios.
set -u
scenario=$1 sim=$2 module=$3 example=$4
work=$(mktemp -d)
sim_pid='' program_pid=''
patience=40 # seconds that anything expected may take on a busy machine

# Both processes are ended here whatever happened; KILL also ends a stopped one. Each is waited for: the next test that
# has the lock would find a daemon that still listens.
clean_up() {
    for pid in $program_pid $sim_pid; do kill -KILL "$pid" && wait "$pid"; done 2>/dev/null
    rm -rf "$work"
}
trap clean_up EXIT
trap 'exit 130' INT
trap 'exit 143' TERM

fail() {
    echo "$scenario: $1"
    for file in "$work"/*; do
        echo "--- ${file##*/}"
        cat "$file"
    done
    exit 1
}

exec 9>/tmp/cloudmgr_subconn.lock
flock -w 100 9 || fail 'another demo or test holds /tmp/cloudmgr_subconn.lock'

# wait_for FILE TEXT: until the text stands in the file, `patience` seconds at most.
wait_for() {
    local end=$((SECONDS + patience))
    until grep -q -e "$2" "$work/$1" 2>/dev/null; do
        [ $SECONDS -lt $end ] || fail "'$2' did not appear in $1"
        sleep 0.05
    done
}

# start_sim ARGUMENT...: arguments that begin with a dash are options, each other one is a step. `type_step` adds a step
# later, where --stay is among the options.
start_sim() {
    local arguments=() argument
    for argument in "$@"; do
        [[ $argument == -* ]] || arguments+=(--do)
        arguments+=("$argument")
    done
    [ -p "$work/.typed" ] || mkfifo "$work/.typed"
    exec 8<>"$work/.typed"
    "$sim" --seconds 60 --timeout $patience "${arguments[@]}" <"$work/.typed" >"$work/sim" 2>"$work/sim.errors" 8>&- 9>&- &
    sim_pid=$!
    wait_for sim 'daemon .* listening on '
}

type_step() { echo "$1" >&8; }

start_program() {
    "$@" </dev/null >"$work/program" 2>"$work/program.errors" 8>&- 9>&- &
    program_pid=$!
}

start_module() { start_program "$module" --seconds 60 "$@"; }

# sim_ends and program_ends STATUS wait for an end of their process.
sim_ends() {
    wait "$sim_pid" || fail 'a step of the simulator failed'
    sim_pid=''
}
program_ends() {
    wait "$program_pid"
    local status=$?
    program_pid=''
    [ $status -eq "$1" ] || fail "the program ended with status $status, expected $1"
}
stop_program() {
    kill -TERM "$program_pid"
    program_ends 0
}

# missing TEXT...: prints the first text that is not in the module's timeline behind the one before it.
missing() {
    local line=0 found text
    for text in "$@"; do
        found=$(tail -n +$((line + 1)) "$work/program" | grep -n -m 1 -e "$text") || {
            echo "$text"
            return
        }
        line=$((line + ${found%%:*}))
    done
}
# expect_timeline TEXT...: the texts stand in the timeline in this order.
expect_timeline() {
    local text
    text=$(missing "$@")
    [ -z "$text" ] || fail "'$text' is missing in the timeline, or not in its place"
}
# await_timeline TEXT...: waits for that, `patience` seconds at most.
await_timeline() {
    local end=$((SECONDS + patience))
    while [ -n "$(missing "$@")" ] && [ $SECONDS -lt $end ]; do sleep 0.05; done
    expect_timeline "$@"
}

exchanges() {
    start_sim wait-tunnel 'requests 3' wait-close
    start_module --exchanges 3
    sim_ends
    program_ends 0
    wait_for sim 'received close: status 1000'
    expect_timeline 'daemon link up' 'tunnel data received: host 127.0.0.1, path /tunnel, port ' 'resolve: 127.0.0.1' \
        'tunnel data stored: token of 10 ' 'set-up started' 'TCP: connecting to 127.0.0.1' 'TCP: connected' \
        'TLS: established' 'upgrade: request sent' 'upgrade: answer accepted' 'OPT1: registration sent' \
        'hand-off' 'request 1 received: request 1 of 3' 'answer 1 sent' 'answer 3 sent' 'all goals are met' \
        'close sent: status 1000' 'close received: status 1000, the answer to ours' 'tunnel closed' \
        '3 requests answered, 1 tunnels, 1 daemon links'
}

# 16376 and 8 bytes are twice the fragment size: a body that the library's cutter would not send whole.
long_messages() {
    start_sim --mask wait-tunnel 'large 8184' 'large 8185' 'large 16376' 'large 100000' 'fragmented 1' \
        'fragmented 8192' 'fragmented 300000' 'binary abc' 'request after all that'
    start_module
    sim_ends
    stop_program
    expect_timeline 'fragmented message complete: 300000 bytes in' 'request 9 received: after all that'
}

burst() {
    start_sim wait-tunnel 'burst 50' 'request after the burst'
    start_module --log "$work/log" --log-level 9
    sim_ends
    stop_program
    wait_for log '^PACKAGE DETAIL '
}

refused_then_accepted() {
    local refusals=('set-up failed: registration_refused: .*, retCode 5;' 'next start in' 'set-up failed: accept_wrong: .*101;'
        'next start in' 'set-up failed: upgrade_refused: .*, HTTP status 403;' 'next start in')
    start_sim --ret-code=5 --stay
    start_module
    await_timeline "${refusals[@]:0:2}"
    type_step 'set upgrade wrong-accept'
    type_step 'set ret-code 0'
    await_timeline "${refusals[@]:0:4}"
    type_step 'set answer-status 403'
    await_timeline "${refusals[@]}"
    type_step 'set answer-status 101'
    type_step 'set upgrade accept'
    type_step wait-tunnel
    type_step 'request hello'
    type_step quit
    sim_ends
    stop_program
    expect_timeline "${refusals[@]}" 'hand-off' 'answer 1 sent'
}

# A reset discards what the module has not read yet, so it comes after the module has logged the hand-off.
lost() {
    start_sim --stay wait-tunnel
    start_module
    await_timeline 'hand-off'
    for step in drop wait-close wait-tunnel 'ping still there' 'request hello' quit; do type_step "$step"; done
    sim_ends
    stop_program
    expect_timeline 'tunnel lost: ' 'next start in' 'hand-off' 'ping answered' 'answer 1 sent'
}

tunnels() {
    start_sim --stay wait-tunnel 'close 1001' wait-close wait-tunnel
    start_module --tunnels 2
    await_timeline 'hand-off' 'close received: status 1001' 'hand-off'
    type_step drop
    program_ends 0
    expect_timeline 'close received: status 1001' 'tunnel closed' 'tunnel lost: ' 'all goals are met' ', 2 tunnels, '
}

close_of_any_status() {
    start_sim wait-tunnel 'close-frame 3000 unknown status' wait-close wait-tunnel 'request hello'
    start_module
    sim_ends
    stop_program
    expect_timeline 'close received: status 3000, unknown status' 'close answered' 'tunnel closed' 'next start in' 'hand-off'
}

close_twice() {
    start_sim wait-tunnel 'raw 880203e8 880203e8' wait-close wait-tunnel 'request hello'
    start_module
    sim_ends
    stop_program
    expect_timeline 'close received: status 1000' 'close answered' 'tunnel closed' 'hand-off'
    [ "$(grep -c 'close received: status 1000$' "$work/program")" -eq 1 ] || fail 'the second close was not ignored'
}

protocol_error() {
    start_sim wait-tunnel 'raw 800161' wait-close wait-tunnel 'raw 8300' wait-close wait-tunnel 'request hello'
    start_module
    sim_ends
    stop_program
    expect_timeline 'frame refused: protocol: .*fragment out of turn' 'close sent: status 1002' 'tunnel closed' \
        'frame refused: protocol: .*unexpected frame' 'close sent: status 1002' 'tunnel closed' 'answer 1 sent'
}

# A text frame "length:2000\n".
too_long() {
    start_sim wait-tunnel 'raw 810c 6c656e6774683a323030300a' wait-close wait-tunnel 'request hello'
    start_module --max-message 1999
    sim_ends
    stop_program
    expect_timeline 'frame refused: too_long: .*message too long' 'close sent: status 1009' 'tunnel closed' 'answer 1 sent'
}

end_by_signal() {
    start_sim wait-tunnel wait-close
    start_module
    wait_for program 'hand-off'
    stop_program
    sim_ends
    expect_timeline 'ending: signal 15' 'close sent: status 1000' 'tunnel closed'
}

# The platform's close is under way when the signal comes: the tunnel is not started again.
# The module waits for a second until the platform ends the connection: its own handler sends the signal at once.
end_inside_a_close() {
    start_sim wait-tunnel 'close 1000' wait-close
    start_module --exec "grep -q closing && kill -TERM \$PPID"
    await_timeline 'close answered'
    program_ends 0
    sim_ends
    expect_timeline 'close answered' 'ending: signal 15' 'tunnel closed' '0 requests answered, 1 tunnels'
    [ "$(grep -c 'pausing  next start' "$work/program")" -eq 1 ] || fail 'another tunnel was to be started'
}

# The daemon's data come while the tunnel is open, and while it is being set up.
same_data_again() {
    local story=('hand-off' 'the tunnel stays' 'answer 1 sent' 'OPT1: registration sent' 'the tunnel stays')
    start_sim --stay wait-tunnel 'tunnel desk' 'request hello' 'set opt1 silence' 'close' wait-close
    start_module
    await_timeline "${story[@]:0:4}"
    type_step 'tunnel desk'
    await_timeline "${story[@]}"
    type_step quit
    sim_ends
    stop_program
}

closed_by_daemon() {
    start_sim wait-tunnel 'closed desk' wait-close 'third desk' 'sleep 100' 'tunnel desk' wait-tunnel 'request hello'
    start_module
    sim_ends
    stop_program
    expect_timeline 'the daemon has closed the model' 'close sent: status 1000, closed by the daemon' 'tunnel closed' \
        'waiting for tunnel data' "the daemon's third notice" 'hand-off' 'answer 1 sent'
}

# The daemon accepts the link and never answers the registration. The library waits, and a signal must still end the
# program.
silent_daemon() {
    start_sim
    kill -STOP "$sim_pid"
    start_module
    wait_for program "module 'desk'"
    sleep 0.3
    stop_program
}

# What a service manager learns of the module, and that its watchdog is fed.
service() {
    python3 "$(dirname "$0")/service_manager.py" "$work/.manager" >"$work/manager" 8>&- 9>&- &
    local manager_pid=$!
    wait_for manager listening
    start_sim wait-tunnel wait-close
    start_program env NOTIFY_SOCKET="$work/.manager" WATCHDOG_USEC=1000 "$module" --seconds 60
    wait_for manager '^READY=1$'
    wait_for manager '^STATUS=tunnel: open$'
    wait_for manager '^WATCHDOG=1$'
    stop_program
    wait "$manager_pid" || fail 'the service manager was not notified of the end'
    sim_ends
    [ "$(sed -n 2p "$work/manager")" = READY=1 ] || fail 'the end of the start is not what comes first'
}

no_daemon() {
    start_program "$module" --seconds 1 --links 1
    program_ends 1
    expect_timeline 'no daemon yet' 'ending: time is up'
    [ "$(grep '^cloudtunnel-module' "$work/program.errors")" = \
        'cloudtunnel-module: a goal was not met within --seconds' ] || fail 'the reason is missing'
}

# The C example does the same.
example() {
    start_sim wait-tunnel 'request hello' 'fragmented 20000' 'ping hello' 'tunnel base' 'request once more' 'close 1000 bye' \
        wait-close wait-tunnel 'request again'
    start_program "$example" base
    sim_ends
    stop_program
}

$scenario
