"""The control server: one file, and the forwarder is what it says, whatever restarts or dies."""

import contextlib
import itertools
import json
import os
import random
import re
import signal
import socket
import threading
import time

import pytest

from lab import Basic, Control, Daemon, build_dir, command, sanitized, wait_until
from lab.core import REPO

MASK = 0x40200  # failures, and a line for each command
SLOW = 5 if sanitized() else 1
KILLS = int(os.environ.get("VELL_KILLS", "10"))
SEED = int(os.environ.get("VELL_SEED", random.randrange(1 << 32)))

MARKS = itertools.count(1)
SERVERS = [Basic.SERVERS.format(number) for number in (1, 2, 3)]
EXECUTOR = {"client-gateway": Basic.GATEWAY}
WEB = {"port": 80, "servers": SERVERS}
STREAM = {"port": 9, "algorithm": "connection", "udp-algorithm": "connection",
          "servers": SERVERS[:1]}


def text(ports=(WEB,), clusters=(), **more):
    """A configuration; JSON is YAML."""
    served = {"address": Basic.CLUSTER, "ports": list(ports)}
    return json.dumps({"executor": EXECUTOR, "interfaces": ["eth0"],
                       "clusters": [served, *clusters], **more}, indent=1)


@pytest.fixture(name="web", scope="module")
def _web(net):
    net.start_web()
    return net


@pytest.fixture(name="daemon")
def _daemon(web):
    """A forwarder that knows nothing yet."""
    daemon = web.start_daemon(mask=MASK, sync=False)
    yield daemon
    if sanitized():  # Objects that are there at the end would look like leaks.
        daemon.clear()
    assert daemon.stop() == 0


@pytest.fixture(name="control")
def _control(web):
    """A control server that is not started yet; at the end it stops in order."""
    control = Control(web.forwarder, text())
    yield control
    if control.alive():
        assert control.stop() == 0


def fetch(net, count=20):
    """That many requests, each on a connection of its own; how many were answered."""
    done = net.client.run(["curl", "-sS", "--parallel", "-H", "Connection: close",
                           "--connect-timeout", "3", "-o", "/dev/null", "-w", "%{http_code}\n",
                           f"http://{net.CLUSTER}/[1-{count}]"], check=False)
    return done.stdout.split().count("200")


def settle(daemon, count=3):
    """Waits until the servers' hardware addresses are known."""
    for address in SERVERS[:count]:
        daemon.wait_neighbour(address)


def settled_mark(daemon):
    """A place in the log behind every command that the daemon was given until now."""
    name = f"mark{next(MARKS)}"
    daemon.command(command.GET, command.iface_key(name), command.IFACE)
    daemon.wait_log(rf"--> cmdbuf: key: {name}/")
    return daemon.mark()


def changes(daemon, since):
    """How many commands other than GET the daemon was given since a mark."""
    settled_mark(daemon)
    return len(re.findall(r"lbcmd \[\d+\]--> .*\((?:ADD|RM|SET)\)", daemon.log_text(since)))


# --- From a file to served HTTP -------------------------------------------------------------------

class Notified:
    """What a service manager hears."""

    def __init__(self, node):
        self.path = node.root / "notify"
        with contextlib.suppress(FileNotFoundError):
            self.path.unlink()
        self.socket = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self.socket.bind(str(self.path))
        self.socket.settimeout(10)
        self.environment = {"NOTIFY_SOCKET": "/notify", "WATCHDOG_USEC": "600000"}

    def wait(self, word):
        while True:
            said = self.socket.recv(4096).decode()
            if word in said:
                return said


