"""What differs between the demonstration's modes: network, words of `server add`, what to look at.

A mode's evidence are frames: of the client in direct mode, of the forwarder in the others.
"""

import collections
import socket
import struct

import steps
from lab import Basic, Far, mac_of

WEIGHTS = (2, 2, 1)
TCP, CARRIERS = 6, {4: "IPIP", 47: "GRE", 6: "TCP"}


def packets(capture):
    """A capture's IP packets: (source MAC, source, destination, protocol, source port)."""
    for frame in capture.drain():
        if len(frame) >= 54 and frame[12:14] == b"\x08\x00":
            family, ends, protocol, data = socket.AF_INET, (26, 30, 34), 23, 14 + (frame[14] & 15) * 4
        elif len(frame) >= 74 and frame[12:14] == b"\x86\xdd":
            family, ends, protocol, data = socket.AF_INET6, (22, 38, 54), 20, 54
        else:
            continue
        addresses = [socket.inet_ntop(family, frame[a:b]) for a, b in zip(ends, ends[1:])]
        port = struct.unpack_from("!H", frame, data)[0]
        yield frame[6:12].hex(":"), *addresses, frame[protocol], port


def question(net):
    """How hosts ask for a hardware address."""
    return "neighbour solicitation" if net.ipv6 else "ARP request"


def age(net):
    """What the IP header calls the count that ends a packet's life."""
    return "hop limit" if net.ipv6 else "TTL"


class Direct:
    """Servers on the forwarder's segment, reached by their hardware addresses."""

    algorithm = "hash"
    ipv6 = True  # can it be shown over IPv6?
    header = "frames of its answers, straight to the client"

    def words(self, _net):
        """What `server add` is told."""
        return ""

    def make(self, lab, ipv6):
        """The network, with web servers."""
        net = Basic(lab, ipv6=ipv6)
        net.start_web()
        return net

    def watch(self, net):
        """A capture to be handed to evidence() later."""
        return net.client.capture()

    def evidence(self, net, capture):
        """What the last column of the table says, by server number; 0 is the forwarder."""
        seen = collections.Counter(mac for mac, _, _, protocol, port in packets(capture)
                                   if (protocol, port) == (TCP, 80))
        shown = {number: str(seen[mac_of(net.server_address(number))]) for number in (1, 2, 3)}
        shown[0] = str(seen[mac_of(net.FORWARDER)])
        if shown[0] != "0":
            raise steps.StepFailed("the forwarder sent answers itself")
        return shown

    def explain(self, net):
        """What one has seen."""
        return f"""
  What happened: no host owns {net.CLUSTER} on the wire. vellb2 answered the client's {question(net)}
  for it, took each packet that came, chose a server by the client's port (port mod {sum(WEIGHTS)}, the sum of the
  weights) and sent the packet on with nothing but its hardware addresses and {age(net)} changed. The
  servers carry the address on lo, so they took it for theirs and answered the client directly:
  the answers never passed the forwarder."""


class Nat(Direct):
    """Servers behind a router, spoken to from a return address."""

    algorithm = "connection"
    header = "translated: packets to it, from it"

    def words(self, net):
        return f"--nat --return-address {net.RETURN} --router-address {net.FAR}"

    def make(self, lab, ipv6):
        net = Far(lab, ipv6=ipv6)
        net.start_web()
        return net

    def watch(self, net):
        return net.forwarder.capture(outgoing=True)

    def evidence(self, net, capture):
        shown = {0: ""}
        ways = collections.Counter(packet[1:3] for packet in packets(capture))
        for number in (1, 2, 3):
            address = net.server_address(number)
            there, back = ways[net.RETURN, address], ways[address, net.RETURN]
            if not (there and back):
                raise steps.StepFailed(f"server{number} was not spoken to through {net.RETURN}")
            shown[number] = f"{there}, {back}"
        for number, server in enumerate(net.servers, start=1):
            strangers = {line[0] for line in server.web_log()} - {net.RETURN}
            if strangers:
                raise steps.StepFailed(f"server{number} saw clients that are not {net.RETURN}: "
                                       f"{strangers}")
        return shown

    def explain(self, net):
        return f"""
  What happened: the servers stand behind a router ({net.FAR}) and need not know {net.CLUSTER}.
  vellb2 sent them each client's packets from {net.RETURN}, an address that no host has, with a source
  port for every connection (1025, 1026, ...); that is what their logs show. It answered the router's
  {question(net)} for {net.RETURN}, turned the servers' answers back and sent them to the client gateway."""


class Tunnel(Nat):
    """Servers behind a router, reached inside other packets."""

    algorithm = "hash"
    ipv6 = False

    def __init__(self, kind, protocol):
        self.kind, self.protocol = kind, protocol
        self.header = f"{CARRIERS[protocol]} packets to it; its answers at the forwarder"

    def words(self, _net):
        return f"--encap {self.kind}"

    def make(self, lab, ipv6):
        net = super().make(lab, ipv6)
        for server in net.servers:
            server.decapsulate(self.kind)
        return net

    def evidence(self, net, capture):
        shown = {0: ""}
        seen = list(packets(capture))
        sent = collections.Counter(destination for _, _, destination, protocol, _ in seen
                                   if protocol == self.protocol)
        answers = sum(source == net.CLUSTER for _, source, _, _, _ in seen)
        for number in (1, 2, 3):
            shown[number] = f"{sent[net.server_address(number)]}; {answers}"
        if answers or not all(sent[net.server_address(number)] for number in (1, 2, 3)):
            raise steps.StepFailed("a server got no packets in a tunnel, or answers came back here")
        return shown

    def explain(self, net):
        return f"""
  What happened: the servers stand behind a router, out of reach of hardware addresses. vellb2 sent
  each packet as it came to its server, inside another one ({CARRIERS[self.protocol]}), where it was
  taken out again. The servers carry {net.CLUSTER} on lo and answered the client directly: no answer
  passed the forwarder. Their neighbours are shown as "no interface", because they are on none of the forwarder's networks:
  its host's routes lead to them."""


MODES = {"direct": Direct(), "nat": Nat(), "gre": Tunnel("gre", 47), "ipip": Tunnel("ipip", 4)}
