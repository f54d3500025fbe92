"""HTTP through the forwarder. nginx answers directly; curl and nginx's own log say what
happened and where each request went."""

import collections
import hashlib

import pytest
from streams import Connector, transfer

from lab import Routed

IP_VERSIONS = (4, 6)
make_net = Routed  # the client sits behind a router, which is the client gateway
REQUESTS = 10_000
WEIGHTS = (1, 3, 1)
UPLOAD = 7000


@pytest.fixture(name="web", scope="module")
def _web(net, daemon):
    assert daemon.alive()
    net.start_web()
    net.configure(weights=WEIGHTS)
    return net


def server_of(port):
    """Which server a client port stands for: the port modulo the sum of the weights."""
    rest = port % sum(WEIGHTS)
    for number, weight in enumerate(WEIGHTS, start=1):
        if rest < weight:
            return number
        rest -= weight
    raise AssertionError


def test_every_request_is_answered_by_the_server_of_its_port(web):
    done = web.client.run(
        ["curl", "-sS", "--parallel", "--parallel-max", "16", "-H", "Connection: close",
         "--connect-timeout", "5", "--max-time", "10", "-o", "/dev/null",
         "-w", "%{http_code} %{local_port}\n", f"http://{web.host()}/[1-{REQUESTS}]"],
        check=False, timeout=120)
    assert done.returncode == 0, done.stderr[-500:]
    answers = [line.split() for line in done.stdout.splitlines()]
    assert len(answers) == REQUESTS
    assert {code for code, _ in answers} == {"200"}

    seen = collections.Counter()
    for number, server in enumerate(web.servers, start=1):
        log = server.web_log()
        assert {line[0] for line in log} == {web.CLIENT}
        assert {line[2:] for line in log} == {(web.CLUSTER, 80, 200)}
        assert {server_of(line[1]) for line in log} == {number}
        seen.update(line[1] for line in log)
        server.clear_web_log()
    assert seen == collections.Counter(int(port) for _, port in answers)


def test_upload_in_full_frames_arrives_whole(web, daemon):
    daemon.ctl("port", "add", f"{web.host()}:{UPLOAD}")
    daemon.ctl("server", "add", f"{web.host()}:{UPLOAD}", web.server_address(2))
    data = hashlib.shake_128(b"upload").digest(2_000_000)
    client, accepted, _ = Connector(web, UPLOAD, [web.servers[1]])()
    assert accepted.getpeername()[0] == web.CLIENT
    transfer(client, accepted, data)
