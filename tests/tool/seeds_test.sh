#!/bin/bash
# `netsieve replay --seed N`: whatever the seed varies, each frame fares as in a plain replay. With
# --faults frames may pass uninspected, and nothing else goes wrong.
#
# usage: seeds_test.sh NETSIEVE NETSIEVE.sys CAPTURE SEEDS
set -uo pipefail

netsieve=$1 image=$2 seeds=$4
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
failed=0
fail() {
    echo "FAILED: $*"
    cat "$scratch/summary"
    failed=1
}
replay() { # OUTPUT OPTION...
    "$netsieve" replay "$scratch/capture" -o "$scratch/$1" "${@:2}" >"$scratch/summary" 2>&1 ||
        fail "status $?: ${*:2}"
}

tcpdump -c 120 -r "$3" -w "$scratch/capture" 2>/dev/null
for driver in native "$image"; do
    returns=0 others=0
    for hook in count:ip drop:tcp hold:arp:success delay:5:udp; do
        replay plain --driver "$driver" --hook "$hook"
        grep -q '^varied' "$scratch/summary" && fail "a replay without a seed is varied"
        for ((seed = 1; seed <= seeds; seed++)); do
            replay varied --driver "$driver" --hook "$hook" --seed "$seed"
            cmp "$scratch/plain" "$scratch/varied" || fail "$driver $hook --seed $seed"
            grep -q '[1-9][0-9]* returns* of the adapter' "$scratch/summary" && returns=1
            grep -q '[1-9][0-9]* other adapter' "$scratch/summary" && others=1
        done
    done
    for ((seed = 1; seed <= seeds; seed++)); do
        replay varied --driver "$driver" --seed "$seed"
        cmp "$scratch/capture" "$scratch/varied" || fail "$driver without hooks --seed $seed"
    done
    [ $returns$others = 11 ] || fail "no seed moves an adapter"
done

# The same seed is the same run.
replay first --seed 7 --faults --json --hook drop:tcp
cp "$scratch/summary" "$scratch/seven"
replay first --seed 7 --faults --json --hook drop:tcp
cmp "$scratch/summary" "$scratch/seven" || fail "two runs of one seed differ"

effects=0
for ((seed = 1; seed <= 2 * seeds; seed++)); do
    replay faulty --faults --seed "$seed" --hook drop:tcp --hook delay:5:udp --json
    grep -q '"effects": \[$' "$scratch/summary" && effects=1
done
[ $effects = 1 ] || fail "no failing call has an effect"
exit $failed
