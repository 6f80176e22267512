#!/bin/bash
# A whole tunnel on one machine: the platform and the daemon in one process, a module in another. Every line names
# its source and the time, in seconds since the start of that process.
# Usage: demo.sh SIM MODULE, the two programs. Exit status: 0 when every step was seen, 1 with the reason otherwise.
set -u

lock=/tmp/cloudmgr_subconn.lock # the library looks for its daemon in one place only, so there is one demo at a time
lock_time=120                   # seconds to wait for it
start_time=40                   # seconds for the platform and the daemon to listen
life=100                        # seconds that no process outlives

fail() {
    echo "demo: $1" >&2
    exit 1
}

[ $# -eq 2 ] || fail "usage: demo.sh SIM MODULE"
sim=$1 module=$2
[ -x "$sim" ] || fail "$sim is not built"
[ -x "$module" ] || fail "$module is not built"

exec 9>"$lock" || fail "$lock cannot be opened"
flock -w "$lock_time" 9 || fail "another demo or test has held $lock for $lock_time s"

SECONDS=0
work=$(mktemp -d) || fail "no temporary directory"
sim_pid='' module_pid='' reader_pid=''

# reason FILE: the one line that a program wrote about its failure.
reason() {
    grep '^cloudtunnel-' "$work/$1" | tail -n 1 | grep . || echo 'it gave no reason'
}

# end PID: TERM, and KILL when the process has not ended within twenty seconds.
end() {
    kill "$1" 2>/dev/null || return
    for _ in $(seq 400); do
        kill -0 "$1" 2>/dev/null || return
        sleep 0.05
    done
    kill -KILL "$1" 2>/dev/null
}

clean_up() {
    for pid in $module_pid $sim_pid $reader_pid; do end "$pid"; done
    rm -rf "$work"
}
trap clean_up EXIT
trap 'exit 130' INT
trap 'exit 143' TERM

# Both programs write "seconds who what" to one pipe: the order of the lines is the order of what happened.
show_lines() {
    local seconds who what label
    while read -r seconds who what; do
        case $who in
            module | daemon) label=$who ;;
            step) label=${what%% *} what="step: $what" && [ "$label" = daemon ] || label=platform ;;
            platform) label=platform ;;
            *) label=platform what="$who $what" ;;
        esac
        printf '%-8s | %8s %s\n' "$label" "$seconds" "$what"
    done | tee "$work/record"
}
mkfifo "$work/lines"
show_lines <"$work/lines" 9>&- &
reader_pid=$!

"$sim" --timeout 40 --seconds "$life" --stay --do wait-module --do wait-tunnel --do 'requests 5' \
    --do 'fragmented 20000' --do 'ping hello' --do 'close 1000 bye' --do wait-close --do 'daemon restart 1' \
    --do wait-module </dev/null >"$work/lines" 2>"$work/sim.err" 9>&- &
sim_pid=$!

tries=$((start_time * 20))
until grep -q '^daemon .* listening on ' "$work/record" 2>/dev/null; do
    kill -0 "$sim_pid" 2>/dev/null || fail "the platform did not start: $(reason sim.err)"
    [ $((tries -= 1)) -gt 0 ] || fail "the platform did not start within $start_time s"
    sleep 0.05
done

"$module" --links 2 --seconds "$life" </dev/null >"$work/lines" 2>"$work/module.err" 9>&- &
module_pid=$!

# The module ends once its link to the daemon has come up a second time. The simulator ends early if a step fails.
wait -n "$sim_pid" "$module_pid"
if ! kill -0 "$sim_pid" 2>/dev/null; then
    fail "the platform's script failed: $(reason sim.err)"
fi
wait "$module_pid" || fail "the module failed: $(reason module.err)"
module_pid=''
end "$sim_pid"
wait "$sim_pid" || fail "the platform failed: $(reason sim.err)"
sim_pid=''
wait "$reader_pid"
reader_pid=''

# Each step must stand behind the one before it.
steps=(
    'daemon link'            '^module .* daemon link up'
    'tunnel data'            '^module .* tunnel data received: host'
    'resolve'                '^module .* resolve: '
    'TCP'                    '^module .* TCP: connected'
    'TLS'                    '^module .* TLS: established'
    'upgrade'                '^module .* upgrade: answer accepted'
    'OPT1'                   '^module .* OPT1: registration sent'
    'hand-off'              '^module .* hand-off: the tunnel is open'
    'first request'          '^module .* request 1 received'
    'first answer'           '^module .* answer 1 sent'
    'second answer'          '^module .* answer 2 sent'
    'third answer'           '^module .* answer 3 sent'
    'fourth answer'          '^module .* answer 4 sent'
    'fifth answer'           '^module .* answer 5 sent'
    'fragmented message'     '^module .* fragmented message complete: 20000 bytes'
    'ping'                   '^module .* ping answered'
    'close'                  '^module .* close answered'
    'end of the tunnel'      '^module .* tunnel closed'
    'loss of the daemon'     '^module .* daemon link lost'
    'return of the daemon'   '^daemon .* listening on '
    'reconnection'           '^module .* daemon link back'
)
line=0
for ((i = 0; i < ${#steps[@]}; i += 2)); do
    found=$(tail -n +$((line + 1)) "$work/record" | grep -n -m 1 -e "${steps[i + 1]}") ||
        fail "this step is missing, or not in its place: ${steps[i]}"
    line=$((line + ${found%%:*}))
done
echo "demo: every step seen, in ${SECONDS} s"
