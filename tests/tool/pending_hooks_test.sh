#!/bin/bash
# `netsieve replay` with hooks that hold frames or send their own, where the comparison with a model
# does not reach: several hooks on one frame, other shapes of traffic, real threads, and injection.
#
# usage: pending_hooks_test.sh NETSIEVE NETSIEVE.sys CAPTURE
netsieve=$1 image=$2 capture=$3
. "${0%/*}/cli.sh"

# Replays, and evaluates an expression of Python on the summary.
holds() { # EXPRESSION OPTION...
    expect 0 '"exit_status": 0' replay "$capture" --json -o "$scratch/frames" "${@:2}"
    python3 - "$1" "$scratch/out" <<'PYTHON' || fail "not so with ${*:2}: $1"
import json, sys
summary = json.load(open(sys.argv[2]))
sent, received = (summary["adapters"][0][way] for way in ("sent", "received"))
hooks = summary["hooks"]
def both(name):
    return sent[name] + received[name]
sys.exit(not eval(sys.argv[1]))
PYTHON
}

frames=$(tcpdump -nr "$capture" 'udp port 53' 2>/dev/null | wc -l)
for driver in native "$image"; do
    for shape in '' '--frames-per-nbl 3 --resources' '--no-verify --nbls-per-call 1'; do
        # Two hooks on one frame: it goes when the later one lets it, or not at all. A third one
        # withholds it, which makes no difference.
        # shellcheck disable=SC2086
        holds "both('reinjected') == $frames == hooks[0]['marked'] == hooks[1]['marked'] and both('withheld') == 0" \
            --driver "$driver" $shape --hook 'delay:5:udp port 53' --hook 'hold:udp port 53:success' \
            --hook 'drop:udp port 53'
        # shellcheck disable=SC2086
        holds "both('dropped') == $frames and both('reinjected') == 0" --driver "$driver" $shape \
            --hook 'delay:0:udp port 53' --hook 'hold:udp port 53:failure'
    done
    # The reply, from the adapter and in its shortest form; then the frames that are the adapter's.
    holds "sent['injected'] == 1 == hooks[0]['injected'] and received['injected'] == 0" \
        --driver "$driver" --mac 00:00:5e:00:53:02 \
        --hook 'reply-arp:192.0.2.2=00:00:5e:00:53:07'
    tcpdump -ner "$scratch/frames" 'arp[6:2] = 2 and ether src 00:00:5e:00:53:02' 2>/dev/null |
        grep -q 'length 60: Reply 192.0.2.2 is-at 00:00:5e:00:53:07' || fail "the ARP reply"
    tcpdump -Z root -r "$capture" -w "$scratch/own" 'ether src 00:00:5e:00:53:01' 2>/dev/null
    own=$(tcpdump -nr "$scratch/own" 2>/dev/null | wc -l)
    holds "summary['injection']['sent'] == $own == sent['injected'] and sent['passed'] == 0" \
        --driver "$driver" --inject "$capture" --hook 'drop:ether src 00:00:5e:00:53:01'
    tcpdump -Z root -r "$scratch/frames" -w "$scratch/again" 'ether src 00:00:5e:00:53:01' 2>/dev/null
    cmp "$scratch/own" "$scratch/again" || fail "injected frames differ from the capture's"
done
holds "summary['pause'] == {'after_frame': 9999, 'flushed': None}" --pause-at 9999

refuse_replay 2 'is no delay' --hook 'delay:-1:udp'
refuse_replay 2 'expression is missing' --hook 'delay:5:'
refuse_replay 2 'how the frames end' --hook 'hold:ip6 host fe80::1'
refuse_replay 2 'overflow=drop' --hook 'hold:udp:success:overflow=keep'
refuse_replay 2 'is no answer' --hook 'reply-arp:192.0.2.2'
refuse_replay 3 'nonexistent' --inject /nonexistent.pcap

exit $failed
