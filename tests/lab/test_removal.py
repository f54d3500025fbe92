"""Objects are removed and added again while four workers forward: services that are not touched lose
no frame, and the memory of what was removed comes back.

Also run under AddressSanitizer by script/check; there the frames come more slowly.
"""

import re
import struct
import time

import pytest
from packets import IP, UDP, Ether

from lab import Basic, Node, Segment, command, mac_of, sanitized, wait_until

MASK = 0xA00  # failures, and what is reaped
# One arena without caches, never trimmed: its size stays where the same work has brought it before,
# unless something leaks.
ENVIRONMENT = {"GLIBC_TUNABLES": "glibc.malloc.arena_max=1:glibc.malloc.tcache_count=0:"
                                 "glibc.malloc.mxfast=0:glibc.malloc.trim_threshold=1000000000"}
CALM = "10.0.0.100"
RESTLESS = "10.0.0.101"
FAR = "10.9.0.11"  # a server on the interface that is removed
PAUSE_S = 0.1  # between rounds of some 20 removals; the reaper frees 128 objects each half second
HEADER = 14 + 20 + 8


def make_net(lab):
    """The ordinary net, and a second wire behind the forwarder's eth1."""
    net = Basic(lab)
    back = Segment(lab, "back")
    net.forwarder.attach(back, "10.9.0.2/24")
    far = Node(lab, "far")
    far.attach(back, f"{FAR}/24")
    return net


COUNT, PER_SECOND = (30_000, 3_000) if sanitized() else (100_000, 10_000)


def frames_for(net, cluster, port, count):
    """Datagrams to a service; the payload is the frame's number."""
    made = []
    for source_port in (3000, 3001, 3002):
        template = bytes(Ether(src=mac_of(net.CLIENT), dst=net.forwarder.mac())
                         / IP(src=net.CLIENT, dst=cluster)
                         / UDP(sport=source_port, dport=port, chksum=0) / bytes(4))
        made.append(template[:HEADER])
    return [made[number % 3] + struct.pack("!I", number) for number in range(count)]


class Restless:
    """The objects that come and go, handled by hand: it has to be quick."""

    def __init__(self, daemon):
        self.daemon = daemon
        self.removed = 0  # objects that wait to be reaped
        eth1 = daemon.command(command.GET, command.iface_key("eth1"), command.IFACE)
        self.eth1 = eth1["set"]
        server = bytearray(704)
        server[24:26] = struct.pack("=H", 1)
        self.server = bytes(server)
        self.objects = [(command.config_key(RESTLESS), bytes(8), bytes(280))]
        for port in (80, 81):
            self.objects.append((command.config_key(RESTLESS, port), bytes(8), bytes(24)))
            for address in ("10.0.0.11", "10.0.0.12", FAR):
                self.objects.append((command.config_key(RESTLESS, port, 0, address), bytes(56), self.server))

    def _do(self, action, key, keytype=command.CONFIG, **blocks):
        answer = self.daemon.command(action, key, keytype, **blocks)
        assert answer["rc"] == 1, answer
        self.removed += action == command.RM and keytype == command.CONFIG

    def add(self, objects):
        """Adds objects, parents first."""
        for key, add, settings in objects:
            self._do(command.ADD, key, add=add, settings=settings)

    def remove(self, objects):
        """Removes objects, children first."""
        for key, _, _ in reversed(objects):
            self._do(command.RM, key)

    def round(self):
        """Server, port, interface and cluster go and come back, in traffic."""
        for some in (self.objects[4:5], self.objects[5:]):
            self.remove(some)
            self.add(some)
        address = command.iface_key("eth1", "10.9.0.2", 24)
        self._do(command.RM, address, command.IFACE)
        self._do(command.RM, command.iface_key("eth1"), command.IFACE)
        self.remove(self.objects)
        self._do(command.ADD, command.iface_key("eth1"), command.IFACE, settings=self.eth1)
        self._do(command.ADD, address, command.IFACE, settings=bytes(24))
        self.add(self.objects)

    def wait_reaped(self, timeout):
        """Waits until all that was removed has been freed; the log tells each."""

        def reaped():
            lines = self.daemon.lines
            return sum(bool(re.search(r"node \S+ reaped$", line.text)) for line in lines) == self.removed

        wait_until(reaped, timeout, f"{self.removed} objects to be freed", interval=0.1)


@pytest.fixture(name="restless", scope="module")
def _restless(net, daemon):
    net.configure(port=9000, weights=(1, 1, 1))
    daemon.ctl("port", "add", f"{CALM}:9001", "--udp-algorithm", "hash")
    for number in (1, 2, 3):
        daemon.ctl("server", "add", f"{CALM}:9001", net.server_address(number), "--weight", 1)
    made = Restless(daemon)
    made.add(made.objects)
    return made


def collect(captures, seen):
    """Notes the numbers of the untouched service's frames."""
    for capture in captures:
        for frame in capture.drain():
            if frame[36:38] == b"\x23\x29" and frame[30:34] == b"\x0a\x00\x00\x64":
                seen.append(struct.unpack_from("!I", frame, HEADER)[0])


def under_load(net, restless, count, captures):
    """Sends `count` frames to the untouched service, and others to what comes and goes meanwhile.
    The numbers of the untouched service's frames that arrived."""
    senders = [net.client.sender(frames_for(net, CALM, 9001, count), PER_SECOND)]
    for port in (80, 81):
        senders.append(net.client.sender(frames_for(net, RESTLESS, port, count // 8), PER_SECOND // 8))
    seen = []
    while senders[0].poll() is None:
        restless.round()
        collect(captures, seen)
        time.sleep(PAUSE_S)
    for sender in senders:
        assert sender.wait(60) == 0, sender.stdout.read()
    end = time.monotonic() + 5
    while len(seen) < count and time.monotonic() < end:
        time.sleep(0.01)
        collect(captures, seen)
    return seen


def test_removal_under_load_loses_nothing_of_others_and_frees_all(net, daemon, restless):
    captures = [server.capture(buffer=256 << 20) for server in net.servers]
    under_load(net, restless, COUNT // 3, captures)  # what this takes stays with the allocator
    restless.wait_reaped(20)
    before_kb = daemon.rss_kb()

    removed = restless.removed
    seen = under_load(net, restless, COUNT, captures)
    last_removal = time.monotonic()
    assert restless.removed - removed > 500
    assert sum(capture.lost() for capture in captures) == 0  # the test's own eyes missed nothing
    assert sorted(seen) == list(range(COUNT))

    restless.wait_reaped(20)
    assert time.monotonic() - last_removal > 2  # never at once: a worker may still hold them
    if not sanitized():  # A sanitizer keeps what is freed, and finds leaks itself.
        assert daemon.rss_kb() < before_kb + 1024


def test_it_forwards_to_what_came_back(net, daemon, restless):
    """After all that, the removed and added server behind the removed and added interface serves."""
    daemon.wait_neighbour(FAR, timeout=10)
    restless.remove([o for o in restless.objects if o[0][32 + 8:32 + 12] == b"\x0a\x00\x00\x0b"])
    far = net.lab.nodes["far"]
    with far.capture() as capture, net.client.injector() as out:
        for frame in frames_for(net, RESTLESS, 80, 3):
            out.send(frame)
        got = Ether(capture.wait(lambda f: f[30:34] == b"\x0a\x00\x00\x65", what="a frame at the far server"))
    assert (got.src, got.dst) == (net.forwarder.mac("eth1"), mac_of(FAR))
