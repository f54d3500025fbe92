"""Clients stay where they belong: long sessions while servers are drained, come back and go, and
clients that return to their server. Real servers and clients on both ends.
"""

import collections
import contextlib
import threading
import time

import pytest

from lab import ipv6_of, wait_until
from lab.sessions import LongSessions

IP_VERSIONS = (4, 6)
ECHO = 7  # connection
WEB, SHOP, TILL = 80, 81, 82  # connection; two that are affinity's
COUNT = 200
CLIENTS = [f"10.0.0.{number}" for number in range(51, 59)]
STICKY_S = 10
PORTS = {ECHO: [], WEB: [],
         SHOP: ["--algorithm", "affinity", "--sticky-time", f"{STICKY_S}s"],
         TILL: ["--algorithm", "affinity", "--sticky-time", f"{STICKY_S}s", "--crossport", SHOP]}


class Farm:
    """The configured net, by the names of its servers."""

    def __init__(self, net, daemon):
        self.net, self.daemon = net, daemon
        self.address = {server.name: net.server_address(i) for i, server in enumerate(net.servers, start=1)}
        self.names = sorted(self.address)
        self.clients = [ipv6_of(client) for client in CLIENTS] if net.ipv6 else CLIENTS

    def port(self, port):
        """A port as vellbctl writes it."""
        return f"{self.net.host()}:{port}"

    def weigh(self, port, name, weight):
        """Sets a server's weight."""
        self.daemon.ctl("server", "set", self.port(port), self.address[name], "--weight", weight)

    def connections(self, port):
        """What vellbctl counts on each server of a port."""
        shown = self.daemon.ctl_json("server", "show", self.port(port))["servers"]
        counted = {s["server"]: s["connections"] for s in shown}
        return {name: counted[a] for name, a in self.address.items() if a in counted}

    def wait_open(self, port, wanted, timeout=10):
        """Waits until the open connections of a port's servers are the wanted ones."""

        def counted():
            return {n: c["establishing"] + c["active"] for n, c in self.connections(port).items()} == wanted

        wait_until(counted, timeout, f"{wanted} on port {port}", interval=0.1)

    def wait_empty(self, port, name):
        """Waits until a server of a port has no open connections."""

        def empty():
            found = self.connections(port)[name]
            return found["establishing"] + found["active"] == 0

        wait_until(empty, 10, f"{name} to be empty", interval=0.1)

    def fetch(self, port, count=1, source=None, wait_s=10):
        """Requests with a connection each: (exit status, answering servers)."""
        there = ["--interface", source] if source else []
        done = self.net.client.run(
            ["curl", "-sSf", "-H", "Connection: close", "--max-time", wait_s, *there,
             f"http://{self.port(port)}/[1-{count}]"], check=False, timeout=60)
        return done.returncode, done.stdout.split()


@pytest.fixture(name="farm", scope="module")
def _farm(net, daemon):
    net.start_web((WEB, SHOP, TILL))
    net.client.sysctl(net__ipv4__ip_local_port_range="10000 65000")
    made = Farm(net, daemon)
    for client in made.clients:
        net.client.ip("address", "add", f"{client}/{64 if net.ipv6 else 24}", "dev", "eth0")
    daemon.ctl("cluster", "add", net.CLUSTER)
    for port, options in PORTS.items():
        daemon.ctl("port", "add", made.port(port), *(options or ["--algorithm", "connection"]))
        for address in made.address.values():
            daemon.ctl("server", "add", made.port(port), address, "--weight", 1)
    for address in made.address.values():
        daemon.wait_neighbour(address)
    return made


@pytest.fixture(name="sessions", scope="module")
def _sessions(net, farm):
    assert farm
    return LongSessions(net, (ECHO,))


def servers_of(sessions):
    """How many sessions are open on each server."""
    return dict(collections.Counter(s.server for s in sessions if s.ended is None))


def progress(sessions, blocks=3, timeout=20):
    """Waits until every open session has carried some more; all sessions."""
    before = sessions.show()

    def moved():
        now = sessions.show()
        ok = all(n.ended or n.blocks >= b.blocks + blocks for b, n in zip(before, now))
        return now if ok else None

    return wait_until(moved, timeout, "every session to carry data", interval=0.1)


