#!/bin/bash
# Compares a program's man page with its --help: options, their arguments and defaults, the names of the steps, and the faults
# letter for letter.
# Usage: man_page_test.sh PROGRAM PAGE, the page as scdoc reads it.
set -u
program=$1 page=$2
help=$("$program" --help) || { echo "$program --help failed"; exit 1; }

# One line an option: its name, its argument in small letters, its default; a dash where there is none.
help_options() {
    sed -nE 's/^  (--[a-z0-9-]+) ([^ ]*) .*/\1 \2 &/p' <<<"$help" | while read -r name argument line; do
        [[ $argument == [[A-Z]* ]] || argument=-
        default=-
        [[ $line =~ \(default:\ (.*)\)$ ]] && default=${BASH_REMATCH[1]}
        echo "$name ${argument,,} $default"
    done
}
page_options() {
    awk '/^\*--/ { name = $1; argument = $2; gsub(/\*/, "", name); gsub(/^_|_$/, "", argument)
                   getline
                   value = "-"
                   if (match($0, /Default: [^ ]+\.( |$)/)) {
                       value = substr($0, RSTART + 9, RLENGTH - 9)
                       sub(/\. ?$/, "", value)
                   }
                   print name, argument == "" ? "-" : argument, value }' "$page"
}
help_faults() { sed -n '/^Faults:$/,/^Steps:$/p' <<<"$help" | grep '^  \|^Each\|^Of the '; }
page_faults() { sed -n '/^# FAULTS$/,/^# STEPS$/p' "$page" | grep '^  \|^Each\|^Of the '; }
help_steps() { sed -n '/^Steps:$/,/^$/s/^  \([a-z-]*\).*/\1/p' <<<"$help" | sort -u; }
page_steps() { sed -n '/^# STEPS$/,/^# EXIT STATUS$/s/^\*\([a-z-]*\)\*.*/\1/p' "$page" | sort -u; }

[ "$(help_options | wc -l)" -gt 5 ] || { echo 'no options found in the help text'; exit 1; }
diff <(help_options | sort) <(page_options | sort) && diff <(help_steps) <(page_steps) && diff <(help_faults) <(page_faults)
