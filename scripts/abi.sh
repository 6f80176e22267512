#!/bin/sh
# Compares each library with the description of its interface that is kept in abi/, or with --update rewrites it. A
# description is of one configuration, the preset 'abi' on x86-64 with Debian 12's compiler and C library: others lay out
# mutexes and epoll events differently, or name their types differently.
set -eu
cd "$(dirname "$0")/.."
build=build/abi

# stop STATUS WHAT: the reason in one line.
stop() {
    echo "abi.sh: $2" >&2
    exit "$1"
}

update=no
case "$*" in
    "") ;;
    --update) update=yes ;;
    *) stop 2 "unknown option '$*'; there is only --update" ;;
esac
[ "$(uname -m)" = x86_64 ] || stop 2 "the description is of x86-64, this is $(uname -m); run it on an x86-64 machine"
for tool in cmake ninja g++ abidw abidiff; do
    command -v "$tool" >/dev/null || stop 2 "no $tool; 'make abi' installs what is needed"
done

cmake --preset abi >/dev/null
cmake --build --preset abi
for library in libcloudtunnel.so.1 libcloudtunnel-module.so.1; do
    abidw --exported-interfaces-only --no-corpus-path --no-comp-dir-path --no-show-locs --type-id-style hash \
        --out-file $build/$library.abi $build/$library
done

if [ $update = yes ]; then
    cp "$build"/*.so.1.abi abi/
    echo "abi/ is written; git diff shows what changed"
    exit 0
fi
for now in "$build"/*.so.1.abi; do
    kept=abi/${now##*/}
    [ -f "$kept" ] || stop 1 "no $kept; 'make abi-update' writes it"
    abidiff --no-added-syms "$kept" "$now" ||
        stop 1 "existing programs would break: revert the change, or read docs/versioning.md and call 'make abi-update'"
    abidiff "$kept" "$now" || stop 1 "the interface grew; add it to the description with 'make abi-update'"
    echo "the interface is as $kept describes it"
done
