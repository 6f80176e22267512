#!/bin/sh
# Builds and tests everything with g++ and clang, against this machine's OpenSSL and the device's, for debugging and for
# release. Usage: matrix.sh OPENSSL_DIR [BUILD...]: the device's release built for this machine, and the builds to make by
# their names, all eight without one. Ends with a line for each build.
set -eu
fail() {
    echo "matrix.sh: $1" >&2
    exit 1
}
[ $# -ge 1 ] || fail "usage: matrix.sh OPENSSL_DIR [BUILD...]"
[ -e "$1/lib/libssl.so" ] || fail "no OpenSSL in $1; scripts/device/host-openssl.sh makes it"
device_openssl=$(cd "$1" && pwd)
shift
wanted=" $* "
cd "$(dirname "$0")/.."

summary=''
status=0
for compiler in gcc:g++ clang:clang++; do
    for openssl in system device; do
        for kind in Debug Release; do
            name=${compiler#*:}-openssl-$openssl-$kind
            [ "$wanted" = '  ' ] || case $wanted in *" $name "*) ;; *) continue ;; esac
            build=build/matrix/$name
            set -- -DCMAKE_BUILD_TYPE=$kind -DCMAKE_C_COMPILER="${compiler%:*}" -DCMAKE_CXX_COMPILER="${compiler#*:}"
            libraries=''
            if [ $openssl = device ]; then
                set -- "$@" -DOPENSSL_ROOT_DIR="$device_openssl"
                libraries=$device_openssl/lib # libssl there looks for its libcrypto
            fi
            export LD_LIBRARY_PATH="$libraries"
            mkdir -p "$build"
            if ! { cmake -S . -B "$build" -G Ninja "$@" && cmake --build "$build"; } >"$build/build.log" 2>&1; then
                tail -n 30 "$build/build.log" >&2
                result='does not build'
            else
                ctest --test-dir "$build" -j "$(nproc)" --output-on-failure >"$build/test.log" 2>&1 || true
                result=$(grep 'tests passed' "$build/test.log") || result='no tests ran'
            fi
            case $result in
                '100% tests passed'*) ;;
                *) status=1 ;;
            esac
            version=$(sed -n 's/.*Found OpenSSL:.*found version "\([^"]*\)".*/\1/p' "$build/build.log" | head -n 1)
            line="$(printf '%-32s OpenSSL %-8s %s' "$name" "${version:-as before}" "$result")"
            echo "$line"
            summary="$summary$line
"
        done
    done
done
[ -n "$summary" ] || fail "no build is called$wanted"
printf '\n%s' "$summary"
exit $status
