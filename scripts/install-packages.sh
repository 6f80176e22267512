#!/bin/sh
# Installs the Debian packages named as arguments, if any of them is missing. Asks the package manager for nothing when
# all are there.
set -eu

missing=""
for package in "$@"; do
    dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q 'ok installed' || missing="$missing $package"
done
[ -n "$missing" ] || exit 0

as_root=""
if [ "$(id -u)" -ne 0 ]; then
    command -v sudo >/dev/null || {
        echo "install-packages: missing:$missing; install them as root, or install sudo" >&2
        exit 1
    }
    as_root=sudo
fi
echo "installing:$missing"
$as_root apt-get update -qq
# shellcheck disable=SC2086 # a list of words
$as_root env DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends $missing >/dev/null
