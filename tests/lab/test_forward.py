"""What becomes of a frame: compared byte for byte with what scapy says it must become.

One receive worker, so that frames leave in the order in which they came: where nothing must be sent,
a frame that is forwarded follows, and nothing may arrive before it.
"""

import contextlib
import socket
import struct

import pytest
from packets import ETH_IP, ICMP, IP, TCP, UDP, Dot1Q, Ether, Raw, ethertype, is_icmp, without_padding

from lab import LabError, mac_of, wait_until

WORKERS = 1
PORT = 80
LAST_WORD = 4999  # client port of the frame that follows


@pytest.fixture(name="wire", scope="module")
def _wire(net, daemon):
    assert daemon.alive()
    net.configure(port=PORT, weights=(1, 1, 1))
    daemon.ctl("port", "add", f"{net.CLUSTER}:53", "--udp-algorithm", "hash")
    for number in (1, 2, 3):
        daemon.ctl("server", "add", f"{net.CLUSTER}:53", net.server_address(number), "--weight", 1)
    return net


def to_cluster(net, ip=None, transport=None, vlan=None):
    """A frame from the client to the cluster; `ip` and `transport` change the ordinary one."""
    link = Ether(src=mac_of(net.CLIENT), dst=net.forwarder.mac())
    header = IP(src=net.CLIENT, dst=net.CLUSTER, id=0x1234, **(ip or {}))
    body = TCP(sport=3000, dport=PORT, flags="S") if transport is None else transport
    return link / (Dot1Q(vlan=vlan) / header if vlan else header) / body


def exchange(net, *frames):
    """Sends frames and then one that is surely forwarded. Returns what arrived besides that one:
    [(number of the server, frame)], and the IP frames that the client got."""
    last = bytes(to_cluster(net, transport=UDP(sport=LAST_WORD, dport=53) / b"last"))
    last_server = LAST_WORD % 3
    with contextlib.ExitStack() as stack:
        servers = [stack.enter_context(s.capture()) for s in net.servers]
        client = stack.enter_context(net.client.capture())
        stack.enter_context(net.client.injector()).send(*frames, last)
        before, _ = servers[last_server].until(lambda f: f[42:] == b"last", what="the last frame")
        got = [(number, f) for number, capture in enumerate(servers)
               for f in (before if number == last_server else []) + capture.drain()]
        return ([(number + 1, f) for number, f in got if ethertype(f) == ETH_IP],
                [f for f in client.drain() if ethertype(f) == ETH_IP])


def forwarded(net, frame):
    """Sends one frame that must be forwarded and returns (number of the server, frame)."""
    with contextlib.ExitStack() as stack:
        servers = [stack.enter_context(s.capture()) for s in net.servers]
        stack.enter_context(net.client.injector()).send(frame)
        found = []

        def arrived():
            for number, capture in enumerate(servers, start=1):
                found.extend((number, f) for f in capture.drain()
                             if ethertype(f) == ETH_IP and f[30:34] == socket.inet_aton(net.CLUSTER))
            return found

        wait_until(arrived, 3, "the frame to arrive at a server")
    assert len(found) == 1
    return found[0]


FORWARDED = {
    "SYN": ({}, TCP(sport=3000, dport=PORT, flags="S")),
    "odd length to the second server": ({}, TCP(sport=3001, dport=PORT, flags="PA") / b"odd"),
    "full frame": ({}, TCP(sport=3001, dport=PORT, flags="A") / (b"\xa5" * 1460)),
    "TTL 2 to the third server": ({"ttl": 2}, TCP(sport=3002, dport=PORT, flags="A")),
    "type of service, don't fragment": ({"tos": 0xB8, "flags": "DF"}, TCP(sport=3000, dport=PORT)),
    "header options": ({"options": b"\x94\x04\x00\x00"}, TCP(sport=3000, dport=PORT, flags="A")),
    "TCP checksum is not ours to judge": ({}, TCP(sport=3000, dport=PORT, chksum=0xDEAD)),
    "datagram": ({}, UDP(sport=3001, dport=53) / b"question"),
    "datagram of nothing": ({}, UDP(sport=3002, dport=53)),
}


