"""ICMP through the forwarder: errors about servers' answers reach the server they are about, and
pings are spread. The kernels' path-MTU discovery, traceroute and ping are the judges."""

import hashlib
import re

import pytest
from packets import is_icmp, is_icmpv6

from lab import Routed

make_net = Routed
IP_VERSIONS = (4, 6)
BODY = 300_000
PORTS = {"hash": 80, "connection": 81, "affinity": 82, "conn-affin": 83}
NARROW = 1300


@pytest.fixture(name="web", scope="module")
def _web(net, daemon):
    assert daemon.alive()
    for server in net.servers:
        server.start_web(list(PORTS.values()), BODY)
    for algorithm, port in PORTS.items():
        net.configure(port, algorithm, weights=[1, 1, 1])
    return net


@pytest.mark.parametrize("algorithm", PORTS)
def test_download_finds_a_narrow_path(web, algorithm):
    def forget():
        for server in web.servers:
            server.ip("-6" if web.ipv6 else "-4", "route", "flush", "cache")

    forget()
    web.router.limit_mtu(web.FRONT, "eth1", NARROW)
    try:
        done = web.client.run(["curl", "-sS", "--max-time", "10",
                               f"http://{web.host()}:{PORTS[algorithm]}/body"])
        learnt = [f"mtu {NARROW}" in server.ip("route", "get", web.CLIENT)
                  for server in web.servers]
    finally:
        web.router.limit_mtu(web.FRONT, "eth1", 1500)
        forget()
    assert hashlib.sha256(done.stdout.encode()).digest() == hashlib.sha256(b"x" * BODY).digest()
    assert learnt.count(True) == 1  # the one that serves the connection, and no other


def test_traceroute_sees_router_forwarder_and_cluster(web):
    shown = web.client.run(["traceroute", "-6" if web.ipv6 else "-4", "-T", "-p", "80", "-n", "-q",
                            "1", "-w", "2", "-m", "5", web.CLUSTER]).stdout
    hops = re.findall(r"^ *\d+  (\S+)", shown, re.MULTILINE)
    assert hops == [web.ROUTER, web.FORWARDER, web.CLUSTER], shown


def test_pings_go_round(web):
    is_echo = is_icmpv6(128) if web.ipv6 else is_icmp(8)
    captures = [server.capture() for server in web.servers]
    done = web.client.run(["ping", "-n", "-c", "12", "-i", "0.05", "-W", "2", web.CLUSTER])
    assert "12 received" in done.stdout
    got = [sum(is_echo(frame) for frame in capture.drain()) for capture in captures]
    assert got == [4, 4, 4]
