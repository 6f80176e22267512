#!/bin/bash
# install_packages_test.sh PROJECT: a package is installed where something that it serves is missing, and only there;
# whatever stops that is said in one line. Its machine is a PATH of fake programs, on which apt-get makes
# the programs that a package serves.
set -eu
project=$1
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
failures=0
mkdir "$work/scripts" "$work/plain"
cp "$project/scripts/install-packages.sh" "$work/scripts/"
script=$work/scripts/install-packages.sh
cat >"$work/scripts/packages.txt" <<'END'
# comment
g++           program g++
fast-tool     program fast  program faster
headers-dev   header lib/lib.h
library-dev   header ssl.h  library ssl
module-dev    module json
END

for tool in sh awk env mktemp rm tail cat grep dirname chmod cp; do ln -s "$(command -v $tool)" "$work/plain/"; done

# What they find is in the files `headers`, `libraries` and `modules` of the machine.
export MACHINE=$work/machine
mkdir "$work/fakes"
cat >"$work/fakes/g++" <<'END'
#!/bin/sh
text=$(cat)
case $* in
    *-E*) header=${text#*<} && grep -qx "${header%%>*}" "$MACHINE/headers" ;;
    *) library=${*##*-l} && grep -qx "${library%% *}" "$MACHINE/libraries" ;;
esac
END
cat >"$work/fakes/pkg-config" <<'END'
#!/bin/sh
grep -qx "$2" "$MACHINE/modules"
END
cat >"$work/fakes/apt-get" <<'END'
#!/bin/sh
echo "$*" >>"$MACHINE/calls"
for word; do
    case $word in
        g++) cp "$MACHINE/../fakes/g++" "$MACHINE/bin/" ;;
        fast-tool) for name in fast faster; do echo >"$MACHINE/bin/$name" && chmod +x "$MACHINE/bin/$name"; done ;;
        headers-dev) echo lib/lib.h >>"$MACHINE/headers" ;;
        library-dev) echo ssl.h >>"$MACHINE/headers" && echo ssl >>"$MACHINE/libraries" ;;
        module-dev) echo json >>"$MACHINE/modules" ;;
    esac
done
END
chmod +x "$work"/fakes/*

# program NAME TEXT: a program of the machine.
program() {
    printf '#!/bin/sh\n%s\n' "$2" >"$MACHINE/bin/$1"
    chmod +x "$MACHINE/bin/$1"
}

# machine: a new one, without any of what the packages serve; its user is root.
machine() {
    rm -rf "$MACHINE"
    mkdir -p "$MACHINE/bin"
    cp "$work/fakes/pkg-config" "$work/fakes/apt-get" "$MACHINE/bin/"
    touch "$MACHINE/headers" "$MACHINE/libraries" "$MACHINE/modules" "$MACHINE/calls"
    program id 'echo 0'
}

# here COMMAND...: on that machine.
here() { PATH=$MACHINE/bin:$work/plain "$@"; }

# expect FACT STATUS OUTPUT CALLS PACKAGE...: asked for these packages, the script ends with this status and output, and
# apt-get installed the packages of CALLS, a slash between two calls.
expect() {
    local fact=$1 wanted=$2 output=$3 calls=$4 status=0
    shift 4
    here "$script" "$@" >"$work/out" 2>&1 || status=$?
    if [ $status -ne "$wanted" ] || [ "$(cat "$work/out")" != "$output" ] ||
        [ "$(sed -n 's/^install -y -qq --no-install-recommends //p' "$MACHINE/calls" | paste -sd/)" != "$calls" ]; then
        echo "failed: $fact; status $status, apt-get was called as"
        cat "$MACHINE/calls" "$work/out"
        failures=$((failures + 1))
    fi
}

all='g++ fast-tool headers-dev library-dev module-dev'

machine
# shellcheck disable=SC2086 # a list of words
expect 'on a bare machine the programs come first, then what they do not find' 0 \
    $'installing: g++ fast-tool\ninstalling: headers-dev library-dev module-dev' \
    'g++ fast-tool/headers-dev library-dev module-dev' $all
: >"$MACHINE/calls"
# shellcheck disable=SC2086
expect 'where all is there, the package manager is not called' 0 '' '' $all
[ ! -s "$MACHINE/calls" ] || { echo 'failed: apt-get was called'; failures=$((failures + 1)); }

rm "$MACHINE/bin/faster"
expect 'one missing program of two brings the package' 0 'installing: fast-tool' 'fast-tool' fast-tool headers-dev

machine
here apt-get install g++
echo lib/lib.h >"$MACHINE/headers"
: >"$MACHINE/calls"
expect 'a header that came with another version is not asked for' 0 '' '' g++ headers-dev
echo ssl.h >>"$MACHINE/headers"
expect 'a header without its library brings the package' 0 'installing: library-dev' 'library-dev' headers-dev library-dev

machine
expect 'a package without a row is refused' 1 \
    "install-packages.sh: $work/scripts/packages.txt does not say what 'other' serves; add a row" '' other

machine
program id 'echo 1000'
expect 'without root and sudo it is said what is missing' 1 \
    'install-packages.sh: needs fast-tool for the program fast; run it as root, or install sudo' '' fast-tool
# shellcheck disable=SC2016 # the program's own
program sudo 'exec "$@"'
expect 'sudo is used where there is one' 0 'installing: fast-tool' 'fast-tool' fast-tool

machine
rm "$MACHINE/bin/apt-get"
expect 'without apt-get all that is missing is named' 1 \
    'install-packages.sh: needs g++ for the program g++, fast-tool for the program fast; there is no apt-get, so install what serves this by hand' \
    '' g++ fast-tool

machine
# shellcheck disable=SC2016
program apt-get '[ "$1" = update ] && exit; echo "E: held broken packages" >&2; exit 100'
expect 'a failure of apt-get is one line with its reason' 1 \
    $'installing: fast-tool\ninstall-packages.sh: needs fast-tool for the program fast; \'apt-get install\' failed: E: held broken packages' \
    '' fast-tool
program apt-get 'echo "E: no network"; exit 100'
expect 'a package list that cannot be had is said' 1 \
    $'installing: fast-tool\ninstall-packages.sh: needs fast-tool for the program fast; \'apt-get update\' failed: E: no network' \
    '' fast-tool
program apt-get ':'
expect 'a package that does not bring what it should is said' 1 \
    $'installing: fast-tool\ninstalling: fast-tool\ninstall-packages.sh: installed, but still not found: fast-tool for the program fast' \
    '' fast-tool

# The project's own table has a row for each package of the Makefile, and no other.
awk '/^PACKAGES[a-z_-]* :=/ { on = 1; sub(/^[^=]*=/, "") } on { more = /\\$/; sub(/\\$/, ""); print; on = more }' \
    "$project/Makefile" | tr -s ' \t' '\n' | sed '/^$/d' | sort -u >"$work/named"
sed '/^#/d; s/ .*//' "$project/scripts/packages.txt" | sort >"$work/rows"
diff "$work/named" "$work/rows" || { echo "failed: the Makefile's packages and the rows differ"; failures=$((failures + 1)); }

[ $failures -eq 0 ]