def test_one_file_and_the_forwarder_serves(web):
    heard = Notified(web.forwarder)
    control = Control(web.forwarder, text(), env=heard.environment).launch()
    heard.wait("READY=1")  # there is no forwarder yet: that is no reason not to be ready
    control.wait_log(r"error: /vellb2 does not exist")
    daemon = web.start_daemon(mask=MASK, sync=False)
    control.wait_log(r"commands carried out")
    settle(daemon)
    assert fetch(web) == 20
    heard.wait("STATUS=the forwarder is as the file says")
    heard.wait("WATCHDOG=1")
    mark = control.mark()
    control.process.send_signal(signal.SIGHUP)
    heard.wait("RELOADING=1")
    heard.wait("READY=1")
    control.wait_log("SIGHUP: nothing to do", since=mark)
    assert control.stop() == 0
    heard.wait("STOPPING=1")
    assert fetch(web) == 20
    assert daemon.stop() == 0


# --- While it runs --------------------------------------------------------------------------------

class Load:
    """Requests and a stream of numbered datagrams, without a pause."""

    def __init__(self, net):
        self.net = net
        self.failed = []
        self.requests = 0
        self.sent = 0
        self.got = []
        self._over = threading.Event()
        self._sink = net.servers[0].socket(socket.AF_INET, socket.SOCK_DGRAM)
        self._sink.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 1 << 22)
        self._sink.bind((net.CLUSTER, STREAM["port"]))
        self._sink.settimeout(2)
        self._source = net.client.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self._threads = [threading.Thread(target=each)
                         for each in (self._ask, self._send, self._take)]

    def _ask(self):
        while not self._over.is_set():
            answered = fetch(self.net, 50)
            self.requests += 50
            if answered != 50:
                self.failed.append(50 - answered)

    def _send(self):
        while not self._over.wait(0.002):
            self._source.sendto(self.sent.to_bytes(4, "big"), (self.net.CLUSTER, STREAM["port"]))
            self.sent += 1

    def _take(self):
        while len(self.got) < self.sent or not self._over.is_set():
            try:
                self.got.append(int.from_bytes(self._sink.recv(16), "big"))
            except TimeoutError:
                if self._over.is_set():
                    return

    def __enter__(self):
        for each in self._threads:
            each.start()
        wait_until(lambda: self.requests and self.got, 10, "the load to flow")
        return self

    def __exit__(self, *_):
        self._over.set()
        for each in self._threads:
            each.join()
        self._sink.close()
        self._source.close()


def neighbours(round_number):
    """Objects beside those under load: others in each round."""
    weight = round_number % 7 + 1
    ports = [{"port": 1000 + n, "algorithm": "connection",
              "servers": [{"address": s, "weight": weight} for s in SERVERS]}
             for n in range(round_number % 4)]
    if round_number % 2:
        ports.append({"port": 2000, "servers": SERVERS[:1],
                      "rules": [{"number": 5, "use-servers": SERVERS[:1]}]})
    return ports, [{"address": f"10.0.0.{200 + n}", "ports": ports[:2]}
                   for n in range(round_number % 3)]


def test_reload_under_load_costs_untouched_services_nothing(web, daemon, control):
    control.write(text([WEB, STREAM]))
    control.start()
    settle(daemon)
    with Load(web) as load:
        for number in range(1, 15):
            ports, clusters = neighbours(number)
            control.change(text([WEB, STREAM, *ports], clusters))
        assert control.differences() == []
    assert load.requests > 50 and load.failed == []
    assert sorted(load.got) == list(range(load.sent))  # workers may overtake each other


def test_manual_takeover_is_relayed_and_not_undone(web, daemon, control):
    control.start()
    control.process.send_signal(signal.SIGUSR1)
    control.wait_log("SIGUSR1: no takeover: this node has no partner")
    pair = {"role": "backup", "takeover": "manual", "timeout": "30s", "port": 12345,
            "heartbeats": [{"local": web.FORWARDER, "partner": web.server_address(3)}]}
    control.change(text(ha=pair))

    def state():
        return daemon.command(command.GET, command.config_key())["get"][160]

    assert state() == 2
    control.process.send_signal(signal.SIGUSR1)
    control.wait_log("SIGUSR1: took over")
    assert state() == 1
    mark, said = settled_mark(daemon), control.mark()
    control.process.send_signal(signal.SIGHUP)
    control.wait_log("SIGHUP: nothing to do", since=said)
    control.change(text(clusters=[{"address": "10.0.0.201"}], ha=pair))
    assert state() == 1 and changes(daemon, mark) == 1


