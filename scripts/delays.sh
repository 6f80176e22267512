#!/bin/bash
# The tests of whole programs, each once, while tests/delays delays the system calls of some of their processes at random.
# Those that trace programs or put a load on them are left out.
# Usage: delays.sh PRESET SEED
set -eu
cd "$(dirname "$0")/.."
if [ $# -ne 2 ]; then
    echo 'delays.sh: needs a preset and a seed; call it as scripts/delays.sh release 1' >&2
    exit 2
fi
programs='sim\.|sim_session_|module_program_|examples_|explain_|trust_|demo_|interop_'
CLOUDTUNNEL_DELAYS=$2 LD_PRELOAD=$PWD/build/$1/tests/delays/libdelays.so exec ctest --preset "$1" -R "^($programs)"
