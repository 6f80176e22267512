#!/bin/sh
# recipe_test.sh buildroot|openwrt SOURCES VERSION BUILD: a recipe of packaging/ read by make as its build system would read
# it, with the stubs of this folder. BUILD is a built tree to install from.
set -eu
export LC_ALL=C
system=$1 sources=$2 version=$3 build=$4
stubs=$(cd "$(dirname "$0")" && pwd)/stubs
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
unset MAKEFLAGS MAKELEVEL

fail() {
    echo "$system: $1"
    exit 1
}

# same WHAT WANTED FOUND
same() { [ "$2" = "$3" ] || fail "$1 is '$3', wanted '$2'"; }

# configures NAME OPTION...: CMake takes the options and knows each of them.
configures() {
    name=$1
    shift
    cmake -S "$sources" -B "$work/$name" -D CMAKE_BUILD_TYPE=Release "$@" >"$work/log" 2>&1 || fail "$(cat "$work/log")"
    ! grep -A 9 'not used by the project' "$work/log" || fail 'the library has no such option'
    [ ! -e "$work/$name/apps/sim" ] || fail 'the simulator is built'
    [ ! -e "$work/$name/man" ] || fail 'the man pages are built'
}

# no_warnings COMMAND...: make misses no variable.
no_warnings() {
    "$@" >"$work/log" 2>&1
    ! grep warning "$work/log" || fail 'the recipe uses a variable that make does not know'
}

buildroot() {
    set -- make -s --warn-undefined-variables -f "$stubs/buildroot.mk" \
        BR2_EXTERNAL_CLOUDTUNNEL_PATH="$sources/packaging/buildroot" BR2_INIT_SYSTEMD=y
    no_warnings "$@" options BR2_PACKAGE_CLOUDTUNNEL_MODULE=y
    same version "$version" "$("$@" version BR2_PACKAGE_CLOUDTUNNEL_MODULE=)"
    same 'the place of the sources' "$sources" "$("$@" site BR2_PACKAGE_CLOUDTUNNEL_MODULE=)"
    same 'installing for other packages' YES "$("$@" staging BR2_PACKAGE_CLOUDTUNNEL_MODULE=)"
    # shellcheck disable=SC2046 # options, one word each
    configures without $("$@" options BR2_PACKAGE_CLOUDTUNNEL_MODULE=)
    [ ! -e "$work/without/apps/module" ] || fail 'the module program is built although it was not selected'
    # shellcheck disable=SC2046 # options, one word each
    configures with $("$@" options BR2_PACKAGE_CLOUDTUNNEL_MODULE=y)
    [ -e "$work/with/apps/module" ] || fail 'the module program is not built'

    recipe=$sources/packaging/buildroot/package/cloudtunnel
    offered=$(sed -n 's/^config \(BR2_PACKAGE_CLOUDTUNNEL_[A-Z_]*\)$/\1/p' "$recipe/Config.in" | sort)
    used=$(grep -o 'BR2_PACKAGE_CLOUDTUNNEL_[A-Z_]*' "$recipe/cloudtunnel.mk" | sort -u)
    same 'what the configuration offers' "$used" "$offered"
}

openwrt() {
    mkdir "$work/top"
    cp -R "$stubs/include" "$stubs/rules.mk" "$work/top/"
    set -- make -s --warn-undefined-variables -C "$sources/packaging/openwrt" TOPDIR="$work/top" WORK="$work"
    no_warnings "$@" options
    same version "$version" "$("$@" version)"
    same 'the place of the sources' "$sources" "$("$@" sources)"
    "$@" title-libcloudtunnel title-cloudtunnel-module title-cloudtunnel-trust || fail 'a package has no title'
    # shellcheck disable=SC2046 # options, one word each
    configures with $("$@" options)
    [ -e "$work/with/apps/module" ] || fail 'the module program is not built'

    "$@" prepare
    prepared=$work/build/libcloudtunnel-$version
    [ -e "$prepared/CMakeLists.txt" ] || fail "the sources are not where they are built"
    [ ! -e "$prepared/build" ] || fail "what was built is taken for sources"
    DESTDIR=$work/installed cmake --install "$build" --prefix /usr >"$work/log" || fail "$(cat "$work/log")"
    "$@" install-libcloudtunnel
    libraries=$(printf 'usr/lib/libcloudtunnel%s.so.%s ' -module 1 -module "$version" '' 1 '' "$version")
    libraries=${libraries% }
    same 'the library on the device' "$libraries" "$(on_device)"
    "$@" install-cloudtunnel-module
    same 'all on the device' \
        "etc/config/cloudtunnel etc/init.d/cloudtunnel-module usr/bin/cloudtunnel-module $libraries" "$(on_device)"
    [ -L "$work/device/usr/lib/libcloudtunnel.so.1" ] || fail 'the short name of the library is a copy'
    rm -r "$work/device"
    "$@" install-cloudtunnel-trust
    same 'the check of certificates' 'usr/lib/cloudtunnel/trust.so usr/share/cloudtunnel/openssl.cnf' "$(on_device)"
}

on_device() { (cd "$work/device" && find . ! -type d) | sed 's,^\./,,' | sort | paste -sd ' '; }

"$system"
