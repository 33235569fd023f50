#!/bin/bash
# Builds the driver, or a sample, with one fault put into it, for each patch in tests/mutants, and
# demands that the tests find it. Prints what found each fault and how long that took. Fails when a
# fault survives, when a patch no longer fits, and when the tests fail without any fault.
#
# A patch begins with two lines of text: what it breaks, and `build: release`, or `build: search`
# for a fault that shows only where every load and store is a scheduling point. The work is done in
# a copy of the tree, where a fault costs one source file and the link of the test programs.
#
# usage: scripts/check-mutants.sh [NAME...]     NAME of a patch, without .patch (default: all)
set -uo pipefail
cd "$(dirname "$0")/.."

readonly patches=$PWD/tests/mutants
readonly tree=$PWD/build/mutants
readonly log=$tree/build/check.log
readonly time_limit=120 # seconds for one program; a fault may make it hang
readonly programs=(
    hook/hook_tests driver/driver_tests packet/packet_tests
    hook/hook_schedule_tests driver/driver_schedule_tests packet/packet_schedule_tests
    samples/sample_schedule_tests)
# What real threads meet is another thing each time, and the image has no fault put into it. Small
# models run whole, searches are cut short.
readonly models='*Models*'
readonly others='-*RealThreads*:*Models*:*/Image*'

# Enough to find every fault several times over, and far below what `make test` spends.
export NETSIEVE_SCHEDULES=${NETSIEVE_SCHEDULES:-2500}

# Files that did not change keep their times, so that they are not built again.
update_tree() {
    mkdir -p "$tree/build"
    (cd "$tree" && find . -path ./build -prune -o -type f -print) | while IFS= read -r file; do
        [ -e "$file" ] || rm "$tree/$file"
    done
    find . \( -path ./build -o -path ./.git \) -prune -o -type f -print |
        while IFS= read -r file; do
            cmp -s "$file" "$tree/$file" || install -D "$file" "$tree/$file"
        done
}

build() { # PRESET
    (cd "$tree" &&
        { [ -f "build/$1/build.ninja" ] || cmake --preset "$1" -DNETSIEVE_BENCH=OFF -DNETSIEVE_LOCK_ANALYSIS=OFF; } &&
        cmake --build --preset "$1" --parallel "$(nproc)" --target "${programs[@]##*/}") >"$log" 2>&1
}

# Prints the first test that fails; the last that began, when the program did not end by itself.
first_failure() { # PRESET
    local program filter
    for program in "${programs[@]}"; do
        for filter in "$others" "$models"; do
            run "$tree/build/$1/tests/$program" "$filter" && continue
            report_failure "$program"
            return
        done
    done
}

run() { # PROGRAM FILTER
    local schedules=(NETSIEVE_SCHEDULES="$NETSIEVE_SCHEDULES")
    [ "$2" = "$models" ] && schedules=(-u NETSIEVE_SCHEDULES)
    timeout "$time_limit" env "${schedules[@]}" "$1" \
        --gtest_filter="$2" --gtest_fail_fast --gtest_color=no >"$log" 2>&1
}

report_failure() { # PROGRAM
    echo "${1##*/}: $({ grep -F '[  FAILED  ]' "$log" || grep -F '[ RUN' "$log" | tail -n 1; } |
        sed 's/^\[[^]]*\] //; s/[, ].*//; q')"
}

# What the patch's file is called, and where it is in the tree.
target_of() { # PATCH
    sed -n 's,^+++ b/,,p' "$1"
}

check_unbroken() { # PRESET
    local found
    build "$1" || { tail -n 20 "$log"; echo "check-mutants: the tests do not build" >&2; exit 1; }
    found=$(first_failure "$1")
    [ -z "$found" ] && return
    echo "check-mutants: $found fails without any fault ($1 build); see $log" >&2
    exit 1
}

# Prints the line of one mutant; fails unless its fault was found.
check_mutant() { # PATCH
    local -r patch=$1 name=$(basename "$1" .patch) started=$SECONDS
    local -r preset=$(sed -n 's/^build: //p' "$patch") target=$(target_of "$patch")
    local found
    # No fuzz: a hunk that only nearly fits may put the fault somewhere else.
    if ! patch --quiet --force --fuzz=0 --reject-file=- -p1 -d "$tree" <"$patch" >"$log" 2>&1; then
        found="THE PATCH NO LONGER FITS"
    elif ! build "$preset"; then
        found="DOES NOT BUILD"
    else
        found=$(first_failure "$preset")
    fi
    rm -f "$tree/$target".orig
    cp "$target" "$tree/$target"
    printf '%-26s %-7s %3d s  %s\n' "$name" "$preset" $((SECONDS - started)) "${found:-SURVIVES}"
    printf '%30s%s\n' '' "$(head -n 1 "$patch")"
    [[ $found == *:* ]]
}

main() {
    local names=("$@") presets preset failures=0 name
    [ $# -gt 0 ] || mapfile -t names < <(cd "$patches" && printf '%s\n' *.patch | sed 's/\.patch$//')
    update_tree
    presets=$(cd "$patches" && sed -n 's/^build: //p' "${names[@]/%/.patch}" | sort -u)
    for preset in $presets; do
        check_unbroken "$preset"
    done
    for name in "${names[@]}"; do
        check_mutant "$patches/$name.patch" || failures=$((failures + 1))
    done
    echo "${#names[@]} faults, $((${#names[@]} - failures)) found"
    [ $failures = 0 ]
}

main "$@"
