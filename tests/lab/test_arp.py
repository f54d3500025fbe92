"""ARP and the neighbour table on a real wire: who is answered, who is asked, and when.

The client's own kernel stays out of it: requests are built by scapy and sent as they are.
"""

import time

import pytest
from packets import ARP, BROADCAST, ETH_IP, ZERO, Ether, answers_for, is_arp

from lab import LabError, mac_of


@pytest.fixture(name="served", scope="module")
def _served(net, daemon):
    assert daemon.alive()
    net.configure()
    return net


QUESTIONS = {
    "from the client": ("10.0.0.1", BROADCAST),
    "from a stranger on the wire": ("10.0.0.77", BROADCAST),
    "probe before the address is taken (RFC 5227)": ("0.0.0.0", BROADCAST),
    "to the forwarder's hardware address alone": ("10.0.0.1", "02:00:0a:00:00:02"),
}


@pytest.mark.parametrize("name", QUESTIONS)
def test_cluster_address_is_answered_with_the_forwarders_mac(served, name):
    source, to = QUESTIONS[name]
    mac = mac_of(served.CLIENT)
    with served.client.capture() as capture, served.client.injector() as out:
        out.send(Ether(dst=to, src=mac) / ARP(op=1, hwsrc=mac, psrc=source, hwdst=ZERO,
                                              pdst=served.CLUSTER))
        answer = Ether(capture.wait(is_arp(2, served.CLUSTER), what="an answer"))
        with pytest.raises(LabError):  # one answer, not one a worker
            capture.wait(is_arp(2, served.CLUSTER), timeout=0.3)
    assert (answer.src, answer.dst) == (served.forwarder.mac(), mac)
    arp = answer[ARP]
    assert (arp.hwsrc, arp.hwdst, arp.pdst) == (served.forwarder.mac(), mac, source)
    assert (arp.hwtype, arp.ptype, arp.hwlen, arp.plen) == (1, ETH_IP, 6, 4)


OWNERS = {
    "nobody's address": ("10.0.0.99", []),
    "the forwarder's own, by its kernel alone": ("10.0.0.2", ["02:00:0a:00:00:02"]),
    "a server's, by the server alone": ("10.0.0.11", ["02:00:0a:00:00:0b"]),
}


@pytest.mark.parametrize("name", OWNERS)
def test_other_addresses_are_left_to_their_owners(served, name):
    address, macs = OWNERS[name]
    assert answers_for(served, address) == macs


def test_silent_server_dies_and_comes_back(served, daemon):
    """Real time: verified by unicast ten seconds after the last answer, asked by broadcast every
    second three times, then dead; the first sign of life brings it back."""
    address, server = "10.0.0.11", served.servers[0]
    with served.forwarder.capture(outgoing=True) as capture:
        begin = time.monotonic()
        capture.wait(is_arp(2, address), timeout=13, what="an answer to a verification")
        answered = time.monotonic()
        assert answered - begin < 12
        served.net.set_port(server, up=False)
        queries = []
        while len(queries) < 4:
            frame = Ether(capture.wait(is_arp(1, target=address), timeout=13, what="a query"))
            queries.append((time.monotonic(), frame.dst))
    times, destinations = zip(*queries)
    assert destinations == (mac_of(address), BROADCAST, BROADCAST, BROADCAST)
    gaps = [b - a for a, b in zip((answered,) + times, times)]
    assert 9 < gaps[0] < 11.6 and all(0.4 < gap < 2.2 for gap in gaps[1:]), gaps
    daemon.wait_neighbour(address, "dead, servers down")
    served.net.set_port(server, up=True)
    server.ip("neigh", "flush", "all")
    with server.injector() as out:
        out.send(Ether(dst=BROADCAST, src=mac_of(address))
                 / ARP(op=1, hwsrc=mac_of(address), psrc=address, hwdst=ZERO, pdst="10.0.0.2"))
    daemon.wait_neighbour(address, "reachable")
