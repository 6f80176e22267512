#!/bin/sh
# scripts/package-test.sh runs this inside a bare system where the three packages are installed: what a user does with
# them.
set -eu
cd /test
example=/usr/share/doc/libcloudtunnel-dev/examples

step() { echo "in the bare system: $1"; }

step 'man pages'
for page in man1/cloudtunnel-explain.1 man1/cloudtunnel-module.1 man1/cloudtunnel-sim.1 man3/libcloudtunnel.3 \
    man3/libcloudtunnel-module.3; do
    gzip -dc "/usr/share/man/$page.gz" | grep -q '^\.SH NAME$'
done

step 'programs'
version=$(pkg-config --modversion cloudtunnel)
for program in cloudtunnel-explain cloudtunnel-module cloudtunnel-sim; do
    [ "$($program --version)" = "$program $version" ]
done

step 'example with pkg-config'
# shellcheck disable=SC2046 # options, one word each
cc -o with_pkg_config $example/minimal_module.c $(pkg-config --cflags --libs cloudtunnel)
tests/apps/module/scenario.sh example cloudtunnel-sim cloudtunnel-module ./with_pkg_config

step 'example with pkg-config, static library'
# shellcheck disable=SC2046 # options, one word each
cc -o with_static $example/minimal_module.c -Wl,--as-needed -Wl,-Bstatic -lcloudtunnel -Wl,-Bdynamic \
    $(pkg-config --static --cflags --libs cloudtunnel)
ldd with_static >needs
if grep libcloudtunnel needs; then exit 1; fi
tests/apps/module/scenario.sh example cloudtunnel-sim cloudtunnel-module ./with_static

step 'module library with pkg-config'
# shellcheck disable=SC2046 # options, one word each
cc -o echo_poll $example/echo_poll.c $(pkg-config --cflags --libs cloudtunnel-module)
tests/examples/scenario.sh echoes cloudtunnel-sim ./echo_poll

step 'examples with CMake'
cmake -S $example -B with_cmake >cmake.log
cmake --build with_cmake >>cmake.log
tests/apps/module/scenario.sh example cloudtunnel-sim cloudtunnel-module with_cmake/minimal_module
tests/examples/scenario.sh echoes cloudtunnel-sim with_cmake/echo_poll
