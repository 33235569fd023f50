#!/usr/bin/env python3
"""The parts of the sample traffic that no standard program makes: called by record-sample.sh."""

import hashlib
import ipaddress
import socket
import struct
import sys

ZONE = {
    "www.example": ("192.0.2.2", "2001:db8::2"),
    "files.example": ("192.0.2.2", "2001:db8::2"),
    "mail.example": ("192.0.2.25", "2001:db8::25"),
    "legacy.example": ("192.0.2.77", None),
}
TYPE_A, TYPE_AAAA = 1, 28
GROUP_V4, GROUP_V6, GROUP_PORT = "233.252.0.1", "ff15::db8:1", 4200


def dns_answer(query):
    """The reply to one question: its address, no data, or that the name does not exist."""
    identifier, flags = struct.unpack("!HH", query[:4])
    labels, at = [], 12
    while query[at]:
        labels.append(query[at + 1 : at + 1 + query[at]].decode("ascii"))
        at += 1 + query[at]
    question = query[12 : at + 5]
    (kind,) = struct.unpack("!H", query[at + 1 : at + 3])

    entry = ZONE.get(".".join(labels).lower())
    address = entry and {TYPE_A: entry[0], TYPE_AAAA: entry[1]}.get(kind)
    records = b""
    if address:
        data = ipaddress.ip_address(address).packed
        records = struct.pack("!HHHIH", 0xC00C, kind, 1, 300, len(data)) + data
    reply_flags = 0x8400 | (flags & 0x0100) | (0 if entry else 3)
    header = struct.pack("!HHHHHH", identifier, reply_flags, 1, 1 if address else 0, 0, 0)
    return header + question + records


def dns_server(address):
    server = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    server.bind((address, 53))
    while True:
        query, client = server.recvfrom(4096)
        server.sendto(dns_answer(query), client)


def pattern(size):
    """Bytes that do not repeat and are the same in every recording."""
    blocks = (hashlib.sha256(struct.pack("!I", n)).digest() for n in range(size // 32 + 1))
    return b"".join(blocks)[:size]


def bulk_server(address, port):
    with socket.create_server((address, int(port))) as server:
        connection, _ = server.accept()
        total = 0
        while chunk := connection.recv(65536):
            total += len(chunk)
        connection.sendall(struct.pack("!I", total))
        connection.close()


def bulk_send(address, port, size):
    data = pattern(int(size))
    with socket.create_connection((address, int(port))) as connection:
        connection.sendall(data)
        connection.shutdown(socket.SHUT_WR)
        (total,) = struct.unpack("!I", connection.recv(4))
    if total != len(data):
        raise SystemExit(f"the bulk transfer delivered {total} of {len(data)} bytes")


def udp_server(address, port):
    server = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    server.bind((address, int(port)))
    while True:
        data, client = server.recvfrom(65536)
        server.sendto(data[::-1], client)


def udp_exchange(address, port):
    """Datagrams of every interesting size: empty, padded, full, and one that is fragmented."""
    client = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    client.settimeout(5)
    for size in (0, 1, 18, 512, 1472, 3000):
        client.sendto(pattern(size), (address, int(port)))
        if len(client.recv(65536)) != size:
            raise SystemExit("a datagram came back with another length")


def multicast_join(interface):
    """Joins both groups, waits for one datagram in each, and leaves."""
    index = socket.if_nametoindex(interface)
    v4 = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    v4.bind((GROUP_V4, GROUP_PORT))
    v4.setsockopt(socket.IPPROTO_IP, socket.IP_ADD_MEMBERSHIP,
                  struct.pack("4s4si", socket.inet_aton(GROUP_V4), b"\0" * 4, index))
    v6 = socket.socket(socket.AF_INET6, socket.SOCK_DGRAM)
    v6.bind((GROUP_V6, GROUP_PORT))
    v6.setsockopt(socket.IPPROTO_IPV6, socket.IPV6_JOIN_GROUP,
                  socket.inet_pton(socket.AF_INET6, GROUP_V6) + struct.pack("I", index))
    for member in (v4, v6):
        member.settimeout(10)
        member.recv(65536)


def multicast_send(interface):
    index = socket.if_nametoindex(interface)
    v4 = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    v4.setsockopt(socket.IPPROTO_IP, socket.IP_MULTICAST_IF,
                  struct.pack("4s4si", b"\0" * 4, b"\0" * 4, index))
    v4.sendto(b"to the group", (GROUP_V4, GROUP_PORT))
    v6 = socket.socket(socket.AF_INET6, socket.SOCK_DGRAM)
    v6.setsockopt(socket.IPPROTO_IPV6, socket.IPV6_MULTICAST_IF, index)
    v6.sendto(b"to the group", (GROUP_V6, GROUP_PORT))


def write_file(path, size):
    with open(path, "wb") as out:
        out.write(pattern(int(size)))


JOBS = {job.__name__.replace("_", "-"): job for job in (
    dns_server, bulk_server, bulk_send, udp_server, udp_exchange,
    multicast_join, multicast_send, write_file)}

if __name__ == "__main__":
    JOBS[sys.argv[1]](*sys.argv[2:])