def test_interfaces_are_kept_in_step(web, daemon, control):
    control.start()

    def told():
        found = daemon.ctl_json("interface show")["interfaces"]
        return {one["interface"]: (one["mtu"], {f"{a['address']}/{a['prefix']}"
                                                for a in one["addresses"]}) for one in found}

    try:
        web.forwarder.ip("link", "add", "other", "type", "veth")  # none of those that are named
        web.forwarder.ip("link", "set", "eth0", "mtu", "1400")
        web.forwarder.ip("address", "add", "10.7.0.1/24", "dev", "eth0")
        wait_until(lambda: told() == {"eth0": (1400, {"10.0.0.2/24", "10.7.0.1/24"})}, 5,
                   "the forwarder to know")
        bridge = "link add br0 type bridge; link set eth0 master br0; link set br0 up"
        for words in bridge.split("; "):
            web.forwarder.ip(*words.split())
        control.wait_log("eth0 is a member of the bridge br0: frames on it are seen twice")
    finally:
        for words in ("link del br0", "link del other", "link set eth0 mtu 1500",
                      "address del 10.7.0.1/24 dev eth0"):
            with contextlib.suppress(Exception):
                web.forwarder.ip(*words.split())
    wait_until(lambda: told() == {"eth0": (1500, {"10.0.0.2/24"})}, 5, "the forwarder to know")


def test_wrong_file_changes_nothing_and_says_where(web, daemon, control):
    control.start()
    settle(daemon)
    mark = settled_mark(daemon)
    control.write(text().replace("servers", "severs"))
    control.wait_log(r"cpserver\.yaml:\d+:\d+: .*severs")
    control.wait_log("nothing was changed: what was read before holds")
    assert changes(daemon, mark) == 0 and fetch(web) == 20
    assert control.once("--check", check=False).returncode == 4
    with control.file.open("w", encoding="utf-8") as half:  # in place, and in no hurry
        half.write('{"clusters": []}')
        half.flush()
        since = daemon.mark()
        wait_until(lambda: len(re.findall(r"--> .*\(GET\)", daemon.log_text(since))) > 3, 10,
                   "some looks, one a second")
        assert changes(daemon, mark) == 0
    control.wait_log(r"changed: \d+ commands")
    control.change(text())
    control.change(json.dumps({"clusters": [{"address": "10.0.0.201"}]}), name="conf.d/more.yaml")
    assert len(daemon.ctl_json("cluster show")["clusters"]) == 2
    (control.directory / "conf.d/more.yaml").unlink()
    wait_until(lambda: len(daemon.ctl_json("cluster show")["clusters"]) == 1, 5, "one cluster")


def test_what_somebody_else_changes_is_put_back_and_said(daemon, control):
    control.start()
    daemon.ctl("server", "set", f"{Basic.CLUSTER}:80", SERVERS[0], "--weight", "77")
    control.wait_log("somebody else changed the forwarder", timeout=40)
    wait_until(lambda: 77 not in {s["weight"] for s in daemon.servers()}, 5, "the old weight")


def test_second_one_is_refused(daemon, control):
    control.start()
    second = control.once(check=False)
    assert second.returncode == 1
    assert f"another cpserver (process {control.pid})" in second.stderr
    assert daemon.alive()


# --- Deaths ---------------------------------------------------------------------------------------

def test_killed_forwarder_forwards_again_within_two_seconds(web, control):
    daemon = web.start_daemon(sync=False)
    control.start()
    settle(daemon)
    slowest = 0
    for _ in range(3):
        daemon.kill()
        begin = time.monotonic()
        time.sleep(0.1)  # what the unit makes the supervisor wait
        daemon = web.start_daemon(sync=False)
        probe = ["curl", "-s", "-o", "/dev/null", "--connect-timeout", "0.2",
                 f"http://{web.CLUSTER}/"]
        wait_until(lambda: web.client.run(probe, check=False).returncode == 0, 10 * SLOW,
                   "an answer")
        slowest = max(slowest, time.monotonic() - begin)
        control.wait_log("commands carried out")
    print(f"configured and forwarding {slowest:.2f} s after the kill at the latest")
    assert slowest < 2 * SLOW
    settle(daemon)
    assert fetch(web) == 20
    assert daemon.stop() == 0


