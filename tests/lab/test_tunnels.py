"""Servers behind a router, reached inside GRE and IPIP. tshark says what is on the wire; nginx and
the kernels behind the decapsulators take what was inside."""

import socket

import pytest
from packets import ICMP, IP, UDP, Ether, Raw, dissected, is_icmp

from lab import Far, wait_until

make_net = Far
MASK = 0x400000200  # failures, ICMP
KINDS = {"gre": (80, 1, 24), "ipip": (81, 2, 20)}  # port, server, bytes around the inner packet


@pytest.fixture(name="tunnels", scope="module")
def _tunnels(net, daemon):
    assert daemon.alive()
    for kind, (port, number, _) in KINDS.items():
        net.servers[number - 1].start_web([port])
        net.servers[number - 1].decapsulate(kind)
        net.configure_far(kind, port, "hash", [number])
    return net


def mtu_of(daemon, net, number):
    """The MTU towards a server as vellbctl shows it."""
    return next(s["encapsulation_mtu"] for s in daemon.servers()
                if s["server"] == net.server_address(number))


def datagram(net, kind, length, dont_fragment, sport=4000):
    """An IP packet of `length` bytes for a tunnel's port."""
    return (Ether(dst=net.router.mac("eth1"), src=net.client.mac())
            / IP(src=net.CLIENT, dst=net.CLUSTER, flags="DF" if dont_fragment else 0)
            / UDP(sport=sport, dport=KINDS[kind][0]) / Raw(b"d" * (length - 28)))


def listener(net, kind):
    """A UDP socket of the tunnel's server."""
    port, number, _ = KINDS[kind]
    made = net.servers[number - 1].socket(socket.AF_INET, socket.SOCK_DGRAM)
    made.bind((net.CLUSTER, port))
    made.settimeout(3)
    return made


@pytest.mark.parametrize("kind", KINDS)
def test_requests_travel_inside_and_answers_outside(tunnels, tmp_path, kind):
    port, number, overhead = KINDS[kind]
    with tunnels.forwarder.capture(outgoing=True) as seen:
        done = tunnels.client.run(["curl", "-sS", "--max-time", "5",
                                   f"http://{tunnels.CLUSTER}:{port}/"])
        frames = seen.drain(quiet=0.2)  # the client is done before the forwarder is
    assert done.stdout == f"server{number}\n"
    assert tunnels.servers[number - 1].web_log()[-1][0] == tunnels.CLIENT
    came = [f[14:] for f in frames if f[23] == 6 and f[:6].hex(":") == tunnels.forwarder.mac()]
    gone = [f for f in frames if f[12:14] == b"\x08\x00" and f[23] in (4, 47)]
    assert len(came) == len(gone) >= 4
    assert [f[14 + overhead:] for f in gone] == came  # the inner packet is what came, byte for byte
    for words in dissected(tmp_path / "out.pcap", gone, "ip.src", "ip.dst", "ip.proto",
                           "ip.checksum.status", "gre.proto", "tcp.dstport"):
        assert words == [[tunnels.FORWARDER, tunnels.CLIENT],
                         [tunnels.server_address(number), tunnels.CLUSTER],
                         ["47" if kind == "gre" else "4", "6"], ["1", "1"],
                         ["0x0800"] if kind == "gre" else None, [str(port)]]


@pytest.mark.parametrize("kind", KINDS)
@pytest.mark.parametrize("dont_fragment", [True, False])
def test_client_is_told_what_fits(tunnels, kind, dont_fragment):
    overhead = KINDS[kind][2]
    with listener(tunnels, kind) as server, tunnels.client.capture() as told, \
            tunnels.client.injector() as client:
        client.send(datagram(tunnels, kind, 1500 - overhead, True))
        assert len(server.recv(2000)) == 1500 - overhead - 28
        client.send(datagram(tunnels, kind, 1500 - overhead + 1, dont_fragment, sport=4001))
        message = Ether(told.wait(is_icmp(3, 4)))
        assert (message[IP].src, message[ICMP].nexthopmtu) == (tunnels.FORWARDER, 1500 - overhead)
        if not dont_fragment:  # The kernels cut the outer packet and put it together again.
            assert len(server.recv(2000)) == 1500 - overhead + 1 - 28
        else:
            server.settimeout(0.3)
            with pytest.raises(TimeoutError):
                server.recv(2000)


@pytest.mark.parametrize("kind", KINDS)
def test_router_lowers_the_mtu_and_the_host_hears_it_too(tunnels, daemon, kind):
    _, number, overhead = KINDS[kind]
    address = tunnels.server_address(number)
    tunnels.far.limit_mtu(tunnels.BACK, "eth1", 1400)
    try:
        with tunnels.client.injector() as client, tunnels.client.capture() as told:
            client.send(datagram(tunnels, kind, 1430, True))
            wait_until(lambda: mtu_of(daemon, tunnels, number) == 1400, 3, "the MTU to be lowered")
            assert "mtu 1400" in tunnels.forwarder.ip("route", "get", address)
            client.send(datagram(tunnels, kind, 1430, True))
            assert Ether(told.wait(is_icmp(3, 4)))[ICMP].nexthopmtu == 1400 - overhead
    finally:
        tunnels.far.limit_mtu(tunnels.BACK, "eth1", 1500)
        tunnels.forwarder.ip("route", "flush", "cache")
        daemon.ctl(f"server set {tunnels.CLUSTER}:{KINDS[kind][0]} {address} --encap-mtu 1500")
    assert mtu_of(daemon, tunnels, number) == 1500


def test_server_without_decapsulation_is_noticed(tunnels, daemon):
    tunnels.configure_far("gre", 90, "hash", [2])  # server2 has an ipip end only
    mark = daemon.mark()
    with tunnels.client.socket(socket.AF_INET, socket.SOCK_DGRAM) as client:
        client.sendto(b"is anybody there?", (tunnels.CLUSTER, 90))
    daemon.wait_log("server marked as unreachable", since=mark)
