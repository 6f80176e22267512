#!/bin/sh
# package-test.sh DIR: installs the packages in DIR with apt in a bare Debian of the machine's release without this
# source tree, builds the examples there with pkg-config and with CMake, runs them against the installed simulator,
# and removes the packages again. The bare system is made once, in build/package-root; mirrors, releases and options
# are those of the machine's own apt.
set -eu
stop() {
    echo "package-test.sh: $1" >&2
    exit 2
}

[ $# -eq 1 ] || stop 'no folder of packages; call it as scripts/package-test.sh build/package'
[ "$(find "$1" -maxdepth 1 -name '*.deb' 2>/dev/null | wc -l)" -eq 3 ] ||
    stop "not three packages in '$1'; 'make package' makes them"
[ "$(id -u)" -eq 0 ] || stop "making a bare system needs root; run it with sudo"
for tool in debootstrap chroot mount mountpoint apt-get apt-config; do
    command -v "$tool" >/dev/null || stop "no $tool; 'make package-test' installs debootstrap, the rest is Debian's own"
done
debs=$(cd "$1" && pwd)
cd "$(dirname "$0")/.."
cache=$PWD/build/package-root
root=$cache/root
ready=$cache/ready # shows that the root is complete; without it the root is made again
tools='gcc libc6-dev make cmake pkg-config'

clean_up() {
    status=$?
    trap - EXIT
    if mountpoint -q "$root/proc"; then umount "$root/proc" || umount -l "$root/proc"; fi
    exit $status
}
trap clean_up EXIT
trap 'exit 130' INT
trap 'exit 143' TERM HUP

# within COMMAND...: in the bare system, with a clean environment.
within() {
    env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin HOME=/root LC_ALL=C DEBIAN_FRONTEND=noninteractive chroot "$root" "$@"
}

mount_proc() {
    mkdir -p "$root/proc"
    mountpoint -q "$root/proc" || mount -t proc proc "$root/proc"
}

# targets FORMAT [FILTER...]: what the machine's apt reads, of Debian itself.
targets() {
    format=$1
    shift
    apt-get indextargets --format "$format" 'Created-By: Packages' 'Origin: Debian' "$@" | sort -u
}

# apt_as_here: gives the root the machine's package sources and the options to reach them.
apt_as_here() {
    # shellcheck disable=SC2016 # apt's own variables
    targets 'deb $(REPO_URI) $(RELEASE) $(COMPONENT)' >"$root/etc/apt/sources.list"
    apt-config dump | grep -E '^Acquire::(http|https|Check-|Retries)' >"$root/etc/apt/apt.conf.d/90machine" || :
    cp /etc/resolv.conf /etc/hosts "$root/etc/"
}

make_root() {
    # shellcheck disable=SC1091 # the machine's own file
    suite=$(. /etc/os-release && echo "${VERSION_CODENAME:-}")
    [ -n "$suite" ] || stop "/etc/os-release names no release; this takes a Debian machine"
    # shellcheck disable=SC2016 # apt's own variable
    mirror=$(targets '$(REPO_URI)' "Codename: $suite" 'Component: main' | head -n 1)
    [ -n "$mirror" ] || stop "apt on this machine knows no mirror for Debian $suite; run apt-get update, or add one"
    mountpoint -q "$root/proc" && umount "$root/proc"
    rm -rf --one-file-system "$cache"
    mkdir -p "$cache"
    echo "making a bare Debian $suite in $root"
    debootstrap --variant=minbase "$suite" "$root" "$mirror" >"$cache/debootstrap.log" 2>&1 ||
        stop "debootstrap failed: $(tail -n 1 "$cache/debootstrap.log")"
    mountpoint -q "$root/proc" && umount "$root/proc"
    apt_as_here
    mount_proc
    within apt-get update -qq
    # shellcheck disable=SC2086 # a list of words
    within apt-get install -y -qq --no-install-recommends $tools >"$cache/tools.log" 2>&1 ||
        stop "the compiler does not install: $(tail -n 1 "$cache/tools.log")"
    touch "$ready"
}

# out: removes the packages and what was installed for them.
out() {
    within apt-get purge -y -qq --autoremove libcloudtunnel1 libcloudtunnel-dev cloudtunnel-tools >"$cache/out.log" 2>&1 ||
        stop "the packages cannot be removed: $(tail -n 1 "$cache/out.log")"
}

[ -e "$ready" ] || make_root
mount_proc
if within dpkg-query -W libcloudtunnel1 >/dev/null 2>&1; then out; fi # of a run that was cut off
rm -rf "$root/test"
mkdir "$root/test"
mkdir -p "$root/test/tests/apps/module" "$root/test/tests/examples"
cp "$debs"/*.deb packaging/debian/inside.sh "$root/test/"
cp tests/apps/module/scenario.sh "$root/test/tests/apps/module/"
cp tests/examples/scenario.sh "$root/test/tests/examples/"
within sh -c 'apt-get install -y -qq --no-install-recommends /test/*.deb' >"$cache/install.log" 2>&1 ||
    stop "the packages do not install: $(tail -n 1 "$cache/install.log")"
within /test/inside.sh
out
left=$(find "$root/usr" "$root/etc" "$root/var/lib/dpkg/info" -name '*cloudtunnel*')
[ -z "$left" ] || stop "left behind after removal: $left"
echo "packages installed, used and removed"
