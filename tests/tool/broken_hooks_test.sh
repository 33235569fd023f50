#!/bin/bash
# A hook driver that breaks one rule, as a shared object with the native driver and as a .sys with the
# image: exactly that rule is reported, and the report names the hook or its driver and not NETSIEVE.
# What is right in a plain replay and wrong in others is found by one of twenty seeds.
#
# usage: broken_hooks_test.sh NETSIEVE BROKEN_HOOK.so NETSIEVE.sys BROKEN_HOOK.sys CAPTURE
set -uo pipefail

netsieve=$1 object=$2 driver=$3 image=$4 capture=$5
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
failed=0

expect() { # HOOK-FILE RULE OPTION...
    local status=0 name
    name=$(basename "${1%.*}")
    "$netsieve" replay "$capture" -o "$scratch/out" --hook "driver:$1" "${@:3}" --json \
        >"$scratch/report" || status=$?
    python3 - "$scratch/report" "$2" "$name" <<'PYTHON' && [ $status = 9 ] || {
import json, sys
findings = json.load(open(sys.argv[1]))["verifier"]["findings"]
for finding in findings:
    seen, by = (line.partition(":")[2].strip() for line in finding["text"].splitlines()[1:3])
    named = seen.startswith(sys.argv[3] + "-1: ") or "hook 'broken'" in seen + by
    if finding["rule"] != sys.argv[2] or not named or seen.startswith("NETSIEVE"):
        sys.exit(f"reported: {finding}")
sys.exit(len(findings) == 0)
PYTHON
        echo "FAILED: $1, status $status"
        failed=1
    }
}

for rule in HookMarkCompleted HookMarkLeft HookPendingUnmarked HookNirpUse HookNotification \
    HookNotification-detach HookHandlerDeregisters HookLeft HookFramePaged PoolLeak \
    RoutineOutlivesDriver CallbackHoldsLock; do
    ln -s "$object" "$scratch/$rule.so"
    expect "$scratch/$rule.so" "${rule%%-*}"
    ln -s "$image" "$scratch/$rule.sys"
    expect "$scratch/$rule.sys" "${rule%%-*}" --driver "$driver"
done

expect_by_seed() { # HOOK-FILE RULE OPTION...
    "$netsieve" replay "$capture" --hook "driver:$1" "${@:3}" >"$scratch/report" ||
        { echo "FAILED: $1 is reported without a seed"; failed=1; }
    for seed in {1..20}; do
        "$netsieve" replay "$capture" --hook "driver:$1" "${@:3}" --seed "$seed" >"$scratch/report"
        [ $? = 9 ] && { expect "$@" --seed "$seed"; return; }
    done
    echo "FAILED: no seed finds $1"
    failed=1
}

for rule in PagedPoolLevel PoolLeak-adapter; do
    ln -s "$object" "$scratch/$rule.so"
    expect_by_seed "$scratch/$rule.so" "${rule%%-*}"
    ln -s "$image" "$scratch/$rule.sys"
    expect_by_seed "$scratch/$rule.sys" "${rule%%-*}" --driver "$driver"
done
exit $failed
