"""A server on the forwarder's own host: its packets come through the tun device, and only once."""

import socket

import pytest
from packets import ETH_IP, ETH_IPV6, ethertype

from lab import Routed

make_net = Routed
IP_VERSIONS = (4, 6)


@pytest.fixture(name="web", scope="module")
def _web(net, daemon):
    net.forwarder.start_web()
    net.servers[0].start_web()
    net.configure(algorithm="connection", servers=[1])
    daemon.ctl("server", "add", f"{net.host()}:80", net.FORWARDER, "--collocated")
    net.forwarder.host_collocated(net.CLUSTER)
    daemon.wait_neighbour(net.FORWARDER)
    return net


def test_requests_come_through_the_tun_device_only(web):
    with web.forwarder.capture(outgoing=True) as wire, web.forwarder.capture("veldra") as tun:
        done = web.client.run(["curl", "-sS", "-H", "Connection: close", "--max-time", "5",
                               f"http://{web.host()}/[1-20]"])
        frames, packets = wire.drain(quiet=0.2), tun.drain()  # the client is done before the forwarder is
    assert sorted(done.stdout.split()) == ["fwd"] * 10 + ["server1"] * 10
    log = web.forwarder.web_log()
    assert [(line[0], line[2]) for line in log] == [(web.CLIENT, web.CLUSTER)] * 10

    kind = ETH_IPV6 if web.ipv6 else ETH_IP

    def to_cluster(packet):
        return (packet[24:40] if web.ipv6 else packet[16:20]) == socket.inet_pton(web.family, web.CLUSTER)

    came = [f for f in frames if ethertype(f) == kind and to_cluster(f[14:])
            and f[:6].hex(":") == web.forwarder.mac()]
    gone = [f for f in frames if ethertype(f) == kind and to_cluster(f[14:])
            and f[6:12].hex(":") == web.forwarder.mac()]
    assert {f[:6].hex(":") for f in gone} == {web.servers[0].mac()}
    assert packets and all(map(to_cluster, packets))
    assert len(came) == len(gone) + len(packets)
