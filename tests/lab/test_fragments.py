"""Fragmented datagrams: all fragments of one reach the same server, whatever their order. The
client's kernel cuts, the servers' kernels put together."""

import contextlib
import itertools
import os
import socket
import time

import pytest
from packets import IP, UDP, Ether, IPv6, Raw
from scapy.layers.inet import fragment
from scapy.layers.inet6 import IPv6ExtHdrFragment, fragment6

from lab import LabError, wait_until

IP_VERSIONS = (4, 6)
PORT = 5000
SIZE = 8192
COUNT = 60
BURST = 6
MASK = 0  # Lines about what is refused would fill the log.
FLOOD = int(os.environ.get("VELL_FLOOD", "150000"))  # The budget holds 26,000.
BUDGET_KB = 64 << 10


@pytest.fixture(name="sinks", scope="module")
def _sinks(net, daemon):
    assert daemon.alive()
    net.configure(PORT)
    sinks = []
    for server in net.servers:
        made = server.socket(net.family, socket.SOCK_DGRAM)
        made.setsockopt(socket.SOL_SOCKET, 33, 8 << 20)  # SO_RCVBUFFORCE
        made.bind((net.CLUSTER, PORT))
        made.setblocking(False)
        sinks.append(made)
    return sinks


def content(number):
    """What the datagram of that number carries; no 16 bytes of it are alike in another one."""
    return b"".join(number.to_bytes(8, "big") + place.to_bytes(8, "big")
                    for place in range(SIZE // 16))


def collect(sinks, want, timeout=5):
    """What arrived, sink by sink, once there are `want` datagrams."""
    found = [[] for _ in sinks]

    def enough():
        for place, sink in enumerate(sinks):
            with contextlib.suppress(BlockingIOError):
                while True:
                    found[place].append(sink.recv(65535))
        return sum(map(len, found)) >= want

    wait_until(enough, timeout, f"{want} datagrams")
    return found


def test_kernels_datagrams_arrive_whole(net, sinks):
    found = [[] for _ in sinks]
    with net.client.socket(net.family, socket.SOCK_DGRAM) as client:
        for first in range(0, COUNT, BURST):  # No more than a busy machine's socket buffers hold.
            for number in range(first, first + BURST):
                client.sendto(content(number), (net.CLUSTER, PORT))
            for all_of, now in zip(found, collect(sinks, BURST)):
                all_of += now
    assert sorted(itertools.chain(*found)) == sorted(map(content, range(COUNT)))
    assert all(found)  # udprr: every server has had some


def framed(net, packet):
    """A packet in a frame to the forwarder."""
    return Ether(dst=net.forwarder.mac(), src=net.client.mac()) / packet


def cut(net, number, data, source=None):
    """The frames of a datagram in pieces, by scapy."""
    ends = {"src": source or net.CLIENT, "dst": net.CLUSTER}
    whole = UDP(sport=4000 + number % 1000, dport=PORT) / Raw(data)
    parts = (fragment6(IPv6(**ends) / IPv6ExtHdrFragment(id=number) / whole, 1496) if net.ipv6 else
             fragment(IP(id=number, **ends) / whole, 1480))
    return [framed(net, part) for part in parts]


def test_those_that_wait_for_a_first_stay_within_the_budget(net, daemon, sinks):
    ends, protocol = {"src": net.CLIENT, "dst": net.CLUSTER}, "ipv6" if net.ipv6 else "ipv4"
    packet = (IPv6(**ends) / IPv6ExtHdrFragment(offset=185, nh=17) if net.ipv6 else
              IP(frag=185, proto=17, chksum=0, **ends)) / Raw(bytes(64))
    frame = bytearray(bytes(framed(net, packet)))
    before, already = daemon.rss_kb(), daemon.counters(protocol)["received"]
    number = taken = largest = 0
    with net.client.injector() as client:
        while taken < FLOOD:  # What finds the socket's buffer full is lost.
            for number in range(number + 1, number + 20_001):
                if net.ipv6:
                    frame[58:62] = number.to_bytes(4, "big")
                else:
                    frame[18:20] = (number & 0xFFFF).to_bytes(2, "big")
                    frame[28:30] = (number >> 16).to_bytes(2, "big")  # The address of its sender.
                client.socket.send(frame)
            largest = max(largest, daemon.rss_kb())
            taken = daemon.counters(protocol)["received"] - already
    print(f"{taken} of {number} taken, {largest - before} KB more at most")
    # Records that have lost their packet, and what the allocator keeps, come on top.
    assert BUDGET_KB // 4 < largest - before < BUDGET_KB * 3 // 2
    wait_until(lambda: arrives(net, sinks, content(7)), 10, "a datagram in pieces, its last one first")


def arrives(net, sinks, data):
    """Whether a datagram arrives that another host sends in pieces, the last one first."""
    number = int(time.monotonic() * 10) & 0xFFFF
    with net.client.injector() as client:
        client.send(*reversed(cut(net, number, data, "2001:db8:f::77" if net.ipv6 else "198.51.100.77")))
    with contextlib.suppress(LabError):
        return data in itertools.chain(*collect(sinks, 1, timeout=1))
    return False
