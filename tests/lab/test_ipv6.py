"""What IPv6 has of its own: neighbour discovery, group membership and packet too big. scapy
takes the frames apart and sums them; kernels at the other end believe them or do not. What both
versions have in common is in the tests that name their IP_VERSIONS.
"""

import json
import re
import socket

import pytest
from packets import TCP, Ether, IPv6, is_icmpv6
from scapy.layers.inet6 import (ICMPv6ND_NA, ICMPv6ND_NS, ICMPv6NDOptDstLLAddr, ICMPv6NDOptSrcLLAddr,
                                ICMPv6PacketTooBig)
from streams import Connector, transfer

from lab import LabError, Routed, mac_of, wait_until

ADVERTISE, TOO_BIG = 136, 2
ALL_NODES, ALL_NODES_MAC = "ff02::1", "33:33:00:00:00:01"
GROUP, GROUP_MAC = "ff02::1:ff00:100", "33:33:ff:00:01:00"  # the cluster's solicited-node address
STRANGER = "2001:db8::77"
ECHO = 7


def make_net(lab):
    """Server 4 is nobody's neighbour until a test makes it so."""
    return Routed(lab, servers=4, ipv6=True)


@pytest.fixture(name="served", scope="module")
def _served(net, daemon):
    assert daemon.alive()
    net.configure(ECHO, "connection", weights=[1, 1, 1], servers=(1, 2, 3))
    return net


@pytest.fixture(name="connect", scope="module")
def _connect(served):
    return Connector(served, ECHO, served.servers[:3])


def checked(frame, layer):
    """The packet of a frame, once scapy has come to the same checksum for a layer of it."""
    found, again = IPv6(frame[14:]), IPv6(frame[14:])
    del again[layer].cksum
    assert IPv6(bytes(again))[layer].cksum == found[layer].cksum
    return found


def solicitation(source, target, to=(GROUP, GROUP_MAC), option=True):
    """A solicitation of whoever has an address; the unspecified one has the stranger's interface."""
    mac = mac_of(STRANGER if source == "::" else source)
    asked = ICMPv6ND_NS(tgt=target) / ICMPv6NDOptSrcLLAddr(lladdr=mac) if option else ICMPv6ND_NS(tgt=target)
    return Ether(src=mac, dst=to[1]) / IPv6(src=source, dst=to[0], hlim=255) / asked


QUESTIONS = {  # source, to, with the option; whom the answer goes to; its flags
    "from a server": ("2001:db8::11", None, True, "2001:db8::11", 0x60),
    "to the forwarder alone": ("2001:db8::11", "forwarder", True, "2001:db8::11", 0x60),
    "without a hardware address, from a neighbour": ("2001:db8::11", None, False, "2001:db8::11", 0x60),
    "without one, from a stranger": (STRANGER, None, False, STRANGER, 0x60),
    "before the address is taken (RFC 4862, 5.4.2)": ("::", None, False, ALL_NODES, 0x20),
}


@pytest.mark.parametrize("name", QUESTIONS)
def test_cluster_address_is_advertised_to_who_asks(served, name):
    source, to, option, receiver, flags = QUESTIONS[name]
    own = served.forwarder.mac()
    question = solicitation(source, served.CLUSTER, (served.CLUSTER, own) if to else (GROUP, GROUP_MAC), option)
    with served.servers[0].capture() as capture, served.servers[0].injector() as out:
        out.send(question)
        frame = capture.wait(is_icmpv6(ADVERTISE, served.CLUSTER), what="an advertisement")
        with pytest.raises(LabError):  # one answer, not one a worker
            capture.wait(is_icmpv6(ADVERTISE, served.CLUSTER), timeout=0.3)
    ether = Ether(frame)
    assert (ether.src, ether.dst) == (own, ALL_NODES_MAC if receiver == ALL_NODES else mac_of(receiver))
    packet = checked(frame, ICMPv6ND_NA)
    assert (packet.src, packet.dst, packet.hlim, packet.plen) == (served.CLUSTER, receiver, 255, 32)
    assert bytes(packet[ICMPv6ND_NA])[4:8] == bytes([flags, 0, 0, 0])
    assert (packet[ICMPv6NDOptDstLLAddr].lladdr, packet[ICMPv6NDOptDstLLAddr].len) == (own, 1)


