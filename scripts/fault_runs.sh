#!/bin/bash
# Runs a module against each fault of the simulator's table and prints, as the rows of a table in Markdown, what the
# library logs and what the module sees. Each fault is for a model of its own, so that all run side by
# side; only the daemon's absence has a run to itself. With rows named, only these are run.
# Usage: fault_runs.sh SIM MODULE [ROW...]
set -u
sim=$1 module=$2
shift 2
only=("$@")
work=$(mktemp -d)
pids=()

clean_up() {
    for pid in "${pids[@]}"; do kill -KILL "$pid" && wait "$pid"; done 2>/dev/null
    rm -rf "$work"
}
trap clean_up EXIT

exec 9>/tmp/cloudmgr_subconn.lock
flock -w 300 9 || { echo 'another demo or test holds /tmp/cloudmgr_subconn.lock' >&2; exit 1; }

# Every fault of the table once or more, with values that show what it does. A row may be of two faults, with '; '
# between them. Where the module's order of events depends on a time of the fault, that time is seconds long, so that a
# slow machine shows the same: the pauses, the times between two announcements, and the reset of a handshake that waits
# (one that goes on can meet it in the middle of a call).
faults=(
    'latency 200ms jitter 50ms' 'jitter 50ms' 'bandwidth 10k' 'slicer 1' 'limit_data 100 to=module at=upgrade'
    'limit_data 100 to=module at=tls' 'timeout at=accept' 'timeout at=upgrade' 'timeout at=registration'
    'timeout at=tls; reset_peer 5s at=tls' 'reset_peer at=upgrade' 'reset_peer at=registration'
    'reset_peer 5s at=open' 'slow_close 1s' 'half_close at=tls' 'half_close at=upgrade' 'half_close at=open'
    'tls_version 1.1' 'tls_version 1.2' 'tls_alert' 'tls_garbage' 'certificate expired' 'certificate other-name'
    'certificate unknown-issuer' 'certificate chain' 'rekey at=registration' 'no_close_notify'
    'status 404' 'status 500 body 4k' 'status 200 body 4k by chunks' 'status 502 body 4k by close'
    'redirect 302 https://elsewhere.example/' 'retry_after 120' 'informational 100' 'other_status 200' 'other_status 404' 'header wrong accept'
    'header missing accept' 'header doubled accept' 'header folded accept' 'header respelled accept'
    'header missing upgrade' 'header wrong connection' 'large_headers 16k' 'large_headers 64k' 'content_length -1'
    'content_length 10' 'no_http ssh' 'no_http no-status' 'no_http binary' 'cut_answer 17' 'cut_answer 10 at=registration' 'early_frame ping'
    'early_frame text' 'early_frame answer' 'early_frame close' 'silence at=upgrade' 'silence at=registration'
    'hang_up at=upgrade' 'hang_up at=registration' 'ret_code 7' 'opt_type 2' 'opt_type 257' 'json cut' 'json text'
    'json empty' 'json array' 'json no-type' 'json no-code' 'json strings' 'json objects' 'json nul' 'json doubled'
    'json binary' 'json deep size 20' 'json deep' 'json huge size 1000000' 'answer_as binary' 'answer_as ping'
    'answer_as pong' 'answer_as close' 'answer_as continuation' 'twice' 'late 1s' 'reserved_bits at=registration'
    'opcode 3 at=registration' 'masked at=registration' 'length_form 64 at=registration'
    'fragments 10 at=registration' 'oversize at=registration' 'oversize -1 at=registration' 'oversize at=open' 'ping_flood 1 at=registration'
    'ping_flood at=open' 'close_frame at=registration' 'close_frame at=open' 'close_frame 1012 at=open'
    'close_frame body none at=open' 'close_frame body half at=open' 'no_reply' 'cut_record pause 5s' 'split_record pause 5s'
    'merge_records' 'record_type 7' 'notice_type 9' 'repeat 2 every 5s' 'repeat 2 every 5s change token' 'other_port 1'
    'other_host nowhere.invalid' 'data_after_close' 'absence 1s count=1'
)

