#!/bin/bash
# The main job on the sample capture: every frame of it crosses the driver, once natively compiled
# and once as the Windows image, and has to come out as it went in.
#
# usage: demo.sh [BUILD-DIRECTORY]   (default: build)
set -euo pipefail

root=$(cd "$(dirname "$0")/.." && pwd)
build=${1:-$root/build}
netsieve=$build/bin/netsieve
image=$build/image/NETSIEVE.sys
sample=$root/samples/captures/lan.pcap

for needed in "$netsieve" "$image"; do
    [ -e "$needed" ] || {
        echo "demo: $needed is missing; run 'make build image' first" >&2
        exit 2
    }
done

scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT

for driver in native "$image"; do
    echo "== netsieve replay ${sample#"$root"/} --driver ${driver#"$root"/}"
    "$netsieve" replay "$sample" --driver "$driver" -o "$scratch/out.pcap"
    cmp "$sample" "$scratch/out.pcap"
    echo "== the output is byte for byte the input"
    echo
done
