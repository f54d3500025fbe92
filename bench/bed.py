"""The benchmark's network: a generator, the forwarders side by side, the servers' host.

     +-----+ g1        c1 +------------+ s1        t1 +---------+
     | gen |--------------| -n 1     (sink)-----------| servers |
     |     | 10.1.0.1  .2 +------------+ 10.1.1.2     |         | 10.1.1.11 .12 .13
     |     | g2        c2 +------------+ s2        t2 |         |
     |     |--------------| routing  (sink)-----------|         |    every forwarder has a pair of
     +-----+ 10.2.0.1  .2 +------------+ 10.2.1.2     +---------+    cables of its own; only one is
                                ...                                  loaded at a time

The same frames go to 10.N.0.100:80 of every forwarder N. What a frame costs the forwarder must be
the run time of threads that do nothing else:

- The end that receives is on threaded NAPI. On a veth NAPI exists only with GRO (or an XDP program),
  so GRO is on; it merges none of these frames.
- The sink takes IPv4 frames where the forwarder's cable begins, in the egress hook of traffic
  control, counts and frees them. A receiving end would have to be woken, and waking a thread on
  another core of a virtual machine costs more than forwarding does. ARP passes, so that the servers'
  hardware addresses are learnt as ever.
- The forwarder's threads have the last core to themselves; generator and all else have the others.
  Only their sum is exact: where a thread wakes another on its own core, the scheduler skips a clock
  update, and the rest of the first one's turn is booked on the second.
"""

import os
import pathlib
import subprocess
import time

from lab import Daemon, LabError, Node, mac_of
from lab.core import run

SERVERS = (11, 12, 13)
OFF = ["tx", "off", "rx", "off", "tso", "off", "gso", "off"]


class Way:
    """One way of forwarding, in a node of its own. Subclasses say how."""

    title = ""
    tcp = False  # The generator sends TCP openings instead of UDP datagrams.

    def __init__(self, lab, bed, number):
        self.number = number
        self.node = Node(lab, f"fwd{number}")
        self.node.sysctl(net__ipv4__ip_forward=0, net__ipv4__conf__all__rp_filter=0,
                         net__ipv4__conf__default__rp_filter=0)
        self.client_if, self.server_if = f"c{number}", f"s{number}"
        self.pump_if, self.far_if = f"g{number}", f"t{number}"
        self.cluster = self.address(0, 100)
        _cable(bed.gen, self.pump_if, self.address(0, 1), self.node, self.client_if, self.address(0, 2))
        _cable(self.node, self.server_if, self.address(1, 2), bed.servers, self.far_if, self.address(1, 11))
        for host in SERVERS[1:]:
            bed.servers.ip("address", "add", f"{self.address(1, host)}/24", "dev", self.far_if)
        self.napi = _threaded(self.node, self.client_if)
        self._sink = self.node.popen(["/build/vell_pump", "sink", "--dev", self.server_if],
                                     stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)
        if self._sink.stdout.readline() != "0\n":
            raise LabError(f"no sink on {self.server_if}")
        self.start()
        self._place()

    def address(self, side, host):
        """An address of this way's cables: side 0 towards the clients, 1 towards the servers."""
        return f"10.{self.number}.{side}.{host}"

    def start(self):
        """Sets the forwarding up."""
        raise NotImplementedError

    def processes(self):
        """The user-space processes that forward."""
        return []

    def _place(self):
        cores = sorted(os.sched_getaffinity(0))
        for pid in self.napi + self.processes():
            for task in pathlib.Path(f"/proc/{pid}/task").iterdir():
                os.sched_setaffinity(int(task.name), cores[-1:])

    def _know_servers(self):
        """Permanent neighbour entries, so that the kernel asks nobody during a measurement."""
        for host in SERVERS:
            self.node.ip("neigh", "replace", self.address(1, host), "lladdr", mac_of(self.address(1, 11)),
                         "dev", self.server_if, "nud", "permanent")

    def received(self):
        """Frames that the sink has taken."""
        self._sink.stdin.write("\n")
        self._sink.stdin.flush()
        return int(self._sink.stdout.readline())

    def napi_ns(self):
        """Run time of the threads that receive for this way."""
        return sum(map(_run_ns, self.napi))

    def process_ns(self):
        """Run time of the processes that forward."""
        return sum(map(_run_ns, self.processes()))


class Vellb2(Way):
    """vellb2 with a number of workers, in one of its modes: direct (rewriting hardware addresses),
    nat, ipip or gre."""

    def __init__(self, lab, bed, number, workers, mode="direct"):
        self.workers = workers
        self.mode = mode
        self.tcp = mode == "nat"
        self.title = f"vellb2 -n {workers}" + ("" if mode == "direct" else f", {mode}")
        self.daemon = None
        super().__init__(lab, bed, number)

    def start(self):
        self.daemon = Daemon(self.node, self.workers).start()
        port = f"{self.cluster}:80"
        self.daemon.ctl("interface", "sync")
        self.daemon.ctl("cluster", "add", self.cluster)
        if self.tcp:
            self.daemon.ctl("port", "add", port, "--algorithm", "connection")
        else:
            self.daemon.ctl("port", "add", port, "--udp-algorithm", "hash")
        if self.mode in ("ipip", "gre"):
            self._know_servers()  # The kernel finds the tunnels' ends.
        for host in SERVERS:
            self.daemon.ctl("server", "add", port, self.address(1, host), "--weight", "1",
                            *self._mode_options(host))

    def _mode_options(self, host):
        if self.mode == "nat":
            return ("--nat", "--return-address", self.address(1, 200),
                    "--router-address", self.address(1, host))
        return () if self.mode == "direct" else ("--encap", self.mode)

    def processes(self):
        return [self.daemon.pid]


