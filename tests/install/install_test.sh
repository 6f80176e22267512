#!/bin/sh
# install_test.sh FACT ARGUMENT...: what stands in an install prefix, and that it can be built with. The functions are
# the facts; PREFIX is an installed tree that has been moved since, LIBDIR the libraries' place in it.
set -eu
export LC_ALL=C
fact=$1
shift
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

fail() {
    echo "$fact: $1"
    exit 1
}

# same WHAT WANTED FOUND: two files, line by line.
same() { diff -u "$2" "$3" || fail "$1 differs: - is wanted, + is there"; }

# prefix BUILD PREFIX: everything is installed, and moved to where the other tests take it from.
prefix() {
    rm -rf "$2"
    cmake --install "$1" --prefix "$work/first" >"$work/log" || fail "$(cat "$work/log")"
    mv "$work/first" "$2"
}

# files BUILD LIST: each component installs the files that the list names for it, and no others.
files() {
    for component in runtime development tools; do
        cmake --install "$1" --prefix "$work/$component" --component $component >"$work/log" || fail "$(cat "$work/log")"
        sed -n "s/^$component //p" "$2" | sort >"$work/wanted"
        (cd "$work/$component" && find . ! -type d) | sed 's,^\./,,' | sort >"$work/found"
        same "component $component" "$work/wanted" "$work/found"
    done
}

# with_prefix PREFIX LIBDIR: pkg-config looks into the prefix. The linkers are not helped.
with_prefix() {
    PKG_CONFIG_PATH=$1/$2/pkgconfig
    export PKG_CONFIG_PATH
}

# runs PROGRAM NEEDED: the dynamic linker finds everything the program needs, and NEEDED is among it.
runs() {
    ldd "$1" >"$work/needs"
    ! grep 'not found' "$work/needs" || fail "$1 does not find its libraries"
    [ -z "$2" ] || grep -q "$2" "$work/needs" || fail "$1 does not use $2: $(cat "$work/needs")"
}

# pkg_config PREFIX LIBDIR CC SOURCE OUT [LIBRARY]: the source is built with what pkg-config says of the library, into OUT,
# which finds it where LD_LIBRARY_PATH says.
pkg_config() {
    with_prefix "$1" "$2"
    library=${6:-cloudtunnel}
    # shellcheck disable=SC2046 # options, one word each
    "$3" -o "$5" "$4" $(pkg-config --cflags --libs "$library") || fail 'the shared library does not link'
    LD_LIBRARY_PATH=$1/$2${LD_LIBRARY_PATH:+:$LD_LIBRARY_PATH}
    export LD_LIBRARY_PATH
    runs "$5" "$1/$2/lib$library.so.1"
}

# pkg_config_static PREFIX LIBDIR CC SOURCE VERSION: a program with the library inside, its unused sections dropped and
# its symbols stripped, still contains the release.
pkg_config_static() {
    with_prefix "$1" "$2"
    mkdir "$work/static"
    ln -s "$1/$2/libcloudtunnel.a" "$work/static/libcloudtunnel.a" # alone, or the linker would take the shared one
    # shellcheck disable=SC2046 # options, one word each
    "$3" -s -Wl,--gc-sections -o "$work/program" "$4" -L"$work/static" \
        $(pkg-config --static --cflags --libs cloudtunnel) || fail 'the static library does not link'
    runs "$work/program" libssl
    ! grep -q libcloudtunnel "$work/needs" || fail 'the program uses the shared library'
    strings "$work/program" | grep -qx "libcloudtunnel $5" || fail "'libcloudtunnel $5' is not in the program"
}

# cmake_package PREFIX LIBDIR CC SOURCE_DIR: a project finds the package, in the shared form and the static one.
cmake_package() {
    with_prefix "$1" "$2"
    for library in cloudtunnel cloudtunnel_static; do
        { cmake -S "$4" -B "$work/$library" -D CMAKE_C_COMPILER="$3" -D CMAKE_PREFIX_PATH="$1" -D LIBRARY=$library &&
            cmake --build "$work/$library"; } >"$work/log" 2>&1 || fail "$(cat "$work/log")"
    done
    runs "$work/cloudtunnel/minimal_module" "$1/$2/libcloudtunnel.so.1"
    runs "$work/cloudtunnel_static/minimal_module" libssl
    ! grep -q libcloudtunnel "$work/needs" || fail 'the static form uses the shared library'
}

