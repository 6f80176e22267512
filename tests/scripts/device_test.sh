#!/bin/bash
# What the scripts that make the device's platform say when something is missing: one line, what and how to mend it, and
# no platform that is not whole. Usage: scripts_test.sh DEVICE_FOLDER PLATFORM_FOLDER, the latter made before, for its
# package lists.
set -u
device=$(cd "$1" && pwd) platform=$(cd "$2" && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
failures=0

# fails TEXT COMMAND...: the last line on standard error has the text, the status is not zero, and no sysroot is there.
fails() {
    local text=$1
    shift
    if "$@" >"$work/out" 2>"$work/err" || ! tail -n 1 "$work/err" | grep -q -e "$text" || [ -e "$work/made/sysroot" ]; then
        echo "failed: $* (expected '$text')"
        cat "$work/err"
        failures=$((failures + 1))
    fi
}

# A copy of the scripts, so that the pins can be changed, and a place with the package lists that are there already.
mkdir -p "$work/tree/cmake" "$work/tree/scripts" "$work/made" "$work/bin"
cp -r "$device" "$work/tree/scripts/device"
cp -r "$device/../../cmake/toolchains" "$work/tree/cmake/"
ln -s "$platform/apt" "$work/made/apt"
sysroot=$work/tree/scripts/device/sysroot.sh

# without TOOL COMMAND...: runs the command where that tool is not found.
without() {
    local tool=$1 folder entry
    shift
    rm -rf "$work/path"
    mkdir "$work/path"
    for folder in /usr/bin /bin /usr/sbin; do
        for entry in "$folder"/*; do ln -sf "$entry" "$work/path/" 2>/dev/null; done
    done
    rm -f "$work/path/$tool"
    PATH=$work/path "$@"
}

fails 'usage: sysroot.sh DIR' "$sysroot"
fails 'usage: sysroot.sh DIR' "$sysroot" a b
fails 'usage: host-openssl.sh DIR' "$device/host-openssl.sh"
fails "ld.lld is missing; 'make device' installs it" without ld.lld "$sysroot" "$work/made"
fails "usage: footprint.py check|write SMALL FAST TABLE" "$device/footprint.py" show
fails "libcloudtunnel.so is not built; 'make device' builds it" "$device/footprint.py" check "$work" "$work" "$work/table"

# A step that fails leaves nothing that looks whole, and tells where its output is.
printf '#!/bin/sh\necho broken >&2\nexit 1\n' >"$work/bin/dpkg-deb"
chmod +x "$work/bin/dpkg-deb"
ln -s "$platform/packages" "$work/made/packages"
PATH=$work/bin:$PATH fails 'c_library failed; the whole output is in ' "$sysroot" "$work/made"
[ -d "$work/made/sysroot.part" ] || { echo 'failed: the half-made sysroot has no name of its own'; failures=$((failures + 1)); }

# A package that the archive does not have, and one that nobody pinned.
rm "$work/made/packages"
sed -i 's/^\(deb .* musl  *\).*/\10.0-0/' "$work/tree/scripts/device/versions"
fails 'c_library failed' "$sysroot" "$work/made"
grep -q 'musl 0.0-0 cannot be had from bookworm; put a version that the archive has into scripts/device/versions' "$work/err" ||
    { echo 'failed: the package that cannot be had is not named'; cat "$work/err"; failures=$((failures + 1)); }
sed -i '/ musl  */d' "$work/tree/scripts/device/versions"
fails 'c_library failed' "$sysroot" "$work/made"
grep -q 'musl is not pinned; add it to scripts/device/versions' "$work/err" ||
    { echo 'failed: the package without a pin is not named'; cat "$work/err"; failures=$((failures + 1)); }

# The toolchain file without a sysroot.
fails_to_configure() {
    mkdir -p "$work/project"
    printf 'cmake_minimum_required(VERSION 3.25)\nproject(p C)\n' >"$work/project/CMakeLists.txt"
    ! cmake -S "$work/project" -B "$work/project/build" -DCMAKE_TOOLCHAIN_FILE="$device/../../cmake/toolchains/aarch64-linux-musl.cmake" \
        -DCLOUDTUNNEL_SYSROOT=/nowhere >"$work/out" 2>&1 && grep -q 'set CLOUDTUNNEL_SYSROOT' "$work/out"
}
fails_to_configure || { echo 'failed: a sysroot that is not there is not told'; failures=$((failures + 1)); }

# The toolchain file stands alone: any project, a sysroot of the user's own.
printf 'cmake_minimum_required(VERSION 3.25)\nproject(p C)\nadd_executable(p p.c)\n' >"$work/project/CMakeLists.txt"
printf '#include <stdio.h>\nint main(void) { return puts("hello") < 0; }\n' >"$work/project/p.c"
cp "$device/../../cmake/toolchains/aarch64-linux-musl.cmake" "$work/alone.cmake"
rm -rf "$work/project/build"
{ cmake -S "$work/project" -B "$work/project/build" -DCMAKE_TOOLCHAIN_FILE="$work/alone.cmake" \
    -DCLOUDTUNNEL_SYSROOT="$platform/sysroot" && cmake --build "$work/project/build"; } >"$work/out" 2>&1 &&
    [ "$(qemu-aarch64 -L "$platform/sysroot" "$work/project/build/p")" = hello ] ||
    { echo 'failed: the toolchain file does not stand alone'; cat "$work/out"; failures=$((failures + 1)); }

[ $failures -eq 0 ]