def many(clusters, ports, servers, weight=10, offset=0):
    """A configuration of many objects, some 200 servers to a network."""
    return json.dumps({"executor": EXECUTOR, "interfaces": ["eth0"], "clusters": [
        {"address": f"10.0.{1 + c // 200 + offset}.{c % 200}", "ports": [
            {"port": 1000 + p, "servers": [
                {"address": f"10.0.0.{30 + (s + c + offset) % 200}", "weight": weight}
                for s in range(servers)]} for p in range(ports)]} for c in range(clusters)]})


def test_killed_control_server_converges(web, daemon, control):
    """kill -9 at random moments of applies; VELL_KILLS=200 for all of them."""
    print(f"VELL_SEED={SEED}")
    dice = random.Random(SEED)
    files = [many(4, 3, 5), many(3, 4, 6, weight=3), many(4, 2, 5, offset=1)]
    written = files[0]
    control.write(written)
    control.start(timeout=20)
    assert control.stop() == 0
    done = control.wait_log(r"(\d+) of \d+ commands carried out in (\d+) ms")
    pace = int(done[2]) / int(done[1]) / 1000
    interrupted = kills = 0
    while kills < KILLS or (interrupted <= KILLS / 10 and kills < 10 * KILLS):
        written = dice.choice([file for file in files if file != written])
        control.write(written)
        mark = control.mark()
        control.launch()
        found = control.wait_log(r": (\d+) commands?$|nothing to do", 20, mark)
        time.sleep(dice.uniform(0, int(found[1] or 0) * pace))
        control.kill()
        kills += 1
        interrupted += control.differences() != []
    print(f"{interrupted} of {kills} applies were cut short")
    assert interrupted > KILLS / 10
    for name in files:
        control.write(name)
        control.start(timeout=20)
        assert control.differences() == []
        assert control.stop() == 0
    control.write(text())
    control.start()
    settle(daemon)
    assert fetch(web) == 20


def answer_slowly(listener, daemon):
    """In front of the daemon, as if its command thread hardly got to run."""
    with contextlib.suppress(OSError):  # until the listener is shut down
        while True:
            with listener.accept()[0] as client:
                client.settimeout(5)
                asked = command.receive(client)
                time.sleep(0.2)
                client.sendall(command.exchange(daemon.socket, asked))


def test_slow_answers_make_it_neither_deaf_nor_silent(web, daemon):
    heard = Notified(web.forwarder)
    with socket.socket(socket.AF_UNIX) as listener:
        listener.bind(str(web.forwarder.root / "slow"))
        listener.listen()
        thread = threading.Thread(target=answer_slowly, args=(listener, daemon))
        thread.start()
        daemon.ctl("cluster", "add", Basic.CLUSTER)
        for port in range(1, 60):  # to read them takes 12 seconds
            daemon.ctl("port", "add", f"{Basic.CLUSTER}:{port}", "--algorithm", "hash")
        control = Control(web.forwarder, text(), ["--socket", "/slow"], heard.environment).launch()
        for _ in range(5):
            heard.wait("WATCHDOG=1")
        assert control.stop(timeout=3) == 0 and len(daemon.ctl_json("port show")["ports"]) == 59
        listener.shutdown(socket.SHUT_RDWR)
        thread.join()


# --- What the units allow -------------------------------------------------------------------------

