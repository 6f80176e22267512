#!/bin/bash
# The recorded sessions of this folder: replays one against cloudtunnel-module, or records it anew.
# Usage: sessions.sh replay|record SESSION SIM MODULE. The functions at the end are the sessions.
set -u
mode=$1 session=$2 sim=$3 module=$4
here=$(cd "$(dirname "$0")" && pwd)
work=$(mktemp -d)
sim_pid='' module_pid=''

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
    echo "$session: $1"
    tail -n 40 "$work"/*
    exit 1
}

exec 9>/tmp/cloudmgr_subconn.lock
flock -w 100 9 || fail 'another demo or test holds /tmp/cloudmgr_subconn.lock'

# run_sim OPTION...: the module starts once the simulator listens.
run_sim() {
    "$sim" --seconds 100 --timeout 30 "$@" </dev/null >"$work/sim" 2>"$work/sim.errors" 9>&- &
    sim_pid=$!
    until grep -q 'daemon .* listening on ' "$work/sim" || ! kill -0 "$sim_pid" 2>/dev/null; do sleep 0.05; done
    "$module" --seconds 100 "${module_options[@]}" </dev/null >"$work/module" 2>&1 9>&- &
    module_pid=$!
    wait "$sim_pid"
    local status=$?
    sim_pid=''
    kill -TERM "$module_pid"
    wait "$module_pid"
    module_pid=''
    if grep -q 'cannot listen on .*: Permission denied' "$work/sim.errors"; then
        echo "$session: left out, since this user may not listen on the session's port"
        exit 77
    fi
    [ $status -eq 0 ] || fail "the simulator ended with status $status"
}

# play OPTION-OR-STEP...: arguments that begin with a dash are options, each other one is a step; both for recording.
module_options=()
play() {
    local arguments=() argument
    case $mode in
        replay)
            run_sim --replay "$here/$session.session"
            [ ! -s "$work/sim.errors" ] || fail 'the replay complains'
            ;;
        record)
            for argument in "$@"; do
                [[ $argument == -* ]] || arguments+=(--do)
                arguments+=("$argument")
            done
            run_sim --record "$work/recorded" "${arguments[@]}"
            cp "$work/recorded" "$here/$session.session"
            ;;
    esac
}

# TLS 1.2 and 1.3, with messages of every kind.
messages() {
    play --tls=1.3 wait-tunnel 'request hello' 'binary abc' 'large 300' 'fragmented 1000' 'burst 5' 'ping still there'
}
tls12() { play --tls=1.2 wait-tunnel 'requests 3'; }

# Without TLS, on the one port where the library uses none.
plain() { play --plain --port=80 wait-tunnel 'request hello' 'ping hello'; }

refused_upgrade() { play --answer-status=403 wait-module 'sleep 1000' 'set answer-status 101' wait-tunnel 'request hello'; }
refused_registration() { play --ret-code=5 wait-module 'sleep 1000' 'set ret-code 0' wait-tunnel 'request hello'; }
wrong_accept() { play --upgrade=wrong-accept wait-module 'sleep 1000' 'set upgrade accept' wait-tunnel; }

daemon_restart() { play wait-tunnel 'daemon restart 1' wait-module wait-tunnel 'request hello'; }

closed_by_platform() { play wait-tunnel 'close 1000 bye' wait-close wait-tunnel 'request again'; }
closed_by_module() {
    module_options=(--exchanges 1)
    play wait-tunnel 'request last' wait-close
}
dropped() { play wait-tunnel 'request hello' drop wait-close wait-tunnel; }

$session
