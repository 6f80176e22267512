#!/bin/bash
# mutants_test.sh SCRIPT: on a project of one component, faults that a test notices are counted as noticed, others are
# shown with file, line and change; a block that is not freed is noticed under the sanitizers; the sources stay as they
# are, after an interruption too.
set -eu
script=$1
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$work"
failures=0
mkdir -p toy/src/math toy/tests

cat >toy/CMakeLists.txt <<'END'
cmake_minimum_required(VERSION 3.25)
project(toy LANGUAGES CXX)
enable_testing()
if(CLOUDTUNNEL_SANITIZE)
  add_compile_options(-fsanitize=address)
  add_link_options(-fsanitize=address)
endif()
add_library(cloudtunnel_objects OBJECT src/math/grow.cpp src/math/drop.cpp)
add_executable(math_grow_test tests/test.cpp $<TARGET_OBJECTS:cloudtunnel_objects>)
add_test(NAME math_grow_test COMMAND math_grow_test)
END
cat >toy/src/math/grow.cpp <<'END'
// Compares, in a comment: a < b.
int grow(int value);
int grow(int value) {
    if (value < 3) return 0;
    return value + 1;
}
END
cat >toy/src/math/drop.cpp <<'END'
#include <stdlib.h>
void drop(char **held);
void drop(char **held) {
    free(*held);
}
END

# asks CONDITION: a test program that fails unless the condition holds.
asks() {
    cat >toy/tests/test.cpp <<END
#include <stdlib.h>
int grow(int value);
void drop(char **held);
int main() {
    auto *block = static_cast<char *>(malloc(1));
    char **held = &block;
    drop(held);
    block = nullptr;
    return $1 ? 0 : 1;
}
END
}

fail() {
    echo "failed: $1"
    cat printed
    failures=$((failures + 1))
}

# mutants STATUS: the script, trying all faults there are, ends with this status.
mutants() {
    local status=0
    "$script" --count 1000 --jobs 1 toy made >printed 2>&1 || status=$?
    [ $status -eq "$1" ] || fail "status $status instead of $1"
}

find toy/src -type f -exec sha256sum {} + >sums

asks 'grow(2) == 0 && grow(3) == 4 && grow(9) == 10'
mutants 0
grep -qx 'src/math/grow.cpp:4: operator: math_grow_test' printed || fail 'the test that noticed is not named'
grep -qx 'src/math/drop.cpp:4: statement: survived' printed ||
    fail 'a block that is not freed is noticed without a sanitizer'
grep -Eqx 'seed 1: ([0-9]+) faults, \1 noticed, 0 survived; [0-9]+ more did not build or changed no code' printed ||
    fail 'not every fault was noticed'

asks 'grow(0) == 0 && grow(9) == 10'
mutants 1
for change in '<= 3' '< 4' '< 2'; do
    printf 'survived: src/math/grow.cpp:4: %s\n  - if (value < 3) return 0;\n  + if (value %s) return 0;\n' \
        "$([ "$change" = '<= 3' ] && echo operator || echo constant)" "$change" >wanted
    tr '\n' '~' <printed | grep -qF -- "$(tr '\n' '~' <wanted)" || fail "no survivor with '$change'"
done
grep -q ', 3 survived; ' printed || fail 'the survivors are not counted'
cp printed first
mutants 1
diff <(grep -v '^[0-9]' first) <(grep -v '^[0-9]' printed) || fail 'the same seed did not try the same faults'

# Interrupted as soon as the first verdict is there, and run once more. The pipe stays open: the second verdict may come
# before the signal.
mkfifo lines
"$script" --count 1000 --jobs 1 toy made >lines 2>printed &
exec 3<lines
read -r _ <&3
kill -TERM $!
status=0
wait $! || status=$?
exec 3<&-
[ $status -eq 130 ] || fail "interrupted, the script ended with $status"
mutants 1
diff <(grep '^survived' first) <(grep '^survived' printed) || fail 'an interruption changed what the next run finds'

sha256sum --quiet -c sums || fail 'the sources were changed'

asks 'grow(2) == 1'
mutants 2
grep -qx 'mutants.py: math_grow_test fails without a fault; mend it first' printed ||
    fail 'a test that fails anyway is not refused'

[ $failures -eq 0 ]
