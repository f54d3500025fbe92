"""Packets for the lab's tests: built by scapy, told apart by a few words of their bytes."""

import struct

from scapy.layers.inet import ICMP, IP, TCP, UDP
from scapy.layers.l2 import ARP, Dot1Q, Ether
from scapy.packet import Padding, Raw

__all__ = ["ARP", "Dot1Q", "ETH_ARP", "ETH_IP", "Ether", "ICMP", "IP", "Padding", "Raw", "TCP", "UDP",
           "ethertype", "is_arp", "is_icmp", "without_padding"]

ETH_IP = 0x0800
ETH_ARP = 0x0806


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


def without_padding(frame):
    """The frame up to the end of its IP datagram."""
    return frame[:14 + struct.unpack_from("!H", frame, 16)[0]]
