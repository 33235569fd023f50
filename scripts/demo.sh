#!/bin/bash
# The main job on the sample capture: every frame of it crosses the driver, once without a hook and
# once with the sample that blocks DNS, each with the natively compiled driver and with the Windows
# image. Shows what went in, what came out and which frames were withheld.
#
# usage: demo.sh [BUILD-DIRECTORY]   (default: build)
set -euo pipefail

root=$(cd "$(dirname "$0")/.." && pwd)
build=${1:-$root/build}
netsieve=$build/bin/netsieve
image=$build/image/NETSIEVE.sys
sample=$root/samples/captures/lan.pcap

for needed in "$netsieve" "$image" "$build"/samples/block_dns.so "$build"/image/block_dns.sys; do
    [ -e "$needed" ] || {
        echo "demo: $needed is missing; run 'make build image' first" >&2
        exit 2
    }
done

scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT

replay() { # DRIVER OUTPUT OPTION...
    echo "== netsieve replay ${sample#"$root"/} --driver ${1#"$root"/} ${*:3}" |
        sed "s#$root/##g"
    "$netsieve" replay "$sample" --driver "$1" -o "$2" "${@:3}" | sed "s#$root/##g"
}

for driver in native "$image"; do
    replay "$driver" "$scratch/through.pcap"
    cmp "$sample" "$scratch/through.pcap"
    echo "== the output is byte for byte the input"
    echo
done

replay native "$scratch/native.pcap" --hook "driver:$build/samples/block_dns.so"
echo
replay "$image" "$scratch/image.pcap" --hook "driver:$build/image/block_dns.sys"
cmp "$scratch/native.pcap" "$scratch/image.pcap"
echo "== both outputs are the same to the byte"
echo

describe() { # CAPTURE
    tcpdump -n -tt -r "$1" 2>/dev/null
}
echo "== the frames that were withheld:"
{ diff <(describe "$sample") <(describe "$scratch/native.pcap") || true; } | sed -n 's/^< /   /p' | cut -c1-110
