#!/bin/bash
# Fills a directory with captures that cannot be read, or not to their end, made from a good one.
#
# usage: make-broken-captures.sh SAMPLE DIRECTORY
set -euo pipefail

sample=$1 directory=$2
rm -rf "$directory"
mkdir -p "$directory"

# Writes the sample with some of its bytes, given as printf takes them, replaced.
patched() { # OFFSET BYTES NAME
    cp "$sample" "$directory/$3"
    printf "$2" | dd of="$directory/$3" bs=1 seek="$1" conv=notrunc status=none
}

: >"$directory/empty.pcap"
head -c 20 "$sample" >"$directory/half-a-file-header.pcap"
head -c 24 "$sample" >"$directory/no-frames.pcap"
head -c 30 "$sample" >"$directory/half-a-record-header.pcap"
head -c 20000 "$sample" >"$directory/half-a-frame.pcap"
patched 0 '\x00\x00\x00\x00' no-magic.pcap
patched 4 '\x01\x00' version-1.pcap
patched 20 '\x71\x00\x00\x00' cooked-link-type.pcap
patched 32 '\x00\x00\x42\x00' impossible-length.pcap
# A pcapng section header of version 0.1, and one whose two lengths differ.
section() { # VERSION LENGTH-AT-THE-END
    printf '\x0a\x0d\x0d\x0a\x1c\x00\x00\x00\x4d\x3c\x2b\x1a'"$1"
    printf '\xff\xff\xff\xff\xff\xff\xff\xff'"$2"'\x00\x00\x00'
}
section '\x00\x00\x01\x00' '\x1c' >"$directory/version-0.pcapng"
section '\x01\x00\x00\x00' '\x20' >"$directory/lengths-differ.pcapng"
