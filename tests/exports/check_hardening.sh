#!/bin/sh
# check_hardening.sh READELF LIBRARY: the finished file has what makes an attack end in a stop.
set -eu
readelf=$1 library=$2
fail() {
    echo "$1"
    exit 1
}
segments=$("$readelf" -lW "$library")
dynamic=$("$readelf" -dW "$library")
sections=$("$readelf" -SW "$library")
notes=$("$readelf" -nW "$library")
symbols=$("$readelf" --dyn-syms -W "$library")
starts_with() { [ "$(od -An -v -tx4 -w4 "$library" | grep -c "$1")" -gt 100 ]; }
has() { printf '%s\n' "$1" | grep -Eq -e "$2"; }

has "$segments" 'GNU_RELRO' || fail 'no segment becomes read-only once it is relocated'
has "$dynamic" '\(FLAGS_1\).*NOW' || fail 'names are not bound when it is loaded'
has "$segments" 'GNU_STACK' || fail 'nothing is said about the stack'
! has "$segments" ' RWE | WE ' || fail 'a segment, or the stack, can be written and run'
! has "$dynamic" 'TEXTREL' || fail 'its code is relocated'
has "$symbols" '__stack_chk_fail' || fail 'the stack is not guarded'
if has "$dynamic" 'NEEDED.*\[libc\.so\.6\]'; then # the other C library has no checked calls
    has "$symbols" 'UND __[a-z]+_chk' || fail "the C library's calls are not checked"
fi
case $("$readelf" -hW "$library") in
    # What a guarded function begins with: endbr64, and paciasp.
    *X86-64*) starts_with fa1e0ff3 || fail 'branches are not guarded' ;;
    *AArch64*)
        starts_with d503233f || fail 'returns are not guarded'
        # Start files that are not marked unmark what they are linked into.
        has "$sections" ' \.init ' || has "$notes" 'BTI' || fail 'it is not marked for guarded branches'
        ;;
esac
