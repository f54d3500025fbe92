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
    "SYN to the second server": ({}, TCP(sport=3001, dport=PORT, flags="S")),
    "SYN to the third server": ({}, TCP(sport=3002, dport=PORT, flags="S")),
    "odd length": ({}, TCP(sport=3001, dport=PORT, flags="PA") / b"odd"),
    "full frame": ({}, TCP(sport=3001, dport=PORT, flags="A") / (b"\xa5" * 1460)),
    "TTL 2": ({"ttl": 2}, TCP(sport=3002, dport=PORT, flags="A")),
    "TTL 255": ({"ttl": 255}, TCP(sport=3000, dport=PORT, flags="A")),
    "type of service, don't fragment": ({"tos": 0xB8, "flags": "DF"}, TCP(sport=3000, dport=PORT)),
    "header options": ({"options": b"\x94\x04\x00\x00"}, TCP(sport=3000, dport=PORT, flags="A")),
    "longest header": ({"options": b"\x01" * 40}, TCP(sport=3000, dport=PORT, flags="A") / b"x"),
    "TCP checksum is not ours to judge": ({}, TCP(sport=3000, dport=PORT, chksum=0xDEAD)),
    "client port 65535": ({}, TCP(sport=65535, dport=PORT, flags="S")),
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


def test_every_identification_leaves_a_right_checksum(wire):
    """The checksum is mended, not made anew: over all of its carries."""
    frames = []
    for ident in range(0, 0x10000, 61):
        frame = to_cluster(wire, transport=UDP(sport=3000, dport=53) / b"x")
        frame[IP].id = ident
        frames.append(bytes(frame))
    with wire.servers[0].capture() as capture, wire.client.injector() as out:
        for frame in frames:
            out.send(frame)
        got = []
        while len(got) < len(frames):
            got.append(capture.wait(lambda f: ethertype(f) == ETH_IP and f[23] == 17))
    for before, after in zip(frames, got):
        assert after[18:20] == before[18:20]
        total = sum(struct.unpack("!10H", after[14:34]))
        assert (total & 0xFFFF) + (total >> 16) == 0xFFFF


def test_padding_is_not_taken_for_data(wire):
    frame = bytes(to_cluster(wire, transport=UDP(sport=3000, dport=53) / b"abc"))
    _, got = forwarded(wire, frame.ljust(60, b"\xee"))
    assert len(got) <= 60
    assert without_padding(got)[34:] == frame[34:]


def test_checksum_zero_is_not_verified(wire):
    """Such a packet goes on, and its checksum is mended as if it had been right."""
    frame = bytearray(bytes(to_cluster(wire)))
    frame[24:26] = b"\0\0"
    _, got = forwarded(wire, bytes(frame))
    assert (got[22], got[24:26]) == (63, b"\x01\x00")


def corrupt(frame, at, value, fix=True):
    """The frame with bytes replaced, and a checksum that fits again if `fix`."""
    frame = bytearray(bytes(frame))
    frame[at:at + len(value)] = value
    if fix:
        length = max(20, (frame[14] & 15) * 4)
        frame[24:26] = b"\0\0"
        words = bytes(frame[14:14 + length]).ljust(length, b"\0")
        total = sum(struct.unpack(f"!{length // 2}H", words))
        total = (total & 0xFFFF) + (total >> 16)
        frame[24:26] = struct.pack("!H", ~(total + (total >> 16)) & 0xFFFF)
    return bytes(frame)


# What is done to an ordinary SYN, and the counters that tell of it. Where the ports are missing, the
# header counts as bad and the port as not served.
SWALLOWED = {
    "header of 16 bytes": (lambda f: corrupt(f, 14, b"\x44"), "errors"),
    "header beyond the frame": (lambda f: corrupt(f, 14, b"\x4f"), "errors"),
    "version 5": (lambda f: corrupt(f, 14, b"\x55"), "errors"),
    "bad checksum": (lambda f: corrupt(f, 24, b"\x12\x34", fix=False), "errors"),
    "total length beyond the frame": (lambda f: corrupt(f, 16, b"\x04\x00"), "errors"),
    "total length one too long": (lambda f: corrupt(f, 16, b"\x00\x29"), "errors"),
    "total length below the header": (lambda f: corrupt(f, 16, b"\x00\x13"), "errors"),
    "no TCP header": (lambda f: corrupt(f, 16, b"\x00\x14")[:34], "errors discarded"),
    "TCP header of 2 bytes": (lambda f: corrupt(f, 16, b"\x00\x16")[:36], "errors discarded"),
    "port that is not served": (lambda f: f[:36] + b"\x23\x28" + f[38:], "discarded"),
    "GRE": (lambda f: corrupt(f, 23, b"\x2f"), "discarded"),
    "SCTP": (lambda f: corrupt(f, 23, b"\x84"), "discarded"),
    "ICMPv6 inside IPv4": (lambda f: corrupt(f, 23, b"\x3a"), "discarded"),
}


