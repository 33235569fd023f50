#!/bin/bash
# The sample that blocks DNS, as a shared object with the native driver and as a .sys with the image:
# on the same capture both leave what a drop hook for port 53 leaves. VLAN tags and IPv6 extension
# headers, which the capture has none of, are put on its frames first.
#
# usage: block_dns_test.sh NETSIEVE BLOCK_DNS.so NETSIEVE.sys CAPTURE
set -euo pipefail

netsieve=$1 object=$2 image=$3 capture=$4
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT

replay() { # OUTPUT CAPTURE OPTION...
    "$netsieve" replay "$2" -o "$1" "${@:3}" >"$scratch/summary" || {
        cat "$scratch/summary"
        exit 1
    }
}

# Tagged copies of every frame, and one with a hop-by-hop header in front of what IPv6 carries.
python3 - "$capture" "$scratch/tagged" <<'PYTHON'
import struct, sys
with open(sys.argv[1], "rb") as source, open(sys.argv[2], "wb") as target:
    target.write(source.read(24))
    while header := source.read(16):
        seconds, fraction, size, _ = struct.unpack("<4I", header)
        frame = source.read(size)
        copies = [frame, frame[:12] + b"\x81\0\0\5" + frame[12:]]
        if frame[12:14] == b"\x86\xdd":
            hop = bytes([frame[20], 0, 1, 4, 0, 0, 0, 0])
            copies.append(frame[:20] + b"\0" + frame[21:54] + hop + frame[54:])
        for copy in copies:
            target.write(struct.pack("<4I", seconds, fraction, len(copy), len(copy)) + copy)
PYTHON

for input in "$capture" "$scratch/tagged"; do
    replay "$scratch/so" "$input" --hook "driver:$object"
    replay "$scratch/sys" "$input" --driver "$image" --hook "driver:${image%/*}/block_dns.sys"
    replay "$scratch/drop" "$input" --hook 'drop:port 53 or (vlan and port 53)'
    cmp "$scratch/so" "$scratch/drop"
    cmp "$scratch/sys" "$scratch/drop"
    [ "$(stat -c %s "$scratch/drop")" -lt "$(stat -c %s "$input")" ] ||
        { echo "nothing was withheld from $input"; exit 1; }
done

# A hook driver goes with the driver that it was built for.
status=0
"$netsieve" replay "$capture" --driver "$image" --hook "driver:$object" -o "$scratch/none" \
    >"$scratch/words" 2>&1 || status=$?
[ "$status" = 2 ] || { echo "a shared object beside the image: exit status $status"; exit 1; }
