#!/bin/bash
# Replays every capture of the given directories without hooks, and checks against tcpdump, which
# reads the same files on its own, that exactly the frames that went in came out (time, bytes,
# original length, order), and that the exit status is the documented one.
#
# usage: compare-replay.sh [-n NETSIEVE] [-d DRIVER] [-v] DIRECTORY...
#   -n NETSIEVE  the program (default: build/bin/netsieve)
#   -d DRIVER    native, or the path of a driver image (default: native)
#   -v           name every capture, not only those that failed
set -uo pipefail

netsieve=$(dirname "$0")/../build/bin/netsieve
driver=native
verbose=
while getopts n:d:v option; do
    case $option in
        n) netsieve=$OPTARG ;;
        d) driver=$OPTARG ;;
        v) verbose=1 ;;
        *) exit 2 ;;
    esac
done
shift $((OPTIND - 1))
[ $# -gt 0 ] || { echo "compare-replay: no directory named" >&2; exit 2; }
[ -x "$netsieve" ] || { echo "compare-replay: $netsieve is missing; build it first" >&2; exit 2; }
command -v tcpdump >/dev/null || { echo "compare-replay: install tcpdump first" >&2; exit 2; }

scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT

# Rewrites a capture in one format, so that two of them can be compared byte by byte.
normalise() { # FROM TO
    : >"$2"
    tcpdump -r "$1" --time-stamp-precision=nano -Z root -w "$2" 2>"$scratch/words"
}

# The status that netsieve documents for what tcpdump makes of the file.
expected_status() { # tcpdump's own status, right after normalise
    if ! grep -q 'link-type EN10MB' "$scratch/words"; then
        echo 3
    elif [ "$1" = 0 ]; then
        echo 0
    else
        echo 4
    fi
}

# Prints what is wrong with the replay of one capture, or nothing.
check() { # CAPTURE
    local expected status
    rm -f "$scratch/out"
    normalise "$1" "$scratch/in.norm"
    expected=$(expected_status $?)
    "$netsieve" replay "$1" --driver "$driver" -o "$scratch/out" >"$scratch/summary" 2>&1
    status=$?
    [ "$status" = "$expected" ] || {
        echo "exit status $status, expected $expected; it said:"
        cat "$scratch/summary"
        return
    }
    if [ "$status" = 3 ]; then
        [ ! -e "$scratch/out" ] || echo "an output was written"
        return
    fi
    normalise "$scratch/out" "$scratch/out.norm" || { cat "$scratch/words"; return; }
    cmp -i 24 "$scratch/in.norm" "$scratch/out.norm" 2>&1
    # A file already in the output's format must not change at all.
    case $status-$(head -c 4 "$1" | od -An -tx1 | tr -d ' ') in
        0-d4c3b2a1 | 0-4d3cb2a1) cmp "$1" "$scratch/out" 2>&1 ;;
    esac
}

checked=0 failed=0
for directory in "$@"; do
    for capture in "$directory"/*.pcap "$directory"/*.pcapng; do
        [ -f "$capture" ] || continue
        checked=$((checked + 1))
        complaint=$(check "$capture")
        if [ -n "$complaint" ]; then
            failed=$((failed + 1))
            printf 'FAILED  %s\n%s\n' "$capture" "$complaint"
        elif [ -n "$verbose" ]; then
            echo "ok      $capture"
        fi
    done
done
[ "$checked" -gt 0 ] || { echo "compare-replay: no captures in $*" >&2; exit 2; }
echo "$checked captures replayed with the driver $driver, $failed failed"
[ "$failed" = 0 ]
