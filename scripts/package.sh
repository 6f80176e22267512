#!/bin/sh
# Makes the Debian packages in build/package and checks them with lintian.
set -eu
cd "$(dirname "$0")/.."

stop() {
    echo "package.sh: $1" >&2
    exit 2
}

[ $# -eq 0 ] || stop "unknown option '$1'; it takes none"
for tool in cmake cpack ninja scdoc dpkg-shlibdeps file lintian; do
    command -v "$tool" >/dev/null || stop "no $tool; 'make package' installs what it takes"
done

cmake --preset package >/dev/null
grep -q '^SCDOC:.*/scdoc$' build/package/CMakeCache.txt ||
    stop "the build tree was made without scdoc; remove build/package and start again"
cmake --build --preset package
rm -f build/package/*.deb
(cd build/package && cpack >cpack.log) || { cat build/package/cpack.log >&2; exit 1; }
lintian --allow-root --fail-on error,warning --suppress-tags-from-file packaging/debian/lintian-suppress \
    build/package/*.deb
(cd build/package && wc -c -- *.deb)
