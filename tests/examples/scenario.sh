#!/bin/bash
# Whole scenarios of an example on libcloudtunnel-module, against cloudtunnel-sim.
# Usage: scenario.sh SCENARIO SIM EXAMPLE [MODULE]. The functions are the scenarios; a handler needs cloudtunnel-module.
set -u
stage=$(dirname "$0")/../apps/module/scenario.sh
example=$3

module=${4:-}

start_example() {
    if [ -n "$module" ]; then
        start_program "$module" --model base --seconds 60 --exec "$example"
    else
        start_program "$example" base
    fi
}

# wait_for_state STATE: the example names each state that its tunnel enters.
wait_for_state() { wait_for program.errors "^base: $1 "; }

# ticks: the processor time that the example has used, in hundredths of a second.
ticks() { awk '{ print $14 + $15 }' "/proc/$program_pid/stat"; }

# Text is answered by text and binary by binary, whole, whatever came and goes out in fragments; a tunnel that was lost
# comes back; the end is a close frame.
echoes() {
    start_sim --any-answer wait-tunnel 'request a text' 'binary some bytes' 'fragmented 20000' 'large 100000' \
        'ping hello' drop wait-close wait-tunnel 'request once more' --stay
    start_example
    wait_for sim 'received text: once more'
    for received in 'text: a text' 'binary: some bytes' 'fragmented text: 20000 bytes' 'fragmented text: 100000 bytes'; do
        wait_for sim "received $received"
    done
    stop_program
    wait_for sim 'received close: status 1000'
    type_step quit
    sim_ends
}

# The loop waits: while nothing happens, the example uses next to no processor time.
idles() {
    start_sim --any-answer wait-tunnel 'request hello' --stay
    start_example
    wait_for sim 'received text: hello'
    local before
    before=$(ticks)
    type_step 'sleep 1000'
    type_step quit
    sim_ends
    [ $(($(ticks) - before)) -lt 10 ] || fail "it used $(($(ticks) - before)) hundredths of an idle second"
    stop_program
}

# now: microseconds of a clock.
now() { echo "${EPOCHREALTIME/[^0-9]/}"; }

# The library waits so long for the answer to a close.
close_us=5000000

# Nothing but the loop's own time ends a close that the peer does not answer.
gives_up_on_a_silent_peer() {
    start_sim wait-tunnel --stay
    start_example
    wait_for_state open
    kill -STOP "$sim_pid"
    local start
    start=$(now)
    stop_program
    local took=$(($(now) - start))
    [ $took -ge $((close_us - 100000)) ] || fail 'it did not wait for the answer to its close'
    [ $took -lt $((2 * close_us)) ] || fail "it waited $took us for the answer to its close"
}

ends_at_once_by_a_second_signal() {
    start_sim wait-tunnel --stay
    start_example
    wait_for_state open
    kill -STOP "$sim_pid"
    local start
    start=$(now)
    kill -INT "$program_pid"
    wait_for_state closing
    stop_program
    [ $(($(now) - start)) -lt $close_us ] || fail 'it waited for the answer to its close'
}

ends_without_a_daemon() {
    start_example
    wait_for_state waiting
    stop_program
}

# shellcheck source=tests/apps/module/scenario.sh
. "$stage" "$1" "$2" "$module" "$example"
