#!/bin/sh
# service_test.sh systemd|openwrt PACKAGING UNIT MODULE: what starts the module program as a service is as its system wants
# it, also with the line for the check of certificates.
set -eu
export LC_ALL=C
system=$1 packaging=$2 unit=$3 module=$4
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

fail() {
    echo "$system: $1"
    exit 1
}

# switch_on FILE: takes the '#' from the line for OpenSSL's configuration.
switch_on() {
    sed -i 's/^\([[:space:]]*\)#\(.*openssl[._]c.*\)/\1\2/' "$1"
    grep -q '^[[:space:]]*[^#[:space:]].*/etc/cloudtunnel/openssl.cnf' "$1" || fail 'there is no line for OPENSSL_CONF'
}

# verify: systemd finds nothing to say about the unit.
verify() {
    said=$(systemd-analyze verify --man=no "$checked" 2>&1) || fail "$said"
    [ -z "$said" ] || fail "$said"
}

systemd() {
    checked=$work/cloudtunnel-module.service
    sed "s,^ExecStart=[^ ]*/cloudtunnel-module ,ExecStart=$module ," "$unit" >"$checked"
    ! cmp -s "$unit" "$checked" || fail 'the program is not started'
    verify
    grep -q '^ExecReload=/bin/kill -HUP ' "$checked" || fail 'the log file is not opened anew'
    systemd-analyze security --offline=true --threshold=25 --no-pager "$checked" >"$work/exposure" 2>&1 ||
        fail "$(cat "$work/exposure")"
    switch_on "$checked"
    verify
}

# Stubs of uci: the options of a section, and its sections.
config_load() { [ "$1" = cloudtunnel ] || fail "configuration '$1'"; }
config_foreach() { "$1" "$(sed -n "s/^config $2 '\(.*\)'/\1/p" "$work/config")"; }
config_get() {
    # shellcheck disable=SC2034 # eval reads it
    value=$(sed -n "s/^[[:space:]]*option $3 '\(.*\)'/\1/p" "$work/config")
    eval "$1=\${value:-\${4:-}}"
}
config_get_bool() { config_get "$@"; }
# Stubs of procd: each prints its arguments on a line.
procd_open_instance() { echo "instance $*"; }
procd_set_param() { echo "$*"; }
procd_append_param() { echo "more $*"; }
procd_close_instance() { echo close; }
procd_send_signal() { echo "signal $*"; }
procd_add_reload_trigger() { echo "reload on $*"; }

# started WANTED: the lines about process and environment that procd gets.
started() {
    found=$(start_service | grep -E '^(instance|command|more|env|close)' || :)
    [ "$found" = "$1" ] || fail "procd gets '$found', wanted '$1'"
}

openwrt() {
    script=$packaging/openwrt/files/cloudtunnel-module.init
    shellcheck "$script" || fail 'shellcheck has found something'
    [ "$(head -n 1 "$script")" = '#!/bin/sh /etc/rc.common' ] || fail 'it is not run by rc.common'
    cp "$packaging/openwrt/files/cloudtunnel.config" "$work/config"
    # shellcheck disable=SC1090,SC1091 # a script of its own
    . "$script"
    command='command /usr/bin/cloudtunnel-module --seconds 31536000'
    command="$command --model desk --sub-name desk-module --device-model desk-device"
    started "instance desk
$command
close"
    switch_on "$work/config"
    started "instance desk
$command
env OPENSSL_CONF=/etc/cloudtunnel/openssl.cnf
close"
    sed -i "s/^[[:space:]]*#\(option exec\|option log\)/\1/" "$work/config"
    started "instance desk
$command
more command --exec /usr/libexec/module-handler
more command --log /var/log/module.log
env OPENSSL_CONF=/etc/cloudtunnel/openssl.cnf
close"
    [ "$(reopen)" = 'signal cloudtunnel-module * HUP' ] || fail 'the log files are not opened anew'
    sed -i "s/option enabled '1'/option enabled '0'/" "$work/config"
    started ''
    [ "$(service_triggers)" = 'reload on cloudtunnel' ] || fail 'a change of the configuration starts nothing'
}

"$system"