class Routing(Way):
    """The kernel's IP forwarding to one next hop: no choice of a server, the least that a forwarder
    in the kernel does."""

    title = "kernel routing"

    def start(self):
        self._know_servers()
        self.node.ip("route", "add", f"{self.cluster}/32", "via", self.address(1, SERVERS[0]))
        self.node.sysctl(net__ipv4__ip_forward=1)


class Nftables(Way):
    """Destination NAT by nftables, connection by connection in turn to three servers."""

    def __init__(self, lab, bed, number, tcp=False):
        self.tcp = tcp
        self.title = "nftables DNAT, TCP" if tcp else "nftables DNAT"
        super().__init__(lab, bed, number)

    def start(self):
        self._know_servers()
        choice = ", ".join(f"{i} : {self.address(1, host)}" for i, host in enumerate(SERVERS))
        self.node.run(["nft", "-f", "-"], input=f"""table ip balancer {{
  chain prerouting {{
    type nat hook prerouting priority dstnat;
    ip daddr {self.cluster} {"tcp" if self.tcp else "udp"} dport 80 dnat to numgen inc mod 3 map {{ {choice} }}
  }}
}}
""")
        # The generator leaves transport checksums open.
        self.node.sysctl(net__ipv4__ip_forward=1, net__netfilter__nf_conntrack_checksum=0)


class Bed:
    """The generator, the servers' host, and the ways between them. Lives as long as the lab."""

    def __init__(self, lab, quick=False):
        self.lab = lab
        self.gen, self.servers = Node(lab, "gen"), Node(lab, "servers")
        cores = sorted(os.sched_getaffinity(0))
        self.ways = [Vellb2(lab, self, i, n) for i, n in enumerate((4,) if quick else (1, 2, 4), start=1)]
        self.ways.append(Routing(lab, self, len(self.ways) + 1))
        self.ways.append(Nftables(lab, self, len(self.ways) + 1))
        for mode in ("ipip", "gre", "nat"):
            self.ways.append(Vellb2(lab, self, len(self.ways) + 1, 1, mode))
        self.ways.append(Nftables(lab, self, len(self.ways) + 1, tcp=True))
        if len(cores) > 1:
            os.sched_setaffinity(0, cores[:-1])  # The generator inherits it.
        for way in self.ways:
            self._wait_until_forwarding(way)

    def pump(self, way, rate, seconds, **kwargs):
        """Starts the generator towards a way; rate 0 is as much as goes. It prints JSON at its end."""
        return self.gen.popen(
            ["/build/vell_pump", "send", "--dev", way.pump_if, "--src-mac", mac_of(way.address(0, 1)),
             "--dst-mac", mac_of(way.address(0, 2)), "--src-ip", way.address(0, 1),
             "--dst-ip", way.cluster, "--dport", "80", "--rate", rate, "--seconds", seconds,
             *(["--tcp"] if way.tcp else [])], **kwargs)

    def offered(self, way):
        """Frames that reached a way's receiving end, those included that found its ring full."""
        counters = _counters(way.node, way.client_if)
        return counters[1] + counters[3]

    def _wait_until_forwarding(self, way, timeout=10):
        """The servers' hardware addresses have to be learnt first."""
        begin = time.monotonic()
        while True:
            before = way.received()
            self.pump(way, 10000, 0.1, stdout=subprocess.DEVNULL).wait(10)
            if way.received() - before >= 900:
                return
            if time.monotonic() - begin > timeout:
                raise LabError(f"{way.title}: of 1000 frames only {way.received() - before} "
                               "reached the sink")


def _cable(one, one_if, one_ip, other, other_if, other_ip):
    run(["ip", "-n", one.namespace, "link", "add", one_if, "address", mac_of(one_ip), "type", "veth",
         "peer", "name", other_if, "address", mac_of(other_ip), "netns", other.namespace])
    ends = ((one, one_if, one_ip), (other, other_if, other_ip))
    for node, name, address in ends:
        node.ip("address", "add", f"{address}/24", "dev", name)
        node.ip("link", "set", name, "up")
    for node, name, _ in ends:  # Once both are up: a veth takes redirected frames only then.
        run(["ip", "netns", "exec", node.namespace, "ethtool", "-K", name, *OFF, "gro", "on"])


def _napi_threads():
    found = set()
    for comm in pathlib.Path("/proc").glob("[0-9]*/comm"):
        try:
            if comm.read_text(encoding="utf-8", errors="replace").startswith("napi/"):
                found.add(int(comm.parent.name))
        except OSError:
            pass  # It ended meanwhile.
    return found


def _threaded(node, ifname):
    """Puts an interface on threaded NAPI and returns the new threads' numbers."""
    before = _napi_threads()
    run(["ip", "netns", "exec", node.namespace, "sh", "-c", f"echo 1 >/sys/class/net/{ifname}/threaded"])
    new = sorted(_napi_threads() - before)
    if not new:
        raise LabError(f"{ifname} got no NAPI thread: is GRO on?")
    return new


def _counters(node, ifname):
    """The 16 counters of an interface: 8 of reception (bytes, packets, errors, drops ...), 8 of
    transmission."""
    for line in pathlib.Path(f"/proc/{node.holder}/net/dev").read_text(encoding="ascii").splitlines():
        name, colon, rest = line.partition(":")
        if colon and name.strip() == ifname:
            return [int(word) for word in rest.split()]
    raise LabError(f"{node.name} has no interface {ifname}")


def _run_ns(pid):
    """Run time of all threads of a process, to the nanosecond: the first word of schedstat."""
    total = 0
    for task in pathlib.Path(f"/proc/{pid}/task").iterdir():
        total += int((task / "schedstat").read_text(encoding="ascii").split()[0])
    return total
