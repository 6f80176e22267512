#!/bin/bash
# Scenarios with handlers: what other programs read and write in lines. Called as scenario.sh is.
# shellcheck disable=SC2154 # scenario.sh sets the variables
here=$(dirname "$0")

# handler NAME: makes an executable shell script of standard input, which finds the test's folder in $work.
handler() {
    { echo '#!/bin/bash'; echo "work=$work"; cat; } >"$work/.$1"
    chmod +x "$work/.$1"
}

# A handler that keeps what it reads and answers each message as the simulator expects it.
echo_handler() {
    handler echo <<'HANDLER'
while read -r line; do
    echo "$line" >>"$work/handler"
    if [[ $line == *'"event":"message"'*'"text":"'* ]]; then
        text=${line##*'"text":"'}
        echo '{"send":"answer: '"${text%'"}'}"'"}'
    fi
done
echo 'end of input' >>"$work/handler"
HANDLER
}

# lines_of FILE TEXT...: the texts stand in the file in this order.
lines_of() {
    local file=$1 line=0 found text
    shift
    for text in "$@"; do
        found=$(tail -n +$((line + 1)) "$work/$file" | grep -n -m 1 -F -e "$text") ||
            fail "'$text' is missing in $file, or not in its place"
        line=$((line + ${found%%:*}))
    done
}

# start_lines ARGUMENT...: a program with --lines. `say` writes to its standard input; its standard output is the file
# `lines`, its timeline is the file `program`.
start_lines() {
    mkfifo "$work/.said"
    exec 7<>"$work/.said"
    "$module" --seconds 60 --lines "$@" <"$work/.said" >"$work/lines" 2>"$work/program" 7>&- 8>&- 9>&- &
    program_pid=$!
}
say() { printf '%s\n' "$@" >&7; }

# ------------------------------------------------------------------------------------------------------------ --exec

handler_answers() {
    echo_handler
    start_sim wait-tunnel 'request hello' 'request again' 'ping x' 'close 1000 bye' wait-close
    start_module --exec "$work/.echo"
    sim_ends
    stop_program
    lines_of handler '{"event":"state","model":"desk","state":"waiting","cause":"no_data","detail":"the daemon is connected"}' \
        '{"event":"step","model":"desk","step":"data"}' \
        '"state":"connecting"' '"step":"tcp"' '"step":"tls"' '"step":"upgrade_sent"' '"step":"upgraded"' \
        '"step":"registering"' '{"event":"state","model":"desk","state":"open","cause":"none","detail":""}' \
        '{"event":"message","model":"desk","type":"text","text":"hello"}' '"text":"again"' \
        '"state":"closing","cause":"closed_by_peer","detail":"bye","close_status":1000' \
        '{"event":"closed","model":"desk","status":1000,"reason":"bye"}' '"state":"pausing"' \
        '"state":"closed","cause":"closed_by_us"' 'end of input'
    [ "$(grep -c '"step":"tcp"' "$work/handler")" -eq 1 ] || fail 'a step was shown twice'
    expect_timeline 'handler started' 'request 1 received: hello' 'ping answered' 'ending: signal 15' \
        'handler ended: status 0$' '2 requests answered, 1 tunnels'
}

# The first run ends with a status, the second one by a signal, which the shell above it turns into a status; each has its requests taken up to the last.
handler_restarted() {
    handler once <<'HANDLER'
run=$(cat "$work/.runs" 2>/dev/null)
echo "$((run + 1))" >"$work/.runs"
while read -r line; do
    [[ $line == *'"event":"message"'* ]] || continue
    printf '{"send":"answer: hello"}'
    case $run in
        '') exit 3 ;;
        1) sleep 0.1; kill -KILL $$ ;;
        *) echo ;;
    esac
done
HANDLER
    start_sim --stay wait-tunnel 'request hello'
    start_module --exec "$work/.once"
    await_timeline 'handler ended: status 3; next start in 1.0 s' 'handler started'
    type_step 'request hello'
    await_timeline 'handler ended: status 137; next start in 2.0 s' 'handler started'
    type_step 'request hello'
    type_step quit
    sim_ends
    stop_program
    expect_timeline '3 requests answered, 1 tunnels'
}

handler_not_found() {
    start_sim wait-tunnel
    start_module --exec /nowhere/handler
    await_timeline 'handler ended: status 127; next start in 1.0 s' 'handler ended: status 127; next start in 2.0 s'
    sim_ends
    stop_program
    grep -q '/nowhere/handler' "$work/program.errors" || fail 'the shell has not said why'
}

# It sends and does not read: with its standard input closed no line waits for it.
handler_that_only_sends() {
    handler sender <<'HANDLER'
exec <&-
while sleep 0.1; do echo '{"send":"tick"}'; done
HANDLER
    start_sim --any-answer wait-tunnel 'expect tick' 'expect tick'
    start_module --exec "$work/.sender"
    sim_ends
    kill -TERM "$program_pid"
    program_ends 0
}

