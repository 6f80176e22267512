#!/bin/sh
# check_includes.sh FOLDER: every quoted include of the sources in FOLDER names a file of FOLDER.
set -eu
cd "$1"
sed -n 's/^#include "\(.*\)".*/\1/p' ./*.cpp ./*.h | sort -u | while read -r name; do
    case $name in */*) echo "includes $name"; exit 1 ;; esac
    [ -f "$name" ] || { echo "includes $name, which is not here"; exit 1; }
done
