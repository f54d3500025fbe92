"""Servers behind a router, reached by NAT. nginx's log says what the servers saw; the kernels at
both ends have verified the checksums of what they took."""

import pytest
from packets import IP, TCP, Ether, IPv6
from streams import Connector, transfer

from lab import Far

make_net = Far
IP_VERSIONS = (4, 6)
FIRST_PORT = 1025
SESSIONS = 7
LATE = "CR not found in NAT return path Port: {}"


@pytest.fixture(name="web", scope="module")
def _web(net, daemon):
    assert daemon.alive()
    net.servers = net.servers[:2]
    net.start_web()
    net.configure_far("nat")
    net.configure_far("nat", SESSIONS)
    return net


@pytest.fixture(name="session", scope="module")
def _session(web):
    return Connector(web, SESSIONS, web.servers)


def test_requests_take_ports_in_turn_and_keep_their_ttl(web):
    with web.forwarder.capture(outgoing=True) as seen:
        done = web.client.run(["curl", "-sS", "-H", "Connection: close", "--max-time", "5",
                               f"http://{web.host()}/[1-20]"])
        found = [frame for frame in map(Ether, seen.drain(quiet=0.2)) if TCP in frame]
    assert sorted(done.stdout.split()) == ["server1"] * 10 + ["server2"] * 10
    logs = [(number, line) for number, server in enumerate(web.servers, start=1)
            for line in server.web_log()]
    assert {line[0] for _, line in logs} == {web.RETURN}
    assert all(line[2] == web.server_address(number) for number, line in logs)
    assert sorted(line[1] for _, line in logs) == list(range(FIRST_PORT, FIRST_PORT + 20))

    packets = [(f[IPv6], f[IPv6].hlim) if IPv6 in f else (f[IP], f[IP].ttl) for f in found]

    def ttls(**wanted):
        return {ttl for ip, ttl in packets if all(getattr(ip, k) == v for k, v in wanted.items())}

    assert ttls(dst=web.CLUSTER) == ttls(src=web.RETURN) == {63}  # the client's, less one router
    assert ttls(dst=web.RETURN) == ttls(src=web.CLUSTER) == {63}


def test_both_directions_carry_full_frames(session):
    client, served, _ = session()
    for sender, receiver in ((client, served), (served, client)):
        transfer(sender, receiver, bytes(range(256)) * 2000)


def test_reset_gives_the_port_back(web, daemon, session):
    client, served, _ = session()
    address, natport = served.getsockname()[0], served.getpeername()[1]
    daemon.ctl(f"port set {web.host()}:{SESSIONS} --reset on")
    daemon.ctl(f"server set {web.host()}:{SESSIONS} {address} --weight 0")
    client.send(b"drained")
    with pytest.raises(ConnectionResetError):
        client.recv(1)
    mark = daemon.mark()
    served.send(b"late")  # its own connection has not heard of the end
    daemon.wait_log(LATE.format(natport), since=mark)
    daemon.ctl(f"server set {web.host()}:{SESSIONS} {address} --weight 10")


def test_removed_server_leaves_the_other_its_return_address(web, daemon, session):
    for number in (1, 2):  # in turn
        daemon.ctl(f"server set {web.host()}:{SESSIONS} {web.server_address(number)} --weight 1")
    sessions = [session()[:2] for _ in range(4)]
    gone = web.server_address(1)
    daemon.ctl(f"server rm {web.host()}:{SESSIONS} {gone}")
    mark = daemon.mark()
    for client, served in sessions:
        served.send(b"from the server")
        if served.getsockname()[0] == gone:
            daemon.wait_log(LATE.format(served.getpeername()[1]), since=mark)
        else:
            assert client.recv(100) == b"from the server"
            client.send(b"from the client")
            assert served.recv(100) == b"from the client"
    assert {served.getsockname()[0] for _, served in sessions} == {gone, web.server_address(2)}