def confined(unit):
    """The words that take from a program the capabilities that its unit takes."""
    path = REPO / f"packaging/systemd/{unit}.service.in"
    found = re.search(r"^CapabilityBoundingSet=(.*)$", path.read_text(encoding="ascii"), re.M)
    kept = ",".join(f"+{name.removeprefix('CAP_').lower()}" for name in found[1].split())
    return ["setpriv", "--bounding-set", f"-all,{kept}", "--"]


def test_capabilities_of_the_units_are_enough(web):
    daemon = Daemon(web.forwarder)
    daemon.argv = confined("vellb2") + [word for word in daemon.argv if word != "-r"]  # real-time
    daemon.start()
    daemon.wait_log(r"sched_setscheduler\(0,fifo,prio=\d+\) returned 0")
    assert web.forwarder.run([*daemon.argv], check=False).returncode == 99
    local = {"port": 81, "servers": [{"address": web.FORWARDER, "forward": "collocated"}]}
    control = Control(web.forwarder, text([WEB, local], **{"host-guard": "on"}))
    control.argv = confined("cpserver") + control.argv
    control.start()
    web.forwarder.ip("link", "show", "veldra")
    assert "vellb2_guard" in web.forwarder.run(["nft", "list", "tables"]).stdout
    settle(daemon)
    assert fetch(web) == 20
    assert control.stop() == 0 and daemon.stop() == 0


# --- Host guard -----------------------------------------------------------------------------------

def test_guard_keeps_the_host_out(web, daemon, control):
    """The host has the cluster address on lo, so its own stack answers what it sees of it."""

    def guarded():
        return web.forwarder.run(["nft", "list", "tables"]).stdout.count("vellb2_guard")

    web.forwarder.ip("address", "add", f"{web.CLUSTER}/32", "dev", "lo")
    try:
        control.start()
        settle(daemon)
        assert fetch(web) < 20 and guarded() == 0  # resets of the host's own
        control.change(text(**{"host-guard": "on"}))
        assert guarded() == 2
        assert fetch(web, 100) == 100
        web.forwarder.run(["nft", "flush", "ruleset"])  # as a reload of the host's firewall does
        wait_until(lambda: guarded() == 2, 10, "the guard to be back")
        assert fetch(web) == 20
        shown = web.forwarder.run(["nft", "-j", "list", "table", "inet", "vellb2_guard"]).stdout
        assert web.CLUSTER in shown and "10.0.0.203" not in shown
        control.change(text(clusters=[{"address": "10.0.0.203"}], **{"host-guard": "on"}))
        shown = web.forwarder.run(["nft", "-j", "list", "table", "inet", "vellb2_guard"]).stdout
        assert web.CLUSTER in shown and "10.0.0.203" in shown
        assert control.stop() == 0
        assert guarded() == 0
    finally:
        web.forwarder.ip("address", "del", f"{web.CLUSTER}/32", "dev", "lo")


# --- Many objects ---------------------------------------------------------------------------------

@pytest.mark.skipif(sanitized(), reason="a bound for the release build, and a flood of log lines")
def test_ten_thousand_objects(web, daemon, control):
    daemon.ctl("executor", "set", "--log-mask", "default")  # a line a command takes its time
    carried_out = r"of 11\d+ commands carried out in (\d+) ms"
    control.start()
    took = []
    while len(took) < 3 and min(took, default=5000) >= 5000:  # a virtual machine may lose its turn
        control.change(text(), 60)
        mark = control.mark()
        control.write(many(100, 10, 10))
        took.append(int(control.wait_log(carried_out, 120, mark)[1]))

    def look():
        begin, said = time.monotonic(), control.mark()
        control.process.send_signal(signal.SIGHUP)
        control.wait_log("SIGHUP: nothing to do", 60, said)
        return time.monotonic() - begin

    print(f"applied in {took[-1]} ms; a pass without a change {look():.2f} s")
    daemon.ctl("executor", "set", "--log-mask", f"0x{MASK:x}")
    mark = settled_mark(daemon)
    look()
    assert changes(daemon, mark) == 0 and len(daemon.lines) - mark > 11_100
    if build_dir().name == "release":
        assert min(took) < 5000
    assert control.stop() == 0
