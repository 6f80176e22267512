#!/bin/sh
# Makes the platform of the device, to build for and to run under emulation: musl, OpenSSL 1.1.1, json-c, and for the
# tests alone libc++ and GoogleTest, all for 64-bit ARM. Usage: sysroot.sh DIR. DIR/sysroot is there when all of it is
# whole, never before; what was finished is not made again, until scripts/device/versions or a script here changes.
set -eu
fail() {
    echo "sysroot.sh: $1" >&2
    exit 1
}
[ $# -eq 1 ] || fail "usage: sysroot.sh DIR"
device=$(cd "$(dirname "$0")" && pwd)
mkdir -p "$1"
work=$(cd "$1" && pwd)
. "$device/packages.sh"

for tool in clang clang++ ld.lld llvm-ar llvm-ranlib cmake ninja dpkg-deb dpkg-source xz perl make; do
    command -v "$tool" >/dev/null || fail "$tool is missing; 'make device' installs it"
done

toolchain=$device/../../cmake/toolchains/aarch64-linux-musl.cmake
made_of=$(cat "$device/versions" "$device/sysroot.sh" "$device/packages.sh" "$toolchain" | sha256sum)
[ "$(cat "$work/sysroot/made-of" 2>/dev/null)" != "$made_of" ] || exit 0

# Everything is made in place under this name, and gets the other one when it is whole.
S=$work/sysroot.part
if [ "$(cat "$S/made-of" 2>/dev/null)" != "$made_of" ]; then
    rm -rf "$S" "$work/sysroot"
    mkdir -p "$S/usr/lib" "$S/usr/include" "$S/lib" "$S/done"
    echo "$made_of" >"$S/made-of"
fi

# step NAME: does what the function of that name does, unless it was done; its output is kept, and shown on failure.
step() {
    [ ! -e "$S/done/$1" ] || return 0
    echo "sysroot: $1"
    set +e # for the moment: a function that a condition asks does not stop at its first failure
    (set -e && "$1") >"$work/$1.log" 2>&1
    status=$?
    set -e
    if [ $status -ne 0 ]; then
        tail -n 20 "$work/$1.log" >&2
        fail "$1 failed; the whole output is in $work/$1.log"
    fi
    : >"$S/done/$1"
}

unpack_deb() { dpkg-deb -x "$1"/*.deb "$2"; }

c_library() {
    raw=$work/raw
    rm -rf "$raw"
    for package in musl musl-dev linux-libc-dev-arm64-cross libgcc-12-dev-arm64-cross; do
        folder=$(fetch $package)
        unpack_deb "$folder" "$raw"
    done
    cp -a "$raw/usr/include/aarch64-linux-musl/." "$S/usr/include/"
    for kernel in linux asm asm-generic; do cp -a "$raw/usr/aarch64-linux-gnu/include/$kernel" "$S/usr/include/"; done
    cp -a "$raw"/usr/lib/aarch64-linux-musl/*.[oa] "$S/usr/lib/"
    cp "$raw/lib/aarch64-linux-musl/libc.so" "$S/usr/lib/"
    ln -sf ../usr/lib/libc.so "$S/lib/ld-musl-aarch64.so.1"
    cp "$raw"/usr/lib/gcc-cross/aarch64-linux-gnu/12/crt*.o "$raw"/usr/lib/gcc-cross/aarch64-linux-gnu/12/libgcc*.a "$S/usr/lib/"
    # The compiler asks for the shared one; there is none here.
    echo 'INPUT(-lgcc_eh)' >"$S/usr/lib/libgcc_s.so"
    rm -rf "$raw"
}

openssl() {
    unpack_source openssl "$work/source/openssl"
    cd "$work/source/openssl"
    CC="clang $flags" AR=llvm-ar RANLIB=llvm-ranlib ./Configure linux-aarch64 --prefix=/usr --openssldir=/etc/ssl \
        shared no-tests no-async no-engine
    make -j"$(nproc)" build_libs
    make DESTDIR="$S" install_dev
    rm -rf "$work/source/openssl"
}

# cmake_install SOURCE OPTION...: configures, builds and installs into the sysroot.
cmake_install() {
    rm -rf "$work/build-step"
    CLOUDTUNNEL_SYSROOT="$S" cmake -S "$1" -B "$work/build-step" -G Ninja -DCMAKE_TOOLCHAIN_FILE="$toolchain" \
        -DCMAKE_BUILD_TYPE=Release -DCMAKE_INSTALL_PREFIX=/usr -DCMAKE_INSTALL_LIBDIR=lib "$@"
    cmake --build "$work/build-step"
    DESTDIR="$S" cmake --install "$work/build-step"
    rm -rf "$work/build-step"
}

json_c() {
    # Its version script names a symbol that it does not have; a newer linker would refuse that.
    unpack_source json-c "$work/source/json-c"
    cmake_install "$work/source/json-c" -DBUILD_TESTING=OFF -DBUILD_APPS=OFF -DDISABLE_WERROR=ON \
        -DCLOUDTUNNEL_LINKER:FILEPATH="$(command -v ld.lld)"
    rm -rf "$work/source/json-c"
}

cxx_library() {
    unpack_source llvm-toolchain-14 "$work/source/llvm" '*/runtimes/*' '*/libcxx/*' '*/libcxxabi/*' '*/libunwind/*' '*/cmake/*'
    cmake_install "$work/source/llvm/runtimes" '-DLLVM_ENABLE_RUNTIMES=libunwind;libcxxabi;libcxx' \
        -DCMAKE_CXX_COMPILER_WORKS=ON -DLIBCXX_HAS_MUSL_LIBC=ON \
        -DLIBCXX_ENABLE_SHARED=OFF -DLIBCXXABI_ENABLE_SHARED=OFF -DLIBUNWIND_ENABLE_SHARED=OFF \
        -DLLVM_INCLUDE_TESTS=OFF -DLIBCXX_INCLUDE_TESTS=OFF -DLIBCXXABI_INCLUDE_TESTS=OFF -DLIBUNWIND_INCLUDE_TESTS=OFF \
        -DLIBCXX_INCLUDE_BENCHMARKS=OFF \
        -DLIBCXX_CXX_ABI=libcxxabi -DLIBCXXABI_USE_LLVM_UNWINDER=ON -DLIBCXX_ENABLE_STATIC_ABI_LIBRARY=ON
    rm -rf "$work/source/llvm"
    # Debian's libgcc_eh unwinds by a glibc call; C++ programs get LLVM's unwinder.
    echo 'INPUT(-lunwind)' >"$S/usr/lib/libgcc_s.so"
}

googletest() {
    folder=$(fetch googletest)
    unpack_deb "$folder" "$work/gtest"
    cmake_install "$work/gtest/usr/src/googletest" -DBUILD_GMOCK=OFF -DBUILD_SHARED_LIBS=OFF
    rm -rf "$work/gtest"
}

mkdir -p "$work/no-gcc" # what clang finds no host compiler in
flags="--target=aarch64-linux-musl --sysroot=$S --gcc-toolchain=$work/no-gcc -fuse-ld=lld -Wno-unused-command-line-argument"
for part in c_library openssl json_c cxx_library googletest; do step $part; done
mv "$S" "$work/sysroot"
