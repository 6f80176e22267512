#!/bin/sh
# install-packages.sh PACKAGE...: installs the Debian packages of which something is missing on this machine, by the list
# in scripts/packages.txt. If nothing is missing, the package manager is not called.
set -eu
table=$(dirname "$0")/packages.txt

fail() {
    echo "install-packages.sh: $1" >&2
    exit 1
}

# serves PACKAGE: what the package serves, one "kind name" a line.
serves() {
    awk -v package="$1" '$1 == package { for (i = 2; i < NF; i += 2) print $i, $(i + 1) }' "$table"
}

# compiles SOURCE COMPILER...: the compiler accepts the text.
compiles() {
    source=$1
    shift
    printf '%s\n' "$source" | "$@" -x c++ - -o "$work/out" >/dev/null 2>&1
}

# found KIND NAME
found() {
    case $1 in
        program) command -v "$2" >/dev/null ;;
        header) compiles "#if !__has_include(<$2>)
            #error
            #endif" g++ -E ;;
        library) compiles 'int main() {}' g++ "-Wl,--no-as-needed,-l$2" ;;
        module) pkg-config --exists "$2" ;;
        python) /usr/bin/python3 -c "import $2" 2>/dev/null ;;
        fuzzer)
            compiles "extern \"C\" int $2(const unsigned char *, unsigned long) { return 0; }" \
                clang++ -fsanitize=fuzzer
            ;;
        file) [ -e "$2" ] ;;
        *) fail "'$1' in $table is no kind of thing that a package serves" ;;
    esac
}

# look_for KIND PACKAGE...: sets `missing` to the packages of which something of this kind (or of `all`) is missing, and
# `reasons` to what that is.
look_for() {
    wanted=$1 missing='' reasons=''
    shift
    for package in "$@"; do
        serves "$package" >"$work/serves"
        [ -s "$work/serves" ] || fail "$table does not say what '$package' serves; add a row"
        while read -r kind name; do
            [ "$wanted" = all ] || [ "$wanted" = "$kind" ] || continue
            found "$kind" "$name" && continue
            missing="$missing $package" reasons="${reasons:+$reasons, }$package for the $kind $name"
            break
        done <"$work/serves"
    done
}

# apt_get ARGUMENT...: runs apt-get as root, and fails with its reason.
apt_get() {
    $as_root env DEBIAN_FRONTEND=noninteractive apt-get "$@" >"$work/apt" 2>&1 && return
    reason=$(grep '^E: ' "$work/apt" | tail -n 1)
    fail "needs $reasons; 'apt-get $1' failed: ${reason:-it gave no reason}"
}

# install: what look_for found missing.
install() {
    [ -n "$missing" ] || return 0
    command -v apt-get >/dev/null || fail "needs $reasons; there is no apt-get, so install what serves this by hand"
    as_root=
    if [ "$(id -u)" -ne 0 ]; then
        command -v sudo >/dev/null || fail "needs $reasons; run it as root, or install sudo"
        as_root=sudo
    fi
    echo "installing:$missing"
    apt_get update -qq
    # shellcheck disable=SC2086 # a list of words
    apt_get install -y -qq --no-install-recommends $missing
}

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# Programs first: some of them are asked about the rest.
look_for program "$@"
install
look_for all "$@"
install
[ -z "$missing" ] || look_for all "$@"
[ -z "$missing" ] || fail "installed, but still not found: $reasons"
