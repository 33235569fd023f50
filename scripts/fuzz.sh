#!/bin/bash
# Runs each fuzz target of a build, or the one that is named, and prints how many inputs each has tried. A target goes on from
# the inputs that it found before, build/fuzz/corpus; an input that fails is left beside that.
#
# usage: scripts/fuzz.sh BUILD SECONDS [TARGET]
set -euo pipefail
readonly build=$1 seconds=$2 targets=${3:-*_fuzz}
tree=$(cd "$(dirname "$0")/.." && pwd)
export ASAN_OPTIONS=detect_stack_use_after_return=0 # fibers have stacks of their own

seed() { # TARGET CORPUS
    case $1 in
    pe_file_fuzz) cp "$tree/build/image-tests/TOY.sys" "$2/toy" ;;
    capture_fuzz) head -c 1400 "$tree/samples/captures/lan.pcap" >"$2/lan" ;;
    esac
}

total=0
for target in "$build"/tests/fuzz/$targets; do
    name=${target##*/}
    corpus=$build/corpus/$name
    mkdir -p "$corpus"
    seed "$name" "$corpus"
    longest=1500
    [ "$name" != pe_file_fuzz ] || longest=20000
    "$target" -max_total_time="$seconds" -max_len="$longest" -verbosity=0 -print_final_stats=1 \
        -artifact_prefix="$build/" "$corpus" >"$build/$name.log" 2>&1 || {
        cat "$build/$name.log" >&2
        echo "$name failed; run it alone on the file that is named above" >&2
        exit 1
    }
    runs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$build/$name.log")
    printf '%-24s %10d inputs\n' "$name" "$runs"
    total=$((total + runs))
done
printf '%-24s %10d inputs, nothing found\n' all "$total"
