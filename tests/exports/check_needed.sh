#!/bin/sh
# check_needed.sh READELF LIBRARY: the library names itself libcloudtunnel.so.1 and needs nothing but OpenSSL, json-c
# and libc.
set -eu
dynamic=$("$1" -d "$2")
soname=$(printf '%s\n' "$dynamic" | sed -n 's/.*(SONAME).*\[\(.*\)\]/\1/p')
[ "$soname" = libcloudtunnel.so.1 ] || { echo "SONAME is '$soname'"; exit 1; }
needed=$(printf '%s\n' "$dynamic" | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p')
for library in $needed; do
    case $library in
    libssl.so.* | libcrypto.so.* | libjson-c.so.* | libc.so* | libc.musl-*) ;;
    *) echo "needs $library"; exit 1 ;;
    esac
done
for wanted in libssl libcrypto libjson-c; do
    printf '%s\n' "$needed" | grep -q "^$wanted\.so" || { echo "does not need $wanted"; exit 1; }
done
