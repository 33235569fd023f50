#!/bin/bash
# Replays captures with a hook that drops what an expression selects, for ten expressions and both
# directions, and checks against tcpdump, which reads and filters the same files on its own, that
# exactly the other frames came out. On the way up a hook is shown only what is addressed to the
# adapter or to everybody; the rest has to come out whatever the expression says.
#
# An expression on the length of a frame counts what was captured of it: more than that the driver
# never sees.
#
# usage: compare-drops.sh [-n NETSIEVE] [-d DRIVER]... [-v] DIRECTORY|CAPTURE...
#   -n NETSIEVE  the program (default: build/bin/netsieve)
#   -d DRIVER    native, or the path of a driver image; may be repeated (default: native)
#   -v           name every comparison, not only those that failed
set -uo pipefail

scripts=$(cd "$(dirname "$0")" && pwd)
netsieve=$scripts/../build/bin/netsieve
drivers=()
verbose=
while getopts n:d:v option; do
    case $option in
        n) netsieve=$OPTARG ;;
        d) drivers+=("$OPTARG") ;;
        v) verbose=1 ;;
        *) exit 2 ;;
    esac
done
shift $((OPTIND - 1))
[ $# -gt 0 ] || { echo "compare-drops: no directory or capture named" >&2; exit 2; }
[ -x "$netsieve" ] || { echo "compare-drops: $netsieve is missing; build it first" >&2; exit 2; }
command -v tcpdump >/dev/null || { echo "compare-drops: install tcpdump first" >&2; exit 2; }
[ ${#drivers[@]} -gt 0 ] || drivers=(native)

expressions=(
    'udp port 53'
    'tcp'
    'arp or icmp'
    'ip6'
    'not ip'
    'broadcast or multicast'
    'tcp[tcpflags] & (tcp-syn|tcp-fin) != 0'
    'greater 200'
    'vlan or ether[0] & 1 = 0 and less 100'
    'ip and ip[8] < 65'
)

scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT

# Rewrites a capture in one format; false when it is broken or not Ethernet.
normalise() { # FROM TO
    tcpdump -r "$1" --time-stamp-precision=nano -Z root -w "$2" 2>"$scratch/words" &&
        grep -q 'link-type EN10MB' "$scratch/words"
}

# What must come out when the frames that an expression selects are dropped.
expect() { # EXPRESSION TO
    tcpdump -r "$scratch/flat" --time-stamp-precision=nano -Z root -w "$scratch/selected" "$1" \
        2>"$scratch/words" || { cat "$scratch/words"; return 1; }
    "$scripts/subtract_capture.py" subtract \
        "$scratch/in" "$scratch/flat" "$scratch/selected" "$2"
}

# Prints what is wrong with one replay, or nothing.
check() { # CAPTURE DRIVER DIRECTION EXPRESSION
    local selecting=$4
    rm -f "$scratch/out"
    "$netsieve" replay "$1" --driver "$2" --direction "$3" --hook "drop:$4" -o "$scratch/out" \
        >"$scratch/summary" 2>&1 || { echo "exit status $?; it said:"; cat "$scratch/summary"; return; }
    if [ "$3" = receive ]; then
        local mac
        mac=$(awk '$1 == "adapter" { print $2 }' "$scratch/summary")
        selecting="($4) and (ether dst $mac or ether broadcast)"
    fi
    expect "$selecting" "$scratch/expected" || return
    normalise "$scratch/out" "$scratch/out.norm" || { cat "$scratch/words"; return; }
    cmp -s -i 24 "$scratch/expected" "$scratch/out.norm" ||
        diff <(tcpdump -n -tt -r "$scratch/expected" 2>/dev/null) \
             <(tcpdump -n -tt -r "$scratch/out.norm" 2>/dev/null) | head -5
}

compared=0 captures=0 failed=0
compare() { # CAPTURE
    normalise "$1" "$scratch/in" || { echo "skipped $1: broken, or not Ethernet"; return; }
    captures=$((captures + 1))
    "$scripts/subtract_capture.py" flatten "$scratch/in" "$scratch/flat"
    local driver direction expression complaint
    for driver in "${drivers[@]}"; do
        for direction in send receive; do
            for expression in "${expressions[@]}"; do
                compared=$((compared + 1))
                complaint=$(check "$1" "$driver" "$direction" "$expression")
                if [ -n "$complaint" ]; then
                    failed=$((failed + 1))
                    printf 'FAILED  %s, %s, %s, drop:%s\n%s\n' \
                        "$1" "$driver" "$direction" "$expression" "$complaint"
                elif [ -n "$verbose" ]; then
                    echo "ok      $1, $driver, $direction, drop:$expression"
                fi
            done
        done
    done
}

for place in "$@"; do
    if [ -d "$place" ]; then
        for capture in "$place"/*.pcap "$place"/*.pcapng; do
            [ ! -f "$capture" ] || compare "$capture"
        done
    else
        compare "$place"
    fi
done
[ "$captures" -gt 0 ] || { echo "compare-drops: no capture to compare in $*" >&2; exit 2; }
echo "$captures captures, $compared comparisons with tcpdump, $failed failed"
[ "$failed" = 0 ]
