#!/bin/sh
# A handler for `cloudtunnel-module --exec`, in POSIX shell without another program: it answers each message with the
# message, and writes each state of a tunnel to standard error.
set -eu

# field NAME: the value of a field of $line, as it stands there: quoted, with its escapes. Nothing but a field's name follows
# a comma, a quote and a letter: inside a text, a backslash stands before each quote.
field() {
    value=${line#*"\"$1\":"}
    value=${value%%,\"[a-z]*}
    printf '%s' "${value%\}}"
}

while IFS= read -r line; do
    case $line in
        *'"event":"message",'*'"text":'*) printf '{"send":%s,"model":%s}\n' "$(field text)" "$(field model)" ;;
        *'"event":"message",'*'"base64":'*) printf '{"send_base64":%s,"model":%s}\n' "$(field base64)" "$(field model)" ;;
        *'"event":"state",'*) echo "$(field model): $(field state)" >&2 ;;
    esac
done