# run SECONDS FAULT-NUMBER...: one simulator, and for so long a module for each fault.
run() {
    local seconds=$1 i fault arguments=() modules=()
    shift
    for i in "$@"; do
        while read -r fault; do arguments+=(--fault "$fault model=f$i"); done <<<"${faults[$i]//; /$'\n'}"
    done
    "$sim" --quiet --seconds $((seconds + 60)) "${arguments[@]}" </dev/null >/dev/null 2>"$work/sim.errors" 9>&- &
    local sim_pid=$!
    pids+=("$sim_pid")
    for _ in $(seq 300); do
        [ -S /tmp/cloudmgr_subconn.sock ] && break
        sleep 0.1
    done
    [ -S /tmp/cloudmgr_subconn.sock ] || { cat "$work/sim.errors" >&2; exit 1; }
    for i in "$@"; do
        # A module starts late on a slow machine; one whose thread waits for the daemon ends by no signal but KILL.
        timeout -k 1 $((seconds + 10)) "$module" --model "f$i" --tunnels 1 --seconds "$seconds" --log "$work/$i.log" \
            --log-level 2 </dev/null >"$work/$i.module" 2>&1 9>&- &
        modules+=($!)
        pids+=($!)
    done
    wait "${modules[@]}"
    kill "$sim_pid"
    wait "$sim_pid" 2>/dev/null
    pids=()
}

# What changes from run to run: numbers of sockets, ports, events and connections, addresses in memory, times.
steady() {
    sed -E 's/f[0-9]+/MODEL/g; s/([Ss]ock(et)?|event|port|[Cc]onnection)(:? \[?|s )[0-9]+/\1\3N/g; s/[0-9]+\.[0-9]+ s/T s/g
            s/[0-9A-F]{16}:/N:/g; s/\|/\\|/g'
}

# library NUMBER: the first error that the library logs, behind those of every run.
library() {
    grep '^ERROR' "$work/$1.log" | sed -E 's/^ERROR +//' | grep -v 'Set Device SN\|, ret = 0\]' | head -1 | steady
}

# seen NUMBER: the end of the module's first attempt, and what comes first after a hand-off.
seen() {
    sed -E 's/^ *[0-9.]+ module +[a-z-]+ +//' "$work/$1.module" | awk '
        /^hand-off/ && !up { up = 1; print "hand-off"; next }
        /^(set-up failed|tunnel lost|tunnel closed|daemon link lost|daemon link down|close received|protocol)/ { print; exit }
        /^ending: time is up/ { print up ? "the tunnel stays" : "nothing for 50 s"; exit }' | paste -sd';' |
        sed -E 's/;/; /g; s/(set-up failed|tunnel lost): .*/\1/' | steady
}

names() { "$sim" --help | sed -n '/^Faults:$/,/^Each fault/s/^  \([a-z_]*\).*/\1/p' | grep . | sort; }
diff <(names) <(printf '%s\n' "${faults[@]%% *}" | sort -u) >&2 || { echo 'the faults are not those of the program' >&2; exit 1; }

wanted() {
    local row
    [ ${#only[@]} -eq 0 ] && return
    for row in "${only[@]}"; do [ "$row" = "$1" ] && return; done
    return 1
}

# 50 seconds are enough for the library's response timeout of 30 seconds, where a hundred modules start on a slow machine.
# The daemon's absence would be that of all.
rows=() shared=() alone=()
for i in "${!faults[@]}"; do
    wanted "${faults[$i]}" || continue
    rows+=("$i")
    if [[ ${faults[$i]} == absence* ]]; then alone+=("$i"); else shared+=("$i"); fi
done
[ ${#shared[@]} -eq 0 ] || run 50 "${shared[@]}"
[ ${#alone[@]} -eq 0 ] || run 8 "${alone[@]}"
echo '| fault | the library logs | the module sees |'
echo '| --- | --- | --- |'
for i in "${rows[@]}"; do
    logged=$(library "$i")
    seen=$(seen "$i")
    echo "| \`${faults[$i]}\` | ${logged:+\`$logged\`} | ${seen:-nothing, its thread waits for the daemon} |"
done
