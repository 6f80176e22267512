#!/bin/sh
# Checks the calls between the library's components against the layer table, and runs clang-tidy and cppcheck over the
# library and the programs of a build tree, given as the argument, that clang configured. The simulator in apps/sim/ is
# left out: neither tool reads its coroutines.
set -eu
cd "$(dirname "$0")/.."
build=${1:?"lint.sh: needs the build tree of the preset 'clang'"}

cmake --build "$build" --target cloudtunnel_objects explain_formats
ctest --test-dir "$build" -R '^layers_test$' --no-tests=error --output-on-failure

sources() {
    git ls-files 'src/*.cpp' 'module/*.cpp' 'apps/common/*.cpp' 'apps/explain/*.cpp' 'apps/module/*.cpp' 'examples/*.c' \
        'examples/*.cpp' 'trust/*.c'
}
sources | xargs -P "$(nproc)" -n 3 clang-tidy --quiet -p "$build"
sources | xargs cppcheck -q -j "$(nproc)" --enable=warning,performance,portability --error-exitcode=1 \
    --suppress=missingIncludeSystem -D_GNU_SOURCE -Isrc -Iinclude -Iapps -Iapps/module -Iapps/explain
