"""python3 -m lab.decap ipip|gre DEVICE: takes packets out of their tunnels (RFC 2003, RFC 2784).

What a host with an ipip or a gre device does in its kernel: reads outer packets from a raw socket,
which the kernel has put together where they were fragments, and hands each inner one to a tun
device. Only IPv4 inside, GRE without checksum, key and sequence numbers; else it says so and goes
on. Prints "ready" once both ends are open; whoever started it brings the device up.
"""

import fcntl
import os
import socket
import struct
import sys

PROTOCOLS = {"ipip": 4, "gre": 47}
GRE_IPV4 = b"\x00\x00\x08\x00"
TUNSETIFF = 0x400454CA
IFF_TUN_NO_PI = 0x1001


def open_tun(name):
    """The descriptor of a new tun device."""
    tun = os.open("/dev/net/tun", os.O_RDWR | os.O_CLOEXEC)
    fcntl.ioctl(tun, TUNSETIFF, struct.pack("16sH22x", name.encode(), IFF_TUN_NO_PI))
    return tun


def inner_packet(kind, packet):
    """What an outer packet carries; None if that is not an IPv4 packet."""
    payload = packet[(packet[0] & 15) * 4:]
    if kind == "gre":
        if payload[:4] != GRE_IPV4:
            return None
        payload = payload[4:]
    return payload if len(payload) >= 20 and payload[0] >> 4 == 4 else None


def main():
    """The command line."""
    kind, name = sys.argv[1:]
    with socket.socket(socket.AF_INET, socket.SOCK_RAW, PROTOCOLS[kind]) as outer:
        tun = open_tun(name)
        print("ready", flush=True)
        while True:
            packet = outer.recv(65535)
            inner = inner_packet(kind, packet)
            if inner is None:
                print("not IPv4 inside:", packet.hex(), flush=True)
            else:
                os.write(tun, inner)


if __name__ == "__main__":
    main()
