#!/bin/sh
# check_needed.sh READELF LIBRARY: the library names itself libcloudtunnel-module.so.1 and needs nothing but
# libcloudtunnel and libc.
set -eu
dynamic=$("$1" -d "$2")
soname=$(printf '%s\n' "$dynamic" | sed -n 's/.*(SONAME).*\[\(.*\)\]/\1/p')
[ "$soname" = libcloudtunnel-module.so.1 ] || { echo "SONAME is '$soname'"; exit 1; }
needed=$(printf '%s\n' "$dynamic" | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p')
for library in $needed; do
    case $library in
    libcloudtunnel.so.1 | libc.so* | libc.musl-*) ;;
    *) echo "needs $library"; exit 1 ;;
    esac
done
printf '%s\n' "$needed" | grep -qx 'libcloudtunnel\.so\.1' || { echo "does not need libcloudtunnel"; exit 1; }
