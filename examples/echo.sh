#!/bin/sh
# A handler for `cloudtunnel-module --exec`, in POSIX shell without another program: it answers each message with the
# message, and writes each state of a tunnel and each answer that was refused to standard error.
set -eu

# field NAME: the value of a field of $line as it is there, with quotes and escapes. The value ends where a comma, a quote and
# a letter follow: inside a text each quote has a backslash before it, so that is the name of the next field.
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
        *'"event":"refused",'*) echo "$(field model): not answered: $(field result)" >&2 ;;
    esac
done
