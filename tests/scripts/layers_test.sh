#!/bin/bash
# layers_test.sh LAYERS READELF COMPILER: the layer check finds each call upwards and each circle that is planted in a
# library of three components, names caller, callee and symbol, and passes what runs downwards.
set -eu
layers=$1 readelf=$2 compiler=$3
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$work"
mkdir -p src/top src/left src/right src/base
failures=0

cat >table.md <<'END'
| layer | component | what lives there |
| --- | --- | --- |
| 2 | `src/top` | calls everything below |
| 1 | `src/left` | beside right |
| 1 | `src/right` | beside left |
| 0 | `src/base` | calls nothing |
END

# source_file FILE TEXT: a component's file and its object.
source_file() {
    printf '%s\n' "$2" >"$1.c"
    "$compiler" -c "$1.c" -o "$1.c.o"
}

clean_library() {
    source_file src/top/start 'int left(void); int right(void); int start(void); int start(void) { return left() + right(); }'
    source_file src/left/left 'int base(void); int right(void); int left(void); int left(void) { return base() + right(); }'
    source_file src/right/right 'extern int count; int right(void); int right(void) { return count; }'
    source_file src/base/base 'int count; int base(void); int base(void) { return count; }'
}

# expect FACT STATUS LINE...: the check ends with the status, and prints these lines.
expect() {
    local fact=$1 wanted=$2 status=0
    shift 2
    printf '%s\n' "$@" >wanted
    "$layers" "$readelf" table.md src/*/*.o >printed 2>&1 || status=$?
    if [ $status -ne "$wanted" ] || ! diff -u wanted printed; then
        echo "failed: $fact (status $status)"
        cat printed
        failures=$((failures + 1))
    fi
}

clean_library
expect 'calls downwards, and to one side, pass' 0 \
    '5 calls between 4 components, 0 of them upwards or in a circle'

source_file src/base/base 'int start(void); int count; int base(void); int base(void) { return count + start(); }'
expect 'a call upwards is named' 1 \
    'src/base/base.c: base uses start of src/top/start.c: a call upwards, from layer 0 (src/base) to layer 2 (src/top)' \
    '6 calls between 4 components, 1 of them upwards or in a circle'

clean_library
source_file src/top/start 'int ready; int left(void); int start(void); int start(void) { return left(); }'
source_file src/left/left 'extern int ready; int *where(void); int *where(void) { return &ready; } int left(void); int left(void) { return 0; }'
expect 'a use of data above is a call upwards' 1 \
    'src/left/left.c: where uses ready of src/top/start.c: a call upwards, from layer 1 (src/left) to layer 2 (src/top)' \
    '3 calls between 4 components, 1 of them upwards or in a circle'

clean_library
source_file src/base/base 'int start(void); int count; int (*handler)(void) = start; int base(void); int base(void) { return count; }'
expect 'a table that holds the address of a function above uses it' 1 \
    'src/base/base.c: handler uses start of src/top/start.c: a call upwards, from layer 0 (src/base) to layer 2 (src/top)' \
    '6 calls between 4 components, 1 of them upwards or in a circle'

clean_library
source_file src/right/back 'int left(void); int back(void); int back(void) { return left(); }'
expect 'a circle within a layer is named' 1 \
    'src/left/left.c: left uses right of src/right/right.c: in a circle between src/left and src/right' \
    'src/right/back.c: back uses left of src/left/left.c: in a circle between src/left and src/right' \
    '6 calls between 4 components, 2 of them upwards or in a circle'
rm src/right/back.*

clean_library
sed -i '/src\/right/d' table.md
expect 'a component without a layer is refused' 2 \
    'layers.py: src/right has no layer; give it a row in table.md'
cat >>table.md <<'END'
| 1 | `src/right` | beside left |
| 1 | `src/gone` | nothing |
END
expect 'a row without a component is refused' 2 \
    'layers.py: table.md has a row for src/gone, of which there is no object; remove the row'

[ $failures -eq 0 ]
