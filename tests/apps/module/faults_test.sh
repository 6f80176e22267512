#!/bin/bash
# Compares the table of faults in the page of the simulator with new runs. Usage: faults_test.sh SCRIPT SIM MODULE PAGE
set -u
script=$1 sim=$2 module=$3 page=$4
runs=$("$script" "$sim" "$module") || exit 1
diff <(sed -n '/^| fault | the library logs/,/^$/p' "$page" | sed '/^$/d') - <<<"$runs"