handler_that_does_not_read() {
    handler lazy <<'HANDLER'
echo "$$" >>"$work/lazy"
exec sleep 60
HANDLER
    start_sim --any-answer --stay wait-tunnel
    start_module --exec "$work/.lazy" --socket "$work/.socket"
    wait_for program 'hand-off'
    python3 "$here/line_client.py" "$work/.socket" answer >"$work/client" 7>&- 8>&- 9>&- &
    wait_for client connected
    for _ in $(seq 6); do type_step 'large 1000000'; done
    await_timeline 'handler ended: signal 9; next start in' 'handler started'
    type_step quit
    sim_ends
    kill -TERM "$program_pid"
    program_ends 0
    wait_for client disconnected
    grep -q 'handler stopped: it reads too slowly' "$work/program.errors" || fail 'the reason is missing'
    # The second run did not notice the end of its input, and was ended by a signal.
    while read -r pid; do
        ! grep -q '^State:.[^Z]' "/proc/$pid/status" 2>/dev/null || fail "process $pid has outlived the program"
    done <"$work/lazy"
}

# A tunnel's sockets belong to the program alone.
handler_inherits_nothing() {
    handler list <<'HANDLER'
ls -l /proc/self/fd >"$work/list"
trap '' PIPE
(trap) >>"$work/list"
exec cat >/dev/null
HANDLER
    start_sim wait-tunnel 'close 1000' wait-close wait-tunnel
    start_module --exec "$work/.list"
    sim_ends
    stop_program
    [ -s "$work/list" ] || fail 'the handler has not run'
    ! grep -q -e socket -e eventpoll "$work/list" || fail 'the handler has a descriptor of the program'
}

# ------------------------------------------------------------------------------------------------------------ --lines

standard_lines() {
    start_sim wait-tunnel 'expect hello' 'expect bytes' 'request question'
    start_lines
    wait_for lines '"state":"open"'
    say '{"send":"hello"}' '{"send_base64":"Ynl0ZXM=","model":"desk"}' '{"ping":true}'
    wait_for lines '"text":"question"'
    say '{"send":"answer: question"}'
    sim_ends
    stop_program
    lines_of lines '"state":"closed"' '"state":"open"' '{"event":"pong","model":"desk","round_trip_us":'
    expect_timeline 'hand-off' 'pong received: round trip '
    expect_timeline 'hand-off' 'request 1 received: question' '3 requests answered'
    grep -q 'received binary: bytes' "$work/sim" || fail 'the bytes were not sent as binary'
    ! grep -q -v '^{.*}$' "$work/lines" || fail 'standard output has something else than lines'
}

closed_and_opened_again() {
    start_sim wait-tunnel wait-close wait-tunnel 'expect back'
    start_lines
    wait_for lines '"state":"open"'
    say '{"close":3001,"reason":"that is all"}'
    wait_for lines '"state":"closed","cause":"closed_by_us","detail":"that is all","close_status":3001'
    say '{"send":"too early"}' '{"open":true}' '{"open":true}'
    await_timeline 'close sent: status 3001, that is all' 'close received: status 3001, the answer to ours' \
        'tunnel closed' 'hand-off'
    say '{"send":"back"}'
    sim_ends
    stop_program
    lines_of lines '{"event":"closed","model":"desk","status":3001,"reason":""}' \
        '{"event":"refused","model":"desk","line":2,"result":"the tunnel is not open"}' \
        '{"event":"refused","model":"desk","line":4,"result":"the tunnel is opened already"}'
}

refused_requests() {
    local long
    start_sim wait-tunnel 'expect end'
    start_lines --max-message 200
    wait_for lines '"state":"open"'
    long=$(printf '%0201d' 0)
    say '{"send":"'"$long"'"}' '{"close":1005}' '{"close":1000,"reason":"'"${long:0:124}"'"}' '{"ping":true}' \
        '{"ping":true}' '{"send":"end"}'
    sim_ends
    stop_program
    lines_of lines "\"line\":1,\"result\":\"the message is too long\"" \
        '"line":2,"result":"this close status may not be sent"' \
        '"line":3,"result":"the reason is longer than 123 bytes"' '"line":5,"result":"the last ping has no answer yet"'
}

