#!/bin/bash
# The samples that delay and that send, each as a shared object with the native driver and as a .sys
# with the image, under several seeds: every frame of the capture comes out as it went in, some of
# them later, and the beacons besides.
#
# usage: samples_test.sh NETSIEVE SAMPLES-DIRECTORY NETSIEVE.sys CAPTURE
set -euo pipefail

netsieve=$1 samples=$2 image=$3 capture=$4
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT

fail() {
    echo "$*"
    exit 1
}

# The frames of a capture without their times, one a line: all of them, the beacons, or the others.
frames() { # CAPTURE all|beacons|others
    python3 - "$@" <<'PYTHON'
import struct, sys
with open(sys.argv[1], "rb") as source:
    source.read(24)
    while header := source.read(16):
        frame = source.read(struct.unpack("<4I", header)[2])
        if sys.argv[2] == "all" or (sys.argv[2] == "beacons") == (frame[12:14] == b"\x88\xb5"):
            print(frame.hex())
PYTHON
}

replay() { # OUTPUT OPTION...
    "$netsieve" replay "$capture" -o "$1" "${@:2}" --json >"$scratch/report" || {
        cat "$scratch/report"
        fail "replay ${*:2} failed"
    }
}

frames "$capture" all | sort >"$scratch/input"
for seed in 1 2; do
    for kind in native image; do
        options=(--seed "$seed")
        suffix=.so directory=$samples
        [ $kind = native ] || { options+=(--driver "$image"); suffix=.sys directory=${image%/*}; }

        replay "$scratch/$kind.delay" "${options[@]}" --hook "driver:$directory/delay$suffix"
        frames "$scratch/$kind.delay" all | sort | cmp - "$scratch/input"
        python3 - "$scratch/report" <<'PYTHON'
import json, sys
hook, = json.load(open(sys.argv[1]))["hooks"]
if hook["marked"] < 20 or hook["name"] != "Sample: delay":
    sys.exit(f"the sample held {hook['marked']} frames: {hook}")
PYTHON

        # What it holds in a pause is flushed; beside a hook that holds the same frames nothing is lost.
        replay "$scratch/$kind.pause" "${options[@]}" --hook "driver:$directory/delay$suffix" \
            --pause-at 100 --hook 'delay:5:udp'
        python3 - "$scratch/report" <<'PYTHON'
import json, sys
report = json.load(open(sys.argv[1]))
ways = [report["adapters"][0][way] for way in ("sent", "received")]
flushed = sum(way["flushed"] for way in ways)
if flushed != report["pause"]["flushed"] or flushed < 8 or any(way["withheld"] for way in ways):
    sys.exit(f"the pause flushed {flushed} frames: {report}")
PYTHON

        replay "$scratch/$kind.beacon" "${options[@]}" --hook "driver:$directory/beacon$suffix"
        frames "$scratch/$kind.beacon" others | sort | cmp - "$scratch/input"
        frames "$scratch/$kind.beacon" beacons >"$scratch/$kind.beacons"
        grep -q "4e65745369657665" "$scratch/$kind.beacons" || fail "no beacon was sent ($kind)"
    done
    cmp "$scratch/native.beacons" "$scratch/image.beacons"
done