# cmake_examples PREFIX LIBDIR CC SOURCE_DIR: the folder of the examples is a project of its own.
cmake_examples() {
    with_prefix "$1" "$2"
    { cmake -S "$4" -B "$work/build" -D CMAKE_C_COMPILER="$3" -D CMAKE_PREFIX_PATH="$1" &&
        cmake --build "$work/build"; } >"$work/log" 2>&1 || fail "$(cat "$work/log")"
    runs "$work/build/minimal_module" "$1/$2/libcloudtunnel.so.1"
    runs "$work/build/echo_poll" "$1/$2/libcloudtunnel-module.so.1"
}

# cmake_examples_without_packages PREFIX LIBDIR CC SOURCE_DIR: an example whose package is missing is named and left out,
# unless all of them are asked for.
cmake_examples_without_packages() {
    with_prefix "$1" "$2"
    export PKG_CONFIG_LIBDIR="$work/none" PKG_CONFIG_PATH=
    set -- -S "$4" -D CMAKE_C_COMPILER="$3" -D CMAKE_PREFIX_PATH="$1" -D CMAKE_DISABLE_FIND_PACKAGE_Boost=ON
    { cmake "$@" -B "$work/build" && cmake --build "$work/build"; } >"$work/log" 2>&1 || fail "$(cat "$work/log")"
    for pair in libuv1-dev:echo_libuv libevent-dev:echo_libevent libglib2.0-dev:echo_glib libsystemd-dev:echo_sd_event \
        libboost-dev:echo_asio; do
        grep -q "not found (Debian's ${pair%:*}): the example ${pair#*:} is left out" "$work/log" ||
            fail "${pair%:*} is not named: $(cat "$work/log")"
        [ ! -e "$work/build/${pair#*:}" ] || fail "${pair#*:} is built"
    done
    [ -x "$work/build/echo_poll" ] || fail 'echo_poll, which needs no package, is not built'
    ! cmake "$@" -B "$work/all" -D CLOUDTUNNEL_ALL_EXAMPLES=ON >"$work/log" 2>&1 || fail 'a missing package is no failure'
    grep -q 'libuv1-dev' "$work/log" || fail "$(cat "$work/log")"
}

# cmake_subdirectory CC CXX SOURCE_DIR LIBRARY_SOURCES: inside another project the library is its two targets alone.
cmake_subdirectory() {
    cmake -S "$3" -B "$work/build" -D CMAKE_C_COMPILER="$1" -D CMAKE_CXX_COMPILER="$2" -D SOURCES="$4" \
        >"$work/log" 2>&1 || fail "$(cat "$work/log")"
}

# cmake_refuses PREFIX CC SOURCE_DIR: a project that wants a newer interface than the prefix has is refused with a message.
cmake_refuses() {
    ! cmake -S "$3" -B "$work/build" -D CMAKE_C_COMPILER="$2" -D CMAKE_PREFIX_PATH="$1" -D WANTED=2 >"$work/log" 2>&1 ||
        fail 'version 2 was found'
    grep -q 'not accepted' "$work/log" || fail "$(cat "$work/log")"
}

# version PREFIX LIBDIR VERSION CHANGELOG: one version everywhere, in the stripped library too.
version() {
    with_prefix "$1" "$2"
    [ "$(pkg-config --modversion cloudtunnel)" = "$3" ] || fail 'pkg-config reports another version'
    strip -o "$work/stripped" "$1/$2/libcloudtunnel.so"
    strings "$work/stripped" | grep -qx "libcloudtunnel $3" || fail "'libcloudtunnel $3' is not in the library"
    newest=$(sed -n 's/^## \[\([0-9][^]]*\)\].*/\1/p' "$4" | head -n 1)
    [ "$newest" = "$3" ] || fail "the newest entry of the change log is '$newest'"
}

# programs PREFIX VERSION PROGRAM...: the programs start from the moved prefix, with no help from the environment.
programs() {
    prefix=$1 version=$2
    shift 2
    for program in "$@"; do
        [ "$("$prefix/bin/$program" --version)" = "$program $version" ] || fail "$program does not print its version"
    done
}

"$fact" "$@"
