#!/bin/sh
# Runs clang-tidy over the library and the programs of a build tree, given as the argument, that clang configured. The
# stand-ins in sim/ are left out: clang 14 does not read their coroutines.
set -eu
cd "$(dirname "$0")/.."
build=${1:?"lint.sh: needs the build tree of the preset 'clang'"}

git ls-files 'platform/*.cpp' 'frame/*.cpp' 'loop/*.cpp' 'conn/*.cpp' 'http/*.cpp' 'ws/*.cpp' 'cloud/*.cpp' \
    'client/*.cpp' 'tools/*.cpp' 'examples/*.c' |
    xargs -P "$(nproc)" -n 3 clang-tidy --quiet -p "$build"
