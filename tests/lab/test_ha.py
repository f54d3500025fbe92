"""A pair of forwarders: heartbeats on the wire, and clients that outlive the active node. The
kernel, curl and ping at the clients' end; heartbeats judged by tshark."""

import statistics
import time

import pytest
from packets import ETH_IP, UDP, Ether, IP, answers_for, dissected, ethertype, is_arp

from lab import LabError, Pair, mac_of, wait_until
from lab.failover import ECHO, PORTS, WEB, Clients, kill, tell

SESSIONS, NAT_SESSIONS = 200, 20
NAT_ECHO, SHOP = 9, 81  # connection, by NAT; affinity
VISITORS = [f"10.0.0.{number}" for number in range(51, 57)]
VERSION = bytes.fromhex("0805050b")
STANDBY = 2


def make_net(lab):
    return Pair(lab, PORTS | {NAT_ECHO: "connection", SHOP: "affinity"}, nat_ports=(NAT_ECHO,))


@pytest.fixture(name="started", scope="module")
def _started(net):
    net.start_pair()
    yield net
    for daemon in net.daemons:
        if daemon.alive():
            daemon.stop()


@pytest.fixture(name="pair")
def _pair(started):
    """The primary active, the backup standing by, whatever the test before left."""
    for which in (0, 1):
        if not started.daemons[which].alive():
            started.start_node(which)
    wait_until(lambda: "active" in (started.state(0), started.state(1)), 10, "an active node")
    if started.state(0) != "active":
        tell(started, 0)
    started.wait_states("active", "standby")
    return started


@pytest.fixture(name="clients", scope="module")
def _clients(started):
    for address in VISITORS:
        started.client.ip("address", "add", f"{address}/24", "dev", "eth0")
    return Clients(started, {ECHO: SESSIONS, NAT_ECHO: NAT_SESSIONS, SHOP: 0})


def homes(clients):
    """The server to which each visitor is sent."""
    return [server for visitor in VISITORS for server in clients.sessions.visit(SHOP, 1, visitor)]


def wait_known(pair, which):
    """Waits until a node knows the visitors."""

    def known():
        shown = pair.daemons[which].ctl_json("server", "show", f"{pair.CLUSTER}:{SHOP}")
        servers = shown["servers"]
        return sum(s["connections"]["active"] for s in servers) == len(VISITORS)

    wait_until(known, 5, "the visitors to be known")


def is_beat(source):
    """A match for heartbeats (bytes of a frame) from an address."""
    wanted = bytes(map(int, source.split(".")))

    def match(frame):
        return (ethertype(frame) == ETH_IP and frame[23] == 17 and frame[26:30] == wanted
                and int.from_bytes(frame[34:36], "big") == Pair.BEAT_PORT)

    return match


def test_heartbeats_on_the_wire(pair, tmp_path):
    backup = pair.BEATS[1]
    assert pair.daemons[1].stop() == 0
    frames, times = [], []
    with pair.forwarders[0].capture("eth1") as capture:
        pair.start_node(1)
        while len(frames) < 14:
            frames.append(capture.wait(is_beat(backup), timeout=5, what="a heartbeat"))
            times.append(time.monotonic())
    fields = ["ip.id", "ip.checksum.status", "udp.checksum.status", "ip.len", "ip.ttl", "ip.dst",
              "ip.flags", "udp.srcport", "udp.dstport", "udp.length"]
    port = str(pair.BEAT_PORT)
    for number, found in enumerate(dissected(tmp_path / "beats.pcap", frames, *fields), start=1):
        assert int(found[0][0], 16) == number
        assert [words[0] for words in found[1:]] == ["1", "1", "68", "1", pair.BEATS[0], "0x00",
                                                     port, port, "48"]
    for frame in frames:
        assert Ether(frame).dst == pair.forwarders[0].mac("eth1")
        assert (frame[42:46], frame[46], frame[49]) == (VERSION, STANDBY, 0)
    gaps = [b - a for a, b in zip(times[2:], times[3:])]
    assert 0.4 < statistics.mean(gaps) < 0.6 and max(gaps) < 1, gaps


def test_standby_answers_no_arp_and_forwards_what_reaches_it(pair):
    active, standby = (node.mac() for node in pair.forwarders)
    assert answers_for(pair, pair.CLUSTER) == [active]
    datagram = (Ether(dst=standby, src=mac_of(pair.CLIENT)) / IP(src=pair.CLIENT, dst=pair.CLUSTER)
                / UDP(sport=5000, dport=WEB) / b"x")
    with pair.servers[0].capture() as capture, pair.client.injector() as out:
        out.send(*[datagram] * 100)  # enough for every server
        frame = capture.wait(lambda f: ethertype(f) == ETH_IP and f[23] == 17, what="a datagram")
    assert Ether(frame).src == standby


def test_sessions_and_a_download_outlive_the_active_node_twice(pair, clients):
    at_home = homes(clients)
    assert len(set(at_home)) == len(pair.servers)
    wait_known(pair, 1)
    for takeover in ("manual", "automatic"):
        with pair.client.capture() as capture:
            felt = clients.outage(lambda: kill(pair, 0))
            capture.wait(is_arp(sender=pair.CLUSTER, source_mac=pair.forwarders[1].mac()),
                         what="the announcement of the new active node")
        assert (felt.lost, felt.download_s is not None) == (0, True), felt
        assert felt.silence_s <= 4, felt
        assert answers_for(pair, pair.CLUSTER) == [pair.forwarders[1].mac()]
        assert sum(clients.sessions.visit(ECHO, 30).values()) == 30
        assert homes(clients) == at_home

        # What follows when the node comes back is the strategy's matter.
        clients.sessions.pauses()
        pair.start_node(0, takeover)
        if takeover == "automatic":
            pair.wait_states("active", "standby")
            assert clients.progress() == []
            continue
        pair.wait_states("standby", "active")
        assert max(clients.sessions.pauses()) < 1  # nothing was sent to it meanwhile
        with pytest.raises(LabError):  # twice the time-out, and it still waits to be told
            wait_until(lambda: (pair.state(0), pair.state(1)) != ("standby", "active"), 5,
                       "a change")
        felt = clients.outage(lambda: tell(pair, 0))
        assert (felt.lost, felt.download_s is not None) == (0, True), felt
        assert felt.silence_s < 1.5, felt
        wait_known(pair, 0)
        assert homes(clients) == at_home


def test_both_are_active_while_the_link_is_cut_and_one_afterwards(pair, clients):
    def cut_and_heal():
        pair.beat.set_port(pair.forwarders[1], up=False)
        pair.wait_states("active", "active")
        assert clients.progress() == []
        assert sum(clients.sessions.visit(ECHO, 30).values()) == 30
        pair.beat.set_port(pair.forwarders[1], up=True)
        wait_until(lambda: {pair.state(0), pair.state(1)} == {"active", "standby"}, 10,
                   "one to yield")
        assert sum(clients.sessions.visit(ECHO, 30).values()) == 30

    felt = clients.outage(cut_and_heal)
    assert (felt.lost, felt.download_s is not None) == (0, True), felt
    assert felt.silence_s < 1.5, felt
    assert clients.progress() == []