# Each broken line is named by its number and skipped; the next one is done.
broken_lines() {
    local longest=$((6 * 125 + 512))
    start_sim wait-tunnel 'expect end'
    start_lines --max-message 125 --metrics "$work/metrics"
    wait_for lines '"state":"open"'
    say 'hello' '' '{"send":"x"' '{"tell":"x"}' '{"send":1}' '{"send_base64":"?"}' '{"send":"x","model":"wifi"}' '{}' \
        "$(printf "%0$((longest + 1))d" 0)" $'{"send":"\xff"}' '{"close":70000}' '{"send":"x","ping":true}' '{"send":"end"}'
    sim_ends
    stop_program
    lines_of program 'standard input: line 1 skipped: not JSON' 'line 2 skipped: empty' \
        'line 3 skipped: not JSON: unexpected end of data' 'line 4 skipped: unknown key "tell"' \
        'line 5 skipped: "send" is not a string' 'line 6 skipped: "send_base64" is not base64' \
        'line 7 skipped: unknown model "wifi"' 'line 8 skipped: none of the keys' \
        "line 9 skipped: longer than $longest bytes" 'line 10 skipped: not JSON' \
        'line 11 skipped: "close" is not a number from 0 to 65535' 'line 12 skipped: more than one of the keys' \
        '12 broken lines skipped' '1 requests answered'
    python3 "$here/openmetrics.py" "$work/metrics" cloudtunnel_module_lines_skipped_total=12 || fail 'not counted'
}

# The end of the input is no reason to end; the end of the reader is one.
nobody_reads() {
    start_sim wait-tunnel wait-close
    mkfifo "$work/.lines"
    "$module" --seconds 60 --lines </dev/null >"$work/.lines" 2>"$work/program" 8>&- 9>&- &
    program_pid=$!
    head -n 11 <"$work/.lines" >"$work/head"
    program_ends 0
    sim_ends
    expect_timeline 'hand-off' 'ending: nobody reads the lines' 'close sent: status 1000'
}

# ----------------------------------------------------------------------------------------------------------- --socket

client() {
    local name=$1
    shift
    python3 "$here/line_client.py" "$work/.socket" "$@" >"$work/$name" 2>&1 7>&- 8>&- 9>&- &
    wait_for "$name" connected
}

socket_clients_come_and_go() {
    start_sim --stay wait-tunnel
    start_module --socket "$work/.socket"
    wait_for program 'hand-off'
    [ "$(stat -c '%a %F' "$work/.socket")" = '600 socket' ] || fail 'the socket is not for one user alone'
    client watcher watch
    client answerer answer
    client sayer say '"event":"refused"' '{"send":"from the third"}' nonsense '{"close":1}'
    type_step 'expect from the third'
    type_step 'request hello'
    wait_for watcher '"text":"hello"'
    await_timeline 'client 1 connected' 'client 2 connected' 'client 3 connected' 'client 3 gone'
    client late say '"state":"open"'
    wait_for late '"state":"open"'
    type_step 'request still there'
    type_step quit
    sim_ends
    stop_program
    wait_for watcher disconnected
    lines_of watcher '"state":"open"' '"text":"hello"' '"text":"still there"' '"event":"closed"' '"state":"closed"'
    lines_of answerer '"state":"open"' '"text":"hello"' '"text":"still there"'
    lines_of sayer '"state":"open"' '"line":3,"result":"this close status may not be sent"'
    lines_of late '{"event":"state","model":"desk","state":"open","cause":"none","detail":""}'
    ! grep -q refused "$work/watcher" || fail 'what one has asked for was refused to another'
    grep -q 'client 3: line 2 skipped: not JSON' "$work/program.errors" || fail 'the broken line is not named'
    [ ! -e "$work/.socket" ] || fail 'the socket was left behind'
}

slow_client_is_dropped() {
    start_sim --any-answer --stay wait-tunnel
    start_module --socket "$work/.socket" --metrics "$work/metrics"
    wait_for program 'hand-off'
    client lazy lazy
    client answerer answer
    for _ in $(seq 6); do type_step 'large 1000000'; done
    wait_for lazy disconnected
    type_step 'request hello'
    wait_for answerer '"text":"hello"'
    type_step quit
    sim_ends
    stop_program
    grep -q 'client 1 dropped: it reads too slowly' "$work/program.errors" || fail 'the reason is missing'
    python3 "$here/openmetrics.py" "$work/metrics" cloudtunnel_module_clients_dropped_total=1 || fail 'not counted'
}

# A path on which a program listens stays its own; one that was left behind is taken.
socket_taken() {
    start_sim --no-announce --stay
    start_module --socket "$work/.socket"
    wait_for program 'module '
    client watcher watch
    "$module" --socket "$work/.socket" >"$work/second" 2>&1 </dev/null 8>&- 9>&-
    [ $? -eq 1 ] || fail 'two programs have made the same socket'
    grep -q 'socket .*/.socket cannot be made: Address .*in use' "$work/second" || fail 'the reason is missing'
    kill -KILL "$program_pid"
    wait "$program_pid" 2>/dev/null
    [ -S "$work/.socket" ] || fail 'nothing was left behind'
    start_module --socket "$work/.socket"
    await_timeline 'waiting for tunnel data'
    client again watch
    stop_program
    type_step quit
    sim_ends
    echo kept >"$work/file"
    "$module" --socket "$work/file" >"$work/second" 2>&1 </dev/null
    [ $? -eq 1 ] || fail 'a file was taken for a socket'
    [ "$(cat "$work/file")" = kept ] || fail 'a file was lost'
}

