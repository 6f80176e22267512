#!/bin/bash
# Writes the simulator's table of faults into its man page, as the program's --help shows it.
# Usage: fault_pages.sh SIM, from the top folder.
set -eu
sim=$1
page=man/cloudtunnel-sim.1.scd.in

table=$("$sim" --help | sed -n '/^Faults:$/,/^Steps:$/p' | sed '1d;$d' | sed '${/^$/d}')
awk -v table="$table" '
    /^# FAULTS$/ { inside = 1 }
    /^# STEPS$/ { inside = 0 }
    inside && /^```$/ { fence++; print; if (fence == 1) print table; next }
    inside && fence == 1 { next }
    { print }' "$page" >"$page.new"
mv "$page.new" "$page"