@pytest.mark.parametrize("name", FORWARDED)
def test_forwarding_changes_macs_ttl_and_checksum_alone(wire, name):
    ip, transport = FORWARDED[name]
    frame = Ether(bytes(to_cluster(wire, ip, transport)))
    number, got = forwarded(wire, frame)
    assert number == frame[IP].payload.sport % 3 + 1
    expected = frame.copy()
    expected.src, expected.dst = wire.forwarder.mac(), wire.servers[number - 1].mac()
    expected.ttl -= 1
    del expected[IP].chksum
    assert without_padding(got) == bytes(expected)


def icmp_answer(net, frame, kind, code):
    """Sends a frame that must be answered by ICMP and reach no server; the answer."""
    with net.client.capture() as capture:
        got, _ = exchange(net, frame)
        assert got == []
        answer = Ether(capture.wait(is_icmp(kind, code), what=f"ICMP {kind}/{code}"))
    rebuilt = answer.copy()
    del rebuilt[ICMP].chksum
    assert Ether(bytes(rebuilt))[ICMP].chksum == answer[ICMP].chksum
    assert (answer[IP].src, answer[IP].dst) == (net.FORWARDER, net.CLIENT)
    return answer


def test_time_exceeded(wire):
    frame = bytes(to_cluster(wire, {"ttl": 1, "options": b"\x01" * 8},
                             TCP(sport=3000, dport=PORT) / b"0123456789"))
    answer = icmp_answer(wire, frame, 11, 0)
    quoted = (frame[14] & 15) * 4 + 8
    assert bytes(answer[ICMP])[4:] == bytes(4) + frame[14:14 + quoted]  # RFC 792: header and 8 bytes


@pytest.fixture(name="narrow")
def _narrow(wire, daemon):
    """The forwarder's interface with an MTU of 1400; the wire itself carries more."""
    daemon.ctl("interface", "set", "eth0", "--mtu", 1400)
    yield wire
    daemon.ctl("interface", "sync")


def test_too_long_is_answered_with_the_mtu(narrow):
    frame = bytes(to_cluster(narrow, {"flags": "DF"}, TCP(sport=3000, dport=PORT) / (b"x" * 1361)))
    answer = icmp_answer(narrow, frame, 3, 4)
    assert bytes(answer[ICMP])[4:] == struct.pack("!HH", 0, 1400) + frame[14:42]
    number, got = forwarded(narrow, to_cluster(narrow, {}, TCP(sport=3000, dport=PORT) / (b"x" * 1360)))
    assert (number, len(got)) == (1, 1414)


def test_tagged_frames_are_left_alone(wire, daemon):
    before = daemon.counters()
    tagged = to_cluster(wire, vlan=5)
    got, _ = exchange(wire, tagged, to_cluster(wire, vlan=1, transport=UDP(sport=3000, dport=53) / b"x"))
    assert got == []
    assert daemon.counters()["received"] - before["received"] == 1  # the last frame


def test_the_hosts_own_traffic_is_left_to_it(wire, daemon):
    """Ping, a refused connection and a transfer: once each, as without a forwarder."""
    before = daemon.counters()
    link = Ether(src=mac_of(wire.CLIENT), dst=wire.forwarder.mac())
    ping = link / IP(src=wire.CLIENT, dst=wire.FORWARDER) / ICMP(type=8, id=7, seq=1) / Raw(b"hello" * 8)
    with wire.client.capture() as capture, wire.client.injector() as out:
        out.send(ping)
        answer = Ether(capture.wait(is_icmp(0), what="the answer to a ping"))
        assert bytes(answer[ICMP].payload) == b"hello" * 8
        with pytest.raises(LabError):
            capture.wait(is_icmp(0), timeout=0.2)
    with contextlib.closing(wire.client.socket(socket.AF_INET, socket.SOCK_STREAM)) as refused:
        assert refused.connect_ex((wire.FORWARDER, 9)) == 111
    with contextlib.closing(wire.forwarder.socket(socket.AF_INET, socket.SOCK_STREAM)) as listener, \
            contextlib.closing(wire.client.socket(socket.AF_INET, socket.SOCK_STREAM)) as client:
        listener.bind((wire.FORWARDER, 2222))
        listener.listen()
        client.settimeout(5)
        client.connect((wire.FORWARDER, 2222))
        accepted, _ = listener.accept()
        with contextlib.closing(accepted):
            accepted.sendall(b"x" * 100_000)
            got = 0
            while got < 100_000:
                got += len(client.recv(1 << 20))
    after = daemon.counters()
    assert after["not_for_us"] > before["not_for_us"]
    assert [after[k] - before[k] for k in ("forwarded", "discarded", "errors")] == [0, 0, 0]
