#!/bin/sh
# Formats every C and C++ file that git knows. With --check, it only names the files that differ, and fails if there are
# any.
set -eu
cd "$(dirname "$0")/.."

files=$(git ls-files '*.c' '*.cpp' '*.h')
case "${1:-}" in
    --check) echo "$files" | xargs clang-format --dry-run --Werror ;;
    "") echo "$files" | xargs clang-format -i ;;
    *)
        echo "format.sh: unknown option '$1'; there is only --check" >&2
        exit 2
        ;;
esac
