#!/bin/bash
# The simulator with its page, and a module process that connects to it, until the user ends them (Ctrl+C) or the
# simulator's time is over. The page's address is the last line printed before the timeline.
# Usage: desk.sh SIM MODULE MODEL [OPTION OF THE SIMULATOR]...
set -u

lock=/tmp/cloudmgr_subconn.lock # the library looks for its daemon in one place only, so there is one desk at a time

[ $# -ge 3 ] || { echo 'usage: desk.sh SIM MODULE MODEL [OPTION OF THE SIMULATOR]...' >&2; exit 1; }
sim=$1 module=$2 model=$3
shift 3

exec 9>"$lock" || exit 1
flock -n 9 || { echo "desk: a demo or test holds $lock" >&2; exit 1; }

# The module tries again until the daemon listens, and ends with this script.
(sleep 1; exec "$module" --model "$model" 9>&-) >/dev/null 2>&1 </dev/null &
module_pid=$!
trap 'kill "$module_pid" 2>/dev/null' EXIT
"$sim" --web 0 --seconds 86400 "$@" 9>&-
