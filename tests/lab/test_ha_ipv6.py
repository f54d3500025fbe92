"""A pair that guards an IPv6 address. Its heartbeats are IPv4: records travel to no other partner."""

import pytest

from lab import Lab, Pair
from lab.failover import ECHO, PORTS, Clients, kill, tell

NAT_ECHO = 9


@pytest.fixture(name="pair", scope="module")
def _pair():
    with Lab() as lab:
        net = Pair(lab, PORTS | {NAT_ECHO: "connection"}, nat_ports=(NAT_ECHO,), ipv6=True)
        net.start_pair()
        yield net
        for daemon in net.daemons:
            daemon.stop()


def test_sessions_and_a_download_outlive_the_active_node(pair):
    clients = Clients(pair, {ECHO: 50, NAT_ECHO: 10})
    felt = clients.outage(lambda: kill(pair, 0))
    assert (felt.lost, felt.download_s is not None) == (0, True), felt
    assert felt.silence_s <= 4, felt
    pair.start_node(0)
    pair.wait_states("standby", "active")
    felt = clients.outage(lambda: tell(pair, 0))
    assert (felt.lost, felt.download_s is not None) == (0, True), felt
    assert felt.silence_s < 1.5, felt
    assert sum(clients.sessions.visit(ECHO, 30).values()) == 30
