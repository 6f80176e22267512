#!/bin/bash
# run_tests_test.sh PROJECT: which tests are run once more, and what that is worth. The tests are a fake ctest's: the first
# run writes what `failed` and `output` hold, the second one ends with `second`.
set -u
project=$1
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
failures=0
mkdir -p "$work/scripts" "$work/bin" "$work/build/fake/Testing/Temporary"
cp "$project/scripts/run-tests.sh" "$work/scripts/"
cat >"$work/bin/ctest" <<'END'
#!/bin/bash
echo "$*" >>"$WORK/calls"
if [[ $* == *--rerun-failed* ]]; then exit "$SECOND"; fi
printf '%s' "$FAILED" >"$WORK/build/fake/Testing/Temporary/LastTestsFailed.log"
printf '%s' "$OUTPUT" >"$WORK/build/fake/Testing/Temporary/LastTest.log"
[ -z "$FAILED" ] || exit 8
END
chmod +x "$work/bin/ctest"

# run FAILED OUTPUT SECOND STATUS CALLS NAMED: what must follow is the status, how often ctest ran, and what was named.
run() {
    rm -f "$work/calls" "$work/build/passed-when-run-again"
    WORK=$work FAILED=$1 OUTPUT=$2 SECOND=$3 PATH=$work/bin:$PATH "$work/scripts/run-tests.sh" fake >"$work/out" 2>&1
    local status=$? calls named
    calls=$(wc -l <"$work/calls")
    named=$(cat "$work/build/passed-when-run-again" 2>/dev/null)
    if [ $status -ne "$4" ] || [ "$calls" -ne "$5" ] || [ "$named" != "$6" ]; then
        echo "after '$1', '$2', $3: status $status (expected $4), $calls runs (expected $5), named '$named' (expected '$6')"
        cat "$work/out"
        failures=$((failures + 1))
    fi
}

program=$'12:module_program_a_test\n' several=$'3:sim.sim_web.b\n12:examples_c_test\n'
run '' 'passed' 0 0 1 ''
run "$program" 'came late' 0 0 2 'fake: module_program_a_test'
run "$several" 'came late' 0 0 2 $'fake: sim.sim_web.b\nfake: examples_c_test'
run "$program" 'came late' 8 8 2 ''
run $'7:ws_frame_test\n' 'wrong' 0 8 1 ''
run "$program"$'7:ws_frame_test\n' 'wrong' 0 8 1 ''
run "$program" 'ERROR: AddressSanitizer: heap-use-after-free' 0 8 1 ''
run "$program" 'runtime error: shift' 0 8 1 ''
run "$program" 'ended by SIGSEGV' 0 8 1 ''

# With a seed: one run, of whole programs only, and what it says counts.
rm "$work/calls"
WORK=$work FAILED='' OUTPUT='' PATH=$work/bin:$PATH "$work/scripts/run-tests.sh" fake 7 >"$work/out" 2>&1
if [ "$(wc -l <"$work/calls")" -ne 1 ] || ! grep -q -e '--preset fake -R ^(sim' "$work/calls"; then
    echo "with a seed, ctest was called as: $(cat "$work/calls")"
    failures=$((failures + 1))
fi
exit $((failures != 0))
