#!/bin/bash
# `netsieve replay` with hooks: the shape of the traffic and the driver make no difference, the
# summary's numbers are right, and what cannot be hooked is refused before anything is written.
#
# usage: hooks_test.sh NETSIEVE NETSIEVE.sys CAPTURE
netsieve=$1 image=$2 capture=$3
. "${0%/*}/cli.sh"

replay() { # OUTPUT OPTION...
    "$netsieve" replay "$capture" -o "$scratch/$1" "${@:2}" >"$scratch/$1.summary" 2>&1 ||
        fail "status $?: ${*:2}: $(cat "$scratch/$1.summary")"
}

replay plain --hook 'drop:tcp'
for driver in native "$image"; do
    for shape in '--frames-per-nbl 4' '--nbls-per-call 3' '--resources' \
        '--frames-per-nbl 3 --nbls-per-call 2 --resources' '--seed 77 --nbls-per-call 40'; do
        # The options are words.
        # shellcheck disable=SC2086
        replay shaped --hook 'drop:tcp' --driver "$driver" $shape
        cmp "$scratch/plain" "$scratch/shaped" || fail "$driver $shape"
    done
done

# Frames whose checksums are left to the adapter are whole again on the wire, as clones too.
for driver in native "$image"; do
    for hook in 'count:ip --frames-per-nbl 3' 'hold:ip:success --resources' 'delay:3:tcp'; do
        # shellcheck disable=SC2086
        replay whole --driver "$driver" --hook $hook
        # shellcheck disable=SC2086
        replay offload --offload --driver "$driver" --hook $hook
        cmp "$scratch/whole" "$scratch/offload" || fail "--offload $driver $hook"
    done
done

# Hooks of a lower class go first, and all of them see every frame.
replay many --json --hook 'count@3:tcp' --hook 'drop@1:tcp' --hook 'count:udp'
python3 - "$scratch/many.summary" "$capture" <<'PYTHON' || fail "the summary's numbers"
import json, subprocess, sys
summary = json.load(open(sys.argv[1]))
def count(expression):
    lines = subprocess.run(["tcpdump", "-n", "-r", sys.argv[2], expression], capture_output=True)
    return len(lines.stdout.splitlines())
offered = {hook["offered"] for hook in summary["hooks"]}
selected = [hook["selected"] for hook in summary["hooks"]]
withheld = [hook["withheld"] for hook in summary["hooks"]]
total = count("len >= 0")
uninspected = count("multicast and not broadcast and not ether src 00:00:5e:00:53:01")
assert offered == {total - uninspected}, (offered, total, uninspected)
assert selected[:2] == [count("tcp"), count("tcp")] and withheld == [0, count("tcp"), 0], selected
PYTHON

# One line a frame, and the same with the image.
for driver in native "$image"; do
    "$netsieve" replay "$capture" --driver "$driver" --hook 'log:arp' -o "$scratch/log" 2>&1 |
        grep '^hook=' >"$scratch/lines.${driver##*/}"
done
cmp "$scratch/lines.native" "$scratch/lines.${image##*/}" || fail "the image logs other lines"
grep -q 'direction=send protocol=TCPIP adapter=00:00:5e:00:53:01 length=42' \
    "$scratch/lines.native" || fail "the log: $(cat "$scratch/lines.native")"

refuse_replay 2 'syntax error' --hook 'drop:tcp or (('
refuse_replay 2 'drop' --hook 'drop:'
refuse_replay 2 'nonsense' --hook 'nonsense:tcp'
refuse_replay 2 '9' --hook 'drop@9:tcp'
refuse_replay 2 '/nonexistent' --hook 'driver:/nonexistent.so'
refuse_replay 2 "${capture##*/}" --hook "driver:$capture"

exit $failed
