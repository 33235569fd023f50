#!/bin/bash
# Records samples/captures/lan.pcap: two hosts in network namespaces, joined by one cable, talk for
# a few seconds while tcpdump listens on the client's side. Needs root. Nothing leaves the
# namespaces, and all names and addresses are from the ranges set aside for documentation.
set -euo pipefail

readonly here=$(cd "$(dirname "$0")" && pwd)
readonly output=${1:-$here/../samples/captures/lan.pcap}
readonly traffic=$here/sample-traffic.py
readonly client=nsv-client-$$ server=nsv-server-$$
readonly client4=192.0.2.1 server4=192.0.2.2 client6=2001:db8::1 server6=2001:db8::2
readonly size_limit=1048576

for tool in tcpdump ip ethtool openssl python3 curl dig ping; do
    command -v "$tool" >/dev/null || {
        echo "record-sample: $tool is missing; install tcpdump iproute2 ethtool openssl python3" \
             "curl bind9-dnsutils iputils-ping" >&2
        exit 2
    }
done
[ "$(id -u)" = 0 ] || { echo "record-sample: network namespaces need root" >&2; exit 2; }

scratch=$(mktemp -d)
started=()

cleanup() {
    [ ${#started[@]} = 0 ] || kill "${started[@]}" 2>/dev/null || true
    wait 2>/dev/null || true
    ip netns del "$client" 2>/dev/null || true
    ip netns del "$server" 2>/dev/null || true
    rm -rf "$scratch"
}
trap cleanup EXIT

on_client() { ip netns exec "$client" "$@"; }
on_server() { ip netns exec "$server" "$@"; }

# Runs a server in the background until the script ends. "ip" is called without a function around
# it, which would put a shell between us and the process to end.
serve() {
    ip netns exec "$server" "$@" >>"$scratch/servers.log" 2>&1 &
    started+=($!)
}

# The listening sockets are asked for, because trying to connect would leave its own frames.
wait_for_port() { # udp|tcp PORT
    for _ in $(seq 100); do
        on_server ss -H -l -n "--$1" "sport = :$2" | grep -q . && return
        sleep 0.05
    done
    echo "record-sample: nothing listens on $1 port $2:" >&2
    cat "$scratch/servers.log" >&2
    exit 1
}

lay_cable() {
    ip netns add "$client"
    ip netns add "$server"
    ip -n "$client" link add lan0 address 00:00:5e:00:53:01 type veth \
        peer name lan0 netns "$server" address 00:00:5e:00:53:02
    for side in "$client" "$server"; do
        # Without this the capture would hold merged frames and checksums nobody computed.
        ip netns exec "$side" ethtool -K lan0 tso off gso off gro off tx off >/dev/null
        ip -n "$side" link set lo up
    done
}

start_recording() {
    ip netns exec "$client" tcpdump -i lan0 -n -U -Z root -s 262144 --time-stamp-precision=micro \
        -w "$scratch/lan.pcap" 2>"$scratch/tcpdump.log" &
    recorder=$!
    started+=("$recorder")
    for _ in $(seq 100); do
        grep -q 'listening on' "$scratch/tcpdump.log" && return
        sleep 0.05
    done
    cat "$scratch/tcpdump.log" >&2
    exit 1
}

# Addresses are given while the recorder runs, so that the capture starts with duplicate address
# detection.
give_addresses() {
    ip -n "$client" addr add "$client4/24" dev lan0
    ip -n "$server" addr add "$server4/24" dev lan0
    ip -n "$client" addr add "$client6/64" dev lan0
    ip -n "$server" addr add "$server6/64" dev lan0
    for _ in $(seq 100); do
        ip -n "$client" addr show dev lan0 | grep -q tentative ||
            ip -n "$server" addr show dev lan0 | grep -q tentative || return 0
        sleep 0.1
    done
}

start_servers() {
    mkdir "$scratch/site"
    echo '<!doctype html><title>NetSieve</title><p>A page to capture.' >"$scratch/site/index.html"
    python3 "$traffic" write-file "$scratch/site/archive.bin" 120000
    openssl req -x509 -newkey rsa:2048 -nodes -days 3650 -subj /CN=www.example \
        -keyout "$scratch/key.pem" -out "$scratch/certificate.pem" 2>/dev/null

    serve python3 "$traffic" dns-server "$server4"
    serve python3 -m http.server --directory "$scratch/site" --bind "$server4" 80
    serve openssl s_server -quiet -www -accept 443 -key "$scratch/key.pem" \
        -cert "$scratch/certificate.pem"
    serve python3 "$traffic" bulk-server "$server4" 9000
    serve python3 "$traffic" udp-server "$server4" 9001
    wait_for_port udp 53
    for port in 80 443 9000; do wait_for_port tcp "$port"; done
    wait_for_port udp 9001
}

talk() {
    on_client ping -q -c 3 -i 0.2 "$server4" >/dev/null
    on_client ping -q -c 3 -i 0.2 "$server6" >/dev/null
    for name in www.example files.example mail.example legacy.example missing.example; do
        for kind in A AAAA; do
            on_client dig "@$server4" +tries=1 +short "$name" "$kind" >/dev/null
        done
    done
    on_client curl -sSf -H 'Host: www.example' "http://$server4/" -o "$scratch/page"
    on_client curl -sSf -H 'Host: files.example' "http://$server4/archive.bin" -o "$scratch/archive"
    cmp "$scratch/archive" "$scratch/site/archive.bin"
    on_client curl -sSf --cacert "$scratch/certificate.pem" \
        --resolve "www.example:443:[$server6]" https://www.example/ -o "$scratch/secure"
    on_client python3 "$traffic" udp-exchange "$server4" 9001
    on_client python3 "$traffic" bulk-send "$server4" 9000 400000
    ip netns exec "$client" python3 "$traffic" multicast-join lan0 &
    local member=$!
    sleep 0.5
    on_server python3 "$traffic" multicast-send lan0
    wait "$member"
    # The reports of leaving are sent after a random pause.
    sleep 1
}

lay_cable
ip -n "$server" link set lan0 up
ip -n "$client" link set lan0 up
start_recording
give_addresses
start_servers
talk
kill "$recorder"
wait "$recorder"

size=$(stat -c %s "$scratch/lan.pcap")
[ "$size" -le "$size_limit" ] || { echo "record-sample: $size bytes is too much" >&2; exit 1; }
grep -q '^0 packets dropped' "$scratch/tcpdump.log" || {
    cat "$scratch/tcpdump.log" >&2
    exit 1
}
cp "$scratch/lan.pcap" "$output"
echo "recorded $output: $size bytes, $(tcpdump -n -r "$output" 2>/dev/null | wc -l) frames"
