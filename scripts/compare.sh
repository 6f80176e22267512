#!/bin/sh
# Builds the shared library of a git revision and of this tree, and runs both through the same random courses
# (tests/compare). Fails where they differ in anything but what tests/compare/allowed.txt names.
set -eu
cd "$(dirname "$0")/.."
base=${1:?"compare.sh: name the revision to compare with: make compare BASE=HEAD~1"}
cases=${2:-20000}
seed=${3:-1}

revision=$(git rev-parse --verify "$base^{commit}")
old=build/compare/$revision
if [ ! -e "$old/build/libcloudtunnel.so" ]; then
    rm -rf "$old"
    mkdir -p "$old/source"
    git archive "$revision" | tar -x -C "$old/source"
    cmake -S "$old/source" -B "$old/build" -G Ninja -DCMAKE_BUILD_TYPE=Release -DCLOUDTUNNEL_BUILD_TOOLS=OFF \
        -DCLOUDTUNNEL_BUILD_TESTS=OFF -DCLOUDTUNNEL_INSTALL=OFF
    cmake --build "$old/build" --target cloudtunnel
fi

cmake --preset release
cmake --build --preset release --target cloudtunnel compare
exec build/release/tests/compare/compare --seed="$seed" --cases="$cases" --allowed=tests/compare/allowed.txt \
    "$old/build/libcloudtunnel.so" build/release/libcloudtunnel.so
