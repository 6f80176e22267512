# Packages of the releases in scripts/device/versions, by an apt directory of our own under $work/apt: the machine's own
# configuration stays as it was, and only lends the addresses. apt checks every signature. For sourcing; needs $work,
# $device (the folder of this file) and fail.

# pinned PACKAGE: its kind, release and version as scripts/device/versions has them.
pinned() {
    awk -v package="$1" '$3 == package { print $1, $2, $4; found = 1 } END { exit !found }' "$device/versions" ||
        fail "$1 is not pinned; add it to scripts/device/versions"
}

private_apt() {
    (
        export APT_CONFIG="$work/apt/conf"
        "$@"
    )
}

# apt_directory: makes the private directory and reads the package lists, once.
apt_directory() {
    [ ! -e "$work/apt/ready" ] || return 0
    addresses=$(apt-get indextargets --format '$(REPO_URI) $(RELEASE)' 'Created-By: Packages' |
        awk '$2 !~ /-(security|updates|backports)/ { print $1 }' | sort -u)
    [ -n "$addresses" ] || fail "apt knows no Debian archive; add one to /etc/apt/sources.list"
    keys=/usr/share/keyrings/debian-archive-keyring.gpg
    [ -e "$keys" ] || fail "$keys is missing; install debian-archive-keyring"

    rm -rf "$work/apt"
    mkdir -p "$work/apt/lists/partial" "$work/apt/cache/archives/partial"
    : >"$work/apt/status"
    address=$(printf '%s\n' "$addresses" | head -n 1)
    for release in $(awk '/^deb/ { print $2 }' "$device/versions" | sort -u); do
        echo "deb [arch=arm64 signed-by=$keys] $address $release main"
    done >"$work/apt/sources.list"
    for release in $(awk '/^source/ { print $2 }' "$device/versions" | sort -u); do
        echo "deb-src [signed-by=$keys] $address $release main"
    done >>"$work/apt/sources.list"
    cat >"$work/apt/conf" <<CONF
Dir::Etc::sourcelist "$work/apt/sources.list";
Dir::Etc::sourceparts "-";
Dir::State::lists "$work/apt/lists";
Dir::State::status "$work/apt/status";
Dir::Cache "$work/apt/cache";
APT::Architecture "arm64";
APT::Architectures { "arm64"; };
APT::Sandbox::User "root";
Acquire::Languages "none";
CONF
    private_apt apt-get update -qq --error-on=any || fail "the package lists cannot be read; is the network there?"
    : >"$work/apt/ready"
}

# fetch PACKAGE: downloads a pinned package into $work/packages/PACKAGE, and prints that folder.
fetch() {
    set -- "$1" $(pinned "$1")
    folder=$work/packages/$1
    if [ "$(cat "$folder/version" 2>/dev/null)" != "$4" ]; then
        apt_directory
        rm -rf "$folder"
        mkdir -p "$folder"
        case $2 in
            deb) set -- "$@" apt-get download -qq "$1=$4" ;;
            source) set -- "$@" apt-get source -qq --download-only --only-source "$1=$4" ;;
            *) fail "scripts/device/versions: '$2' is neither deb nor source" ;;
        esac
        package=$1 release=$3 version=$4
        shift 4
        (cd "$folder" && private_apt "$@") >&2 || fail \
            "$package $version cannot be had from $release; put a version that the archive has into scripts/device/versions"
        echo "$version" >"$folder/version"
    fi
    echo "$folder"
}

# unpack_source PACKAGE DIR [WILDCARD...]: a source package with its patches, or only what the wildcards name, without
# patches, when the whole would be many times as large.
unpack_source() {
    folder=$(fetch "$1") || exit 1
    into=$2
    rm -rf "$into"
    mkdir -p "$(dirname "$into")"
    if [ $# -eq 2 ]; then
        dpkg-source --no-check -x "$folder"/*.dsc "$into" >/dev/null || fail "$1 cannot be unpacked"
    else
        shift 2
        mkdir -p "$into"
        tar -xf "$folder"/*.orig.tar.xz -C "$into" --strip-components=1 --wildcards "$@" || fail "$folder cannot be unpacked"
    fi
}