# --------------------------------------------------------------------------------------------------------- the others

# Tunnel data that come while a later model registers would be read in place of the answer, so both register first.
several_models() {
    start_sim --no-announce 'wait-module base' 'wait-module wifi' 'tunnel base' 'wait-tunnel base' 'tunnel wifi' \
        'wait-tunnel wifi' 'use base' 'expect to base' 'use wifi' 'expect to wifi'
    start_lines --model base --model wifi --metrics "$work/metrics"
    await_timeline '\[base\] hand-off'
    await_timeline '\[wifi\] hand-off'
    say '{"send":"to whom"}' '{"send":"to base","model":"base"}' '{"send":"to wifi","model":"wifi"}'
    sim_ends
    stop_program
    lines_of program 'line 1 skipped: no model is named, and there are several'
    expect_timeline "open     \[base\] " '-        ending: signal 15' 'ended    2 requests\|-        2 requests answered, 2 tunnels'
    for model in base wifi; do lines_of lines "\"model\":\"$model\",\"state\":\"open\""; done
    python3 "$here/openmetrics.py" "$work/metrics" 'cloudtunnel_opened_total{model="base"}=1' \
        'cloudtunnel_messages_out_total{model="wifi"}=1' || fail 'the metrics are wrong'
}

metrics() {
    start_sim --stay wait-tunnel 'requests 3'
    start_module --metrics "$work/metrics"
    wait_for program 'answer 3 sent'
    python3 "$here/openmetrics.py" "$work/metrics" cloudtunnel_module_handler_starts_total=0 || fail 'not valid'
    wait_for metrics '^cloudtunnel_messages_out_total{model="desk"} 3$'
    python3 "$here/openmetrics.py" "$work/metrics" cloudtunnel_daemon=1 \
        'cloudtunnel_state{model="desk",cloudtunnel_state="open"}=1' || fail 'not valid while it runs'
    type_step 'request last'
    type_step quit
    sim_ends
    stop_program
    python3 "$here/openmetrics.py" "$work/metrics" 'cloudtunnel_messages_out_total{model="desk"}=4' \
        'cloudtunnel_state{model="desk",cloudtunnel_state="closed"}=1' || fail 'not written at the end'
    [ ! -e "$work/metrics.new" ] || fail 'a half file was left behind'
    mkfifo "$work/.pipe"
    for name in /nowhere/metrics "$work/.pipe"; do
        "$module" --metrics "$name" >"$work/second" 2>"$work/second.errors" </dev/null
        [ $? -eq 1 ] || fail "$name: a file that cannot be written is no failure"
        grep -q "the metrics file $name cannot be written$" "$work/second.errors" || fail 'the reason is missing'
    done
    [ -p "$work/.pipe" ] || fail 'what is no file was replaced'
}

log_opened_anew() {
    start_sim --stay wait-tunnel
    start_module --log "$work/log" --log-level 9
    wait_for program 'hand-off'
    mv "$work/log" "$work/log.1"
    kill -HUP "$program_pid"
    await_timeline 'log file opened anew'
    type_step 'request hello'
    wait_for log 'Rcv websocket msg'
    kill -HUP "$program_pid"
    await_timeline 'log file opened anew' 'answer 1 sent' 'log file opened anew'
    [ "$(grep -c 'Rcv websocket msg' "$work/log")" -gt 0 ] || fail 'what was in the file is lost'
    mv "$work/log" "$work/log.2"
    mkdir "$work/log"
    kill -HUP "$program_pid"
    wait_for program.errors 'the log file cannot be opened anew: the old one goes on'
    rmdir "$work/log"
    type_step 'request hello'
    type_step quit
    sim_ends
    stop_program
    expect_timeline 'answer 2 sent'
}

hang_up_without_log() {
    start_sim --stay wait-tunnel
    start_module
    wait_for program 'hand-off'
    kill -HUP "$program_pid"
    type_step 'request hello'
    type_step quit
    sim_ends
    stop_program
}

pings() {
    start_sim --stay wait-tunnel
    start_module --ping 1
    await_timeline 'hand-off' 'pong received: round trip .* ms' 'pong received: round trip .* ms'
    kill -STOP "$sim_pid"
    await_timeline 'tunnel lost: dead: no sign of life from the peer'
    kill -CONT "$sim_pid"
    type_step quit
    sim_ends
    stop_program
}

# shellcheck source-path=SCRIPTDIR source=scenario.sh
. "$here/scenario.sh"
