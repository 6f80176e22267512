#!/bin/sh
# Builds the device's release of OpenSSL for this machine, from the same source package. Usage: host-openssl.sh DIR.
# DIR/openssl exists only when it is complete; it is made again when its version in scripts/device/versions changes.
set -eu
fail() {
    echo "host-openssl.sh: $1" >&2
    exit 1
}
[ $# -eq 1 ] || fail "usage: host-openssl.sh DIR"
device=$(cd "$(dirname "$0")" && pwd)
mkdir -p "$1"
work=$(cd "$1" && pwd)
. "$device/packages.sh"
for tool in gcc make perl dpkg-source xz; do
    command -v "$tool" >/dev/null || fail "$tool is missing; 'make matrix' installs it"
done

version=$(pinned openssl)
[ "$(cat "$work/openssl/made-of" 2>/dev/null)" != "$version" ] || exit 0
echo "openssl: for this machine"
rm -rf "$work/openssl" "$work/stage"
unpack_source openssl "$work/source/host-openssl"
(
    cd "$work/source/host-openssl"
    ./config shared no-tests no-async no-engine --prefix=/ --libdir=lib
    make -j"$(nproc)" build_libs
    make DESTDIR="$work/stage" install_dev
) >"$work/host-openssl.log" 2>&1 || {
    tail -n 20 "$work/host-openssl.log" >&2
    fail "OpenSSL cannot be built; the whole output is in $work/host-openssl.log"
}
rm -rf "$work/source/host-openssl"
echo "$version" >"$work/stage/made-of"
mv "$work/stage" "$work/openssl"
