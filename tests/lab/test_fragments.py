"""Fragmented datagrams: all fragments of one reach the same server, whatever their order. The
client's kernel cuts, the servers' kernels put together."""

import contextlib
import itertools
import socket

import pytest
from packets import IP, UDP, Ether, Raw
from scapy.layers.inet import fragment

from lab import wait_until

PORT = 5000
SIZE = 8192
COUNT = 60
BURST = 6


@pytest.fixture(name="sinks", scope="module")
def _sinks(net, daemon):
    assert daemon.alive()
    net.configure(PORT)
    sinks = []
    for server in net.servers:
        made = server.socket(socket.AF_INET, socket.SOCK_DGRAM)
        made.setsockopt(socket.SOL_SOCKET, 33, 8 << 20)  # SO_RCVBUFFORCE
        made.bind((net.CLUSTER, PORT))
        made.setblocking(False)
        sinks.append(made)
    return sinks


def content(number):
    """What the datagram of that number carries; no 16 bytes of it are alike in another one."""
    return b"".join(number.to_bytes(8, "big") + place.to_bytes(8, "big")
                    for place in range(SIZE // 16))


def collect(sinks, want):
    """What arrived, sink by sink, once there are `want` datagrams."""
    found = [[] for _ in sinks]

    def enough():
        for place, sink in enumerate(sinks):
            with contextlib.suppress(BlockingIOError):
                while True:
                    found[place].append(sink.recv(65535))
        return sum(map(len, found)) >= want

    wait_until(enough, 5, f"{want} datagrams")
    return found


def test_kernels_datagrams_arrive_whole(net, sinks):
    found = [[] for _ in sinks]
    with net.client.socket(socket.AF_INET, socket.SOCK_DGRAM) as client:
        for first in range(0, COUNT, BURST):  # No more than a busy machine's socket buffers hold.
            for number in range(first, first + BURST):
                client.sendto(content(number), (net.CLUSTER, PORT))
            for all_of, now in zip(found, collect(sinks, BURST)):
                all_of += now
    assert sorted(itertools.chain(*found)) == sorted(map(content, range(COUNT)))
    assert all(found)  # udprr: every server has had some


ORDERS = {
    "reversed": lambda one, other: one[::-1] + other[::-1],
    "last first": lambda one, other: one[-1:] + one[:-1] + other[-1:] + other[:-1],
    "interleaved": lambda one, other: [f for pair in zip(one, other) for f in pair],
    "first last, interleaved": lambda one, other: [
        f for pair in zip(one[1:] + one[:1], other[1:] + other[:1]) for f in pair],
}


@pytest.mark.parametrize("order", ORDERS)
def test_any_order_arrives_whole(net, sinks, order):
    first = 100 * (1 + list(ORDERS).index(order))  # An old identification has its server already.
    ends = {"dst": net.forwarder.mac(), "src": net.client.mac()}

    def cut(number):
        whole = IP(src=net.CLIENT, dst=net.CLUSTER, id=number) / UDP(sport=4000 + number, dport=PORT)
        return [Ether(**ends) / part for part in fragment(whole / Raw(content(number)), 1480)]

    found = []
    with net.client.injector() as client:
        for number in range(first, first + 20, 2):
            client.send(*ORDERS[order](cut(number), cut(number + 1)))
            found += itertools.chain(*collect(sinks, 2))
    assert sorted(found) == sorted(map(content, range(first, first + 20)))