def test_real_host_finds_the_cluster_address_taken(served):
    """A kernel's own duplicate detection (RFC 4862, 5.4), with a free address beside it."""
    server, taken, free = served.servers[3], served.CLUSTER, "2001:db8::98"
    server.ip("address", "del", f"{taken}/128", "dev", "lo")
    server.sysctl(net__ipv6__conf__eth0__accept_dad=1, net__ipv6__conf__eth0__router_solicitation_delay=0)
    for address in (taken, free):
        server.ip("address", "add", f"{address}/64", "dev", "eth0")

    def verdicts():
        shown = json.loads(server.ip("-json", "-6", "address", "show", "dev", "eth0"))[0]["addr_info"]
        flags = {one["local"]: one for one in shown}
        return (flags[taken].get("dadfailed", False), flags[free].get("tentative", False))

    wait_until(lambda: verdicts() == (True, False), 5, "the cluster's address to be found taken")
    server.sysctl(net__ipv6__conf__eth0__accept_dad=0)
    for address in (taken, free):
        server.ip("address", "del", f"{address}/64", "dev", "eth0")
    server.add_loopback_address(taken)


MEMBERSHIP = [  # what is done, then whether the group of the address is joined
    ("cluster add 2001:db8::71", "71", True),
    ("cluster rm 2001:db8::71", "71", False),
    ("cluster add 2001:db8:5::72", "72", False),  # its interface's address is yet to come
    ("address add eth0 2001:db8:5::2/64", "72", True),
    ("cluster rm 2001:db8:5::72", "72", False),
    ("interface set eth9 --arp no", "73", False),
    ("cluster add 2001:db8:9::73", "73", False),
    ("interface set eth9 --arp yes", "73", True),
    ("cluster rm 2001:db8:9::73", "73", False),
    ("server add [2001:db8::100]:7 2001:db8:1::11 --nat --return-address 2001:db8::74 "
     "--router-address 2001:db8::9 --weight 0", "74", True),
    ("server rm [2001:db8::100]:7 2001:db8:1::11", "74", False),
]


def test_kernel_lists_the_groups_of_what_is_answered_for(served, daemon):
    served.forwarder.ip("link", "add", "eth9", "address", "02:00:00:00:00:09", "type", "bridge")
    served.forwarder.ip("address", "add", "2001:db8:9::1/64", "dev", "eth9")
    served.forwarder.ip("link", "set", "eth9", "up")
    daemon.ctl("interface sync --only eth9")
    for words, last, wanted in MEMBERSHIP:
        daemon.ctl(words)

        def as_wanted():
            return (f"33:33:ff:00:00:{last}" in served.forwarder.ip("maddr", "show")) == wanted

        wait_until(as_wanted, 6, f"{'membership' if wanted else 'no membership'} after {words}")
    daemon.ctl("address rm eth0 2001:db8:5::2")


def test_kernels_extension_headers_pass(served, connect):
    padding = b"\0\0\1\4\0\0\0\0"
    with served.forwarder.capture(outgoing=True) as capture:
        client, accepted, place = connect((socket.IPPROTO_IPV6, socket.IPV6_HOPOPTS, padding),
                                          (socket.IPPROTO_IPV6, socket.IPV6_DSTOPTS, padding))
        client.send(b"behind two headers")
        assert accepted.recv(100) == b"behind two headers"

        def sent_on(frame):
            return (Ether(frame).dst == served.servers[place].mac()
                    and b"behind two headers" in frame)

        frame = capture.wait(sent_on)
    assert (frame[20], frame[54], frame[62], TCP in Ether(frame)) == (0, 60, 6, True)
    client.close()
    accepted.close()


def test_client_learns_a_smaller_mtu_from_the_forwarder(served, daemon, connect):
    mtu = 1300
    client, accepted, _ = connect()
    daemon.ctl(f"interface set eth0 --mtu {mtu}")
    try:
        with served.client.capture() as capture:
            transfer(client, accepted, bytes(range(256)) * 400)
            frame = capture.wait(is_icmpv6(TOO_BIG), what="packet too big")
        learnt = re.search(r"mtu (\d+)", served.client.ip("-6", "route", "get", served.CLUSTER))
    finally:
        daemon.ctl("interface set eth0 --mtu 1500")
        served.client.ip("-6", "route", "flush", "cache")
    assert learnt and int(learnt[1]) == mtu
    packet = checked(frame, ICMPv6PacketTooBig)
    message = packet[ICMPv6PacketTooBig]
    assert (packet.src, packet.dst, message.code, message.mtu) == (served.FORWARDER, served.CLIENT, 0, mtu)
    quoted = bytes(message.payload)
    assert len(quoted) == 1232 and packet.plen == 1240  # a whole packet of 1280 bytes
    assert (IPv6(quoted).src, IPv6(quoted).dst) == (served.CLIENT, served.CLUSTER)
    client.close()
    accepted.close()
