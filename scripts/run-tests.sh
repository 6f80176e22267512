#!/bin/bash
# The tests of a preset. A test of whole programs depends on when the machine lets each of them run: one that fails is run
# once more, alone, and named at the end, since it has a defect to be mended even if it passes then. What else fails has
# failed: a test of the library, and whatever a sanitizer or a signal ended.
# Usage: run-tests.sh PRESET
set -u
cd "$(dirname "$0")/.." || exit
if [ $# -ne 1 ]; then
    echo 'run-tests.sh: needs a preset; call it as scripts/run-tests.sh release' >&2
    exit 2
fi
preset=$1
log=build/$preset/Testing/Temporary
again=build/passed-when-run-again

ctest --preset "$preset"
status=$?
[ $status -ne 0 ] || exit 0
[ -s "$log/LastTestsFailed.log" ] || exit $status
programs='sim\.|sim_session_|module_program_|examples_|explain_|trust_|demo_|bench_|interop_'
if grep -qvE "^[0-9]+:($programs)" "$log/LastTestsFailed.log"; then exit $status; fi
if grep -qE 'Sanitizer|runtime error: |\(Exception|SIG(SEGV|ABRT|BUS)' "$log/LastTest.log"; then exit $status; fi

failed=$(sed 's/^[0-9]*://' "$log/LastTestsFailed.log")
ctest --preset "$preset" --rerun-failed -j 1 || exit
printf '%s\n' "$failed" | sed "s/^/$preset: /" | tee -a "$again" | sed 's/^/failed, and passed when run again: /'