@pytest.mark.parametrize("name", SWALLOWED)
def test_bad_or_unserved_is_swallowed_and_counted(wire, daemon, name):
    change, counters = SWALLOWED[name]
    # A long frame first: a careless forwarder would send its bytes along with the short one.
    _, _ = forwarded(wire, to_cluster(wire, transport=TCP(sport=3000, dport=PORT) / (b"SECRET" * 200)))
    before = daemon.counters()
    sent = change(bytes(to_cluster(wire)))
    got, answers = exchange(wire, sent)
    # The last frame finds nobody on port 53: its server's kernel may say so to the client.
    assert got == [] and [f for f in answers if not is_icmp(3, 3)(f)] == []
    after = daemon.counters()
    grown = {key for key in ("errors", "discarded") if after[key] == before[key] + 1}
    assert grown == set(counters.split())
    assert after["forwarded"] - before["forwarded"] == 1  # the last frame


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


TOO_OLD = {"TTL 1": {"ttl": 1}, "TTL 0": {"ttl": 0}, "TTL 1 and options": {"ttl": 1, "options": b"\x01" * 8}}


@pytest.mark.parametrize("name", TOO_OLD)
def test_time_exceeded(wire, daemon, name):
    before = daemon.counters(), daemon.counters("icmp")
    frame = bytes(to_cluster(wire, TOO_OLD[name], TCP(sport=3000, dport=PORT) / b"0123456789"))
    answer = icmp_answer(wire, frame, 11, 0)
    quoted = (frame[14] & 15) * 4 + 8
    assert bytes(answer[ICMP])[4:] == bytes(4) + frame[14:14 + quoted]  # RFC 792: header and 8 bytes
    after = daemon.counters(), daemon.counters("icmp")
    assert after[0]["errors"] - before[0]["errors"] == 1
    assert after[1]["generated"] - before[1]["generated"] == 1


@pytest.fixture(name="narrow")
def _narrow(wire, daemon):
    """The forwarder's interface with an MTU of 1400; the wire itself carries more."""
    daemon.ctl("interface", "set", "eth0", "--mtu", 1400)
    yield wire
    daemon.ctl("interface", "sync")


def test_too_long_is_answered_with_the_mtu(narrow, daemon):
    before = daemon.counters()
    frame = bytes(to_cluster(narrow, {"flags": "DF"}, TCP(sport=3000, dport=PORT) / (b"x" * 1361)))
    answer = icmp_answer(narrow, frame, 3, 4)
    assert bytes(answer[ICMP])[4:] == struct.pack("!HH", 0, 1400) + frame[14:42]
    assert daemon.counters()["discarded"] - before["discarded"] == 1
    number, got = forwarded(narrow, to_cluster(narrow, {}, TCP(sport=3000, dport=PORT) / (b"x" * 1360)))
    assert (number, len(got)) == (1, 1414)


def test_tagged_frames_are_left_alone(wire, daemon):
    before = daemon.counters()
    tagged = to_cluster(wire, vlan=5)
    got, _ = exchange(wire, tagged, to_cluster(wire, vlan=1, transport=UDP(sport=3000, dport=53) / b"x"))
    assert got == []
    assert daemon.counters()["received"] - before["received"] == 1  # the last frame


def test_choosing_by_client_port_and_weight(wire, daemon):
    """Weights 1, 0, 2 make rests 0, 1, 2 the first, third, third server; without any weight the
    servers take turns by the client's port."""
    table = {(1, 0, 2): {0: 1, 1: 3, 2: 3}, (0, 0, 0): {0: 1, 1: 2, 2: 3}, (1, 1, 1): {0: 1, 1: 2, 2: 3}}
    for weights, expected in table.items():
        for number, weight in enumerate(weights, start=1):
            daemon.ctl("server", "set", f"{wire.CLUSTER}:{PORT}", wire.server_address(number),
                       "--weight", weight)
        for rest, number in expected.items():
            frame = to_cluster(wire, transport=TCP(sport=3000 + rest, dport=PORT, flags="S"))
            assert forwarded(wire, frame)[0] == number, (weights, rest)


def test_udp_takes_turns(wire, daemon):
    daemon.ctl("port", "add", f"{wire.CLUSTER}:69", "--udp-algorithm", "udprr")
    for number in (1, 2, 3):
        daemon.ctl("server", "add", f"{wire.CLUSTER}:69", wire.server_address(number), "--weight", 1)
    frame = to_cluster(wire, transport=UDP(sport=3000, dport=69) / b"x")
    turns = [forwarded(wire, frame)[0] for _ in range(6)]
    assert turns == [1, 2, 3, 1, 2, 3]


def test_client_port_1025_of_two_servers_goes_to_the_second(wire, daemon):
    daemon.ctl("port", "add", f"{wire.CLUSTER}:8080", "--algorithm", "hash")
    for number in (1, 3):
        daemon.ctl("server", "add", f"{wire.CLUSTER}:8080", wire.server_address(number), "--weight", 1)
    frame = to_cluster(wire, transport=TCP(sport=1025, dport=8080, flags="S"))
    assert forwarded(wire, frame)[0] == 3


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