@contextlib.contextmanager
def requests_beside(farm, per_second=150):
    """Short connections, one after the other, until the block ends; the failed ones, of how many."""
    over = threading.Event()
    found = {"failed": [], "requests": 0}

    def ask():
        while not over.is_set():
            done = farm.net.client.run(
                ["curl", "-sS", "-H", "Connection: close", "--max-time", "10", "--rate", f"{per_second}/s",
                 "-o", "/dev/null", "-w", "%{http_code}\n", f"http://{farm.port(WEB)}/[1-{per_second}]"],
                check=False)
            codes = done.stdout.split()
            found["requests"] += len(codes)
            if done.returncode != 0 or codes != ["200"] * per_second:
                found["failed"].append((done.returncode, done.stderr, collections.Counter(codes)))

    asking = threading.Thread(target=ask)
    asking.start()
    try:
        yield found
    finally:
        over.set()
        asking.join()


def drain(farm, sessions, name):
    """One server's weight falls to 0 and returns as another, while sessions come and carry on."""
    for port in (ECHO, WEB):
        farm.weigh(port, name, 0)
    assert name not in servers_of(sessions.open(ECHO, 4))
    assert all(s.ended is None for s in progress(sessions))
    farm.wait_empty(WEB, name)
    farm.net.lab.nodes[name].clear_web_log()
    progress(sessions)
    assert farm.net.lab.nodes[name].web_log() == []


def test_sessions_outlive_drained_servers(farm, sessions):
    with requests_beside(farm) as beside:
        assert {s.ended for s in sessions.open(ECHO, COUNT)} == {None}
        for name, weight in zip(farm.names, (3, 2, 5)):
            drain(farm, sessions, name)
            for port in (ECHO, WEB):
                farm.weigh(port, name, weight)
        for name in farm.names[1:]:
            farm.weigh(ECHO, name, 0)
        last = sessions.open(ECHO, 8)
        for name in farm.names[1:]:
            farm.weigh(ECHO, name, 1)
        now = progress(sessions)
    assert servers_of(last) == {farm.names[0]: 8}
    assert [s.ended for s in now] == [None] * (COUNT + 3 * 4 + 8)
    assert min(servers_of(now[:COUNT]).values()) >= COUNT // 3  # by turns
    farm.wait_open(ECHO, servers_of(now))
    assert beside["failed"] == []
    assert beside["requests"] > 150


def test_removed_server_takes_its_sessions_and_no_others(farm, sessions):
    gone, empty = farm.names[1], farm.names[2]
    before = progress(sessions)
    with requests_beside(farm) as beside:
        farm.weigh(WEB, empty, 0)
        farm.wait_empty(WEB, empty)
        farm.daemon.ctl("server", "rm", farm.port(WEB), farm.address[empty])
        farm.daemon.ctl("server", "rm", farm.port(ECHO), farm.address[gone])
        # Coming back does not bring the sessions back: the forwarder no longer knows them.
        farm.daemon.ctl("server", "add", farm.port(ECHO), farm.address[gone], "--weight", 1)
        lost = [place for place, s in enumerate(before) if s.server == gone]
        wait_until(lambda: all(sessions.show()[place].ended for place in lost), 25,
                   f"the {len(lost)} sessions on {gone} to end", interval=0.25)
        after = progress(sessions)
    assert [place for place, s in enumerate(after) if s.ended] == lost
    assert all("differs" not in after[place].ended for place in lost)
    farm.wait_open(ECHO, servers_of(after) | {gone: 0})
    assert beside["failed"] == []
    assert beside["requests"] > 150


def test_client_returns_to_its_server_on_both_ports_for_the_sticky_time(farm):
    homes = {}
    for number, client in enumerate(farm.clients):  # every other one begins at the second port
        for port in (SHOP, TILL)[::1 if number % 2 else -1]:
            status, servers = farm.fetch(port, 4, client)
            assert status == 0
            homes.setdefault(client, set()).update(servers)
    assert {len(servers) for servers in homes.values()} == {1}
    assert {name for servers in homes.values() for name in servers} == set(farm.names)

    left = homes[farm.clients[0]].pop()
    for port in (SHOP, TILL):
        farm.weigh(port, left, 0)
    moved = farm.fetch(SHOP, 4, farm.clients[0])[1]
    assert len(set(moved)) == 1 and left not in moved
    for port in (SHOP, TILL):
        farm.weigh(port, left, 1)
    assert farm.fetch(TILL, 4, farm.clients[0]) == (0, moved)  # its old server is back, it stays all the same

    began = time.monotonic()
    status, servers = farm.fetch(SHOP, 1, farm.clients[1])
    assert (status, set(servers)) == (0, homes[farm.clients[1]])
    said = time.monotonic()
    wait_until(lambda: not any(c["active"] for port in (SHOP, TILL) for c in farm.connections(port).values()),
               STICKY_S + 10, "the clients to be forgotten", interval=0.1)
    assert STICKY_S - 1 < time.monotonic() - began and time.monotonic() - said < STICKY_S + 3
