"""Packets for the lab's tests: built by scapy, told apart by a few words of their bytes."""

import json
import socket
import struct
import time

from scapy.layers.inet import ICMP, IP, TCP, UDP
from scapy.layers.inet6 import IPv6
from scapy.layers.l2 import ARP, Dot1Q, Ether
from scapy.packet import Padding, Raw
from scapy.utils import wrpcap

from lab import mac_of
from lab.core import run

__all__ = ["ARP", "BROADCAST", "Dot1Q", "ETH_ARP", "ETH_IP", "ETH_IPV6", "Ether", "ICMP", "IP", "IPv6",
           "Padding", "Raw", "TCP", "UDP", "ZERO", "answers_for", "dissected", "ethertype", "is_arp",
           "is_icmp", "is_icmpv6", "without_padding"]

ETH_IP = 0x0800
ETH_ARP = 0x0806
ETH_IPV6 = 0x86DD
BROADCAST = "ff:ff:ff:ff:ff:ff"
ZERO = "00:00:00:00:00:00"


def ethertype(frame):
    """The EtherType of a frame (bytes)."""
    return struct.unpack_from("!H", frame, 12)[0]


def is_arp(operation=None, sender=None, target=None, source_mac=None):
    """A match for ARP frames (bytes) by operation, sender address, target address, Ethernet source."""

    def match(frame):
        if ethertype(frame) != ETH_ARP:
            return False
        arp = Ether(frame)[ARP]
        return (operation in (None, arp.op) and sender in (None, arp.psrc)
                and target in (None, arp.pdst) and source_mac in (None, Ether(frame).src))

    return match


def is_icmp(kind, code=None):
    """A match for ICMP messages (bytes of a frame)."""

    def match(frame):
        return (ethertype(frame) == ETH_IP and frame[23] == 1 and Ether(frame)[ICMP].type == kind
                and code in (None, Ether(frame)[ICMP].code))

    return match


def is_icmpv6(kind, target=None):
    """A match for ICMPv6 messages (bytes of a frame) without extension headers.

    A target is the address that a solicitation or advertisement is about.
    """

    def match(frame):
        return (ethertype(frame) == ETH_IPV6 and frame[20] == 58 and frame[54] == kind
                and target in (None, socket.inet_ntop(socket.AF_INET6, frame[62:78].ljust(16, b"\0"))))

    return match


def without_padding(frame):
    """The frame up to the end of its IP datagram."""
    return frame[:14 + struct.unpack_from("!H", frame, 16)[0]]


def answers_for(net, target, for_s=0.3):
    """The answers that come for a request of the client within a time; every worker has it by then."""
    mac = mac_of(net.CLIENT)
    found = []
    with net.client.capture() as capture, net.client.injector() as out:
        out.send(Ether(dst=BROADCAST, src=mac) / ARP(op=1, hwsrc=mac, psrc=net.CLIENT, hwdst=ZERO,
                                                     pdst=target))
        end = time.monotonic() + for_s
        while (frame := capture.next(end - time.monotonic())) is not None:
            if is_arp(2, target)(frame):
                found.append(Ether(frame).src)
    return found


def dissected(path, frames, *fields):
    """What tshark finds in frames (bytes), with checksums verified: one list of words a frame."""
    wrpcap(str(path), [Ether(frame) for frame in frames])
    wanted = [word for field in fields for word in ("-e", field)]
    shown = run(["tshark", "-r", path, "-T", "json", "-o", "ip.check_checksum:TRUE",
                 "-o", "udp.check_checksum:TRUE", *wanted])
    packets = [one["_source"]["layers"] for one in json.loads(shown.stdout)]
    return [[packet.get(field) for field in fields] for packet in packets]
