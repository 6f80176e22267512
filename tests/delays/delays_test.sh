#!/bin/bash
# delays_test.sh LIBRARY: a program that has it preloaded does its work, and if it is one of the slow ones it sleeps before
# or behind some of its calls. That 50 processes are all fast happens once in 600 million runs.
set -eu
library=$1
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
head -c 50 /dev/zero >"$work/in"
for _ in $(seq 50); do
    strace -f -o "$work/calls" -e trace=clock_nanosleep -E "LD_PRELOAD=$library" -E CLOUDTUNNEL_DELAYS=1 \
        dd bs=1 if="$work/in" of="$work/out" status=none
    cmp "$work/in" "$work/out"
    ! grep -q nanosleep "$work/calls" || exit 0
done
echo 'no process was delayed'
exit 1
