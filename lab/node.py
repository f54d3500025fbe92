"""Nodes and segments: what commands run in, and what cables run between.

A node keeps one idle process (bubblewrap's child) that owns its IPC and mount namespaces; every
command joins that process's namespaces. Sockets are opened by this very process: it steps into the
network namespace, opens the socket, and steps back; the socket stays where it was opened.
"""

import contextlib
import ctypes
import ipaddress
import os
import pathlib
import signal
import socket
import subprocess
import sys

from lab.core import REPO, LabError, build_dir, run, wait_until
from lab.frames import Capture, Injector

CLONE_NEWNET = 0x40000000
DAEMON = "/opt/vel/orn/dra/servers/bin/vellb2"
# Frames must look on a virtual link as they would on a wire: summed, and no longer than the MTU.
OFFLOADS_OFF = ["tx", "off", "rx", "off", "tso", "off", "gso", "off", "gro", "off"]

_libc = ctypes.CDLL(None, use_errno=True)


# On a dual-stack segment, who has an address of the first kind has one of the second, too.
NETWORKS = {"10.0.0.": "2001:db8::", "10.1.0.": "2001:db8:1::", "192.168.7.": "2001:db8:7::"}


def ipv6_of(address):
    """The lab's IPv6 address or network beside an IPv4 one: 2001:db8::11 beside 10.0.0.11."""
    net, _, host = address.rpartition(".")
    return NETWORKS[f"{net}."] + host.replace("0/24", "/64")


def mac_of(address):
    """The lab's hardware address for an address: 02:00 and the four bytes of the IPv4 one."""
    address = address.split("/")[0]
    if ":" in address:
        net, _, host = address.rpartition("::")
        address = {six: four for four, six in NETWORKS.items()}[f"{net}::"] + host
    packed = ipaddress.IPv4Address(address).packed
    return "02:00:" + ":".join(f"{byte:02x}" for byte in packed)


@contextlib.contextmanager
def _inside(namespace):
    """Runs the block with this thread inside the network namespace; nothing may block in it."""
    with open("/proc/thread-self/ns/net", "rb") as home, open(f"/run/netns/{namespace}", "rb") as there:
        if _libc.setns(there.fileno(), CLONE_NEWNET) != 0:
            raise LabError(f"cannot enter {namespace}: {os.strerror(ctypes.get_errno())}")
        try:
            yield
        finally:
            if _libc.setns(home.fileno(), CLONE_NEWNET) != 0:
                os.abort()  # Lost in a namespace: nothing that follows could be trusted.


def _make_namespace(name, ipv6=False):
    run(["ip", "netns", "add", name])
    with _inside(name):
        for scope in ("all", "default"):
            _write_sysctl(f"net.ipv6.conf.{scope}.disable_ipv6", 0 if ipv6 else 1)
        # Addresses serve at once, and nobody looks for routers: each would cost seconds.
        for quiet in ("accept_dad", "accept_ra", "router_solicitations"):
            _write_sysctl(f"net.ipv6.conf.default.{quiet}", 0)
        # A bridge is a wire here: the kernel's firewall must not drop malformed packets on it.
        _write_sysctl("net.bridge.bridge-nf-call-iptables", 0)
    run(["ip", "-n", name, "link", "set", "lo", "up"])


def _write_sysctl(key, value):
    path = pathlib.Path("/proc/sys") / key.replace(".", "/")
    if path.exists():
        path.write_text(f"{value}\n", encoding="ascii")


class Segment:
    """A wire: a bridge in a namespace of its own.

    A pinned one knows from the start which node has which hardware address, so that it floods no
    frame to a node that it is not for.
    """

    def __init__(self, lab, name, ipv6=False, pinned=False):
        self.name = name
        self.pinned = pinned
        self.namespace = lab.name(f"seg-{name}")
        lab.segments[name] = self
        _make_namespace(self.namespace, ipv6)
        run(["ip", "-n", self.namespace, "link", "add", "br0", "type", "bridge", "stp_state", "0",
             "forward_delay", "0", "mcast_snooping", "0"])
        run(["ip", "-n", self.namespace, "link", "set", "br0", "up"])

    def set_port(self, node, up):
        """Pulls the cable of a node out of this segment, or plugs it in again."""
        run(["ip", "-n", self.namespace, "link", "set", node.name[:15], "up" if up else "down"])


class Node:
    """One host of the lab. `ipv6` leaves IPv6 on, which adds the kernel's own chatter.

    Addresses are not checked for duplicates then, but for those of an interface whose accept_dad a
    test turns on.
    """

    def __init__(self, lab, name, ipv6=False):
        self.lab = lab
        self.name = name
        self.ipv6 = ipv6
        self.namespace = lab.name(name)
        self.root = lab.dir / name  # Seen from outside; inside it is "/".
        self.addresses = {}  # interface -> its first address
        self._sockets = []
        if name in lab.nodes:
            raise LabError(f"the lab has a node {name} already")
        lab.nodes[name] = self
        _make_namespace(self.namespace, ipv6)
        self._start_holder()

    def _start_holder(self):
        self.root.mkdir()
        build = build_dir()
        root = ["--unshare-ipc", "--die-with-parent", "--bind", self.root, "/",
                "--ro-bind", "/usr", "/usr", "--symlink", "usr/bin", "/bin",
                "--symlink", "usr/lib", "/lib", "--symlink", "usr/lib64", "/lib64",
                "--symlink", "usr/sbin", "/sbin", "--ro-bind", "/etc", "/etc", "--dev", "/dev",
                "--dev-bind-try", "/dev/net/tun", "/dev/net/tun", "--proc", "/proc",
                "--tmpfs", "/tmp", "--dir", "/run", "--dir", "/var/lib/nginx"]
        if build.is_dir():
            root += ["--ro-bind", build, "/build"]
        if (build / "vellb2").exists():
            root += ["--ro-bind", build / "vellb2", DAEMON]
        holder = subprocess.Popen(
            ["ip", "netns", "exec", self.namespace, "bwrap", *map(str, root),
             "sh", "-c", "echo up; exec sleep infinity"],
            stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True,
            start_new_session=True)
        self.lab.adopt(holder)
        said = holder.stdout.readline()
        if said != "up\n":
            raise LabError(f"no private root for {self.name}: {said}{holder.stdout.read()}")
        children = pathlib.Path(f"/proc/{holder.pid}/task/{holder.pid}/children")
        self.holder = int(children.read_text(encoding="ascii").split()[0])
        (self.lab.dir / f"{self.name}.pid").write_text(f"{self.holder}\n", encoding="ascii")

    # --- Commands ---------------------------------------------------------------------------------

    def argv(self, argv):
        """The command line that runs `argv` in this node; it dies with the process that starts it."""
        return ["nsenter", "-t", str(self.holder), "-n", "-i", "-m", "setpriv", "--pdeathsig", "KILL",
                "--", *[str(a) for a in argv]]

    def environment(self, extra=None):
        """A small, fixed environment; options of the sanitizers pass through."""
        env = {k: v for k, v in os.environ.items() if k.endswith("SAN_OPTIONS") or k == "TERM"}
        env.update(PATH="/build:/usr/sbin:/usr/bin:/sbin:/bin", HOME="/", LC_ALL="C.UTF-8")
        return env | (extra or {})

    def run(self, argv, check=True, timeout=60, env=None, **kwargs):
        """Runs a command in this node to its end: returncode, stdout, stderr (text)."""
        return run(self.argv(argv), check=check, timeout=timeout, env=self.environment(env), **kwargs)

    def popen(self, argv, env=None, **kwargs):
        """Starts a command in this node. Its process number is the command's own."""
        kwargs.setdefault("stdin", subprocess.DEVNULL)
        process = subprocess.Popen(self.argv(argv), env=self.environment(env),
                                   start_new_session=True, **kwargs)
        self.lab.adopt(process)
        return process

    def sender(self, frames, per_second, ifname="eth0"):
        """Starts a process that sends frames (bytes) at a steady rate and ends; see lab.sender."""
        path = self.lab.dir / f"{self.name}-{len(self.lab.nodes)}-{id(frames)}.frames"
        with open(path, "wb") as out:
            for frame in frames:
                out.write(len(frame).to_bytes(2, "big") + frame)
        return self._program("lab.sender", ifname, str(per_second), str(path))

    def _program(self, module, *words):
        """Starts a program of this package in this node's network namespace."""
        process = subprocess.Popen(
            ["ip", "netns", "exec", self.namespace, "setpriv", "--pdeathsig", "KILL", "--",
             sys.executable, "-B", "-m", module, *words],
            cwd=REPO, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
            text=True, start_new_session=True)
        self.lab.adopt(process)
        return process

    # --- Network ----------------------------------------------------------------------------------

    def attach(self, segment, *addresses, ifname=None):
        """A cable into a segment. Addresses with prefix, the first of which makes the MAC."""
        ifname = ifname or f"eth{len(self.addresses)}"
        port = self.name[:15]
        run(["ip", "-n", self.namespace, "link", "add", ifname, "address", mac_of(addresses[0]),
             "type", "veth", "peer", "name", port, "netns", segment.namespace])
        run(["ip", "netns", "exec", self.namespace, "ethtool", "-K", ifname, *OFFLOADS_OFF])
        run(["ip", "netns", "exec", segment.namespace, "ethtool", "-K", port, *OFFLOADS_OFF])
        run(["ip", "-n", segment.namespace, "link", "set", port, "master", "br0", "up"])
        if segment.pinned:
            run(["bridge", "-n", segment.namespace, "fdb", "replace", mac_of(addresses[0]),
                 "dev", port, "master", "static"])
        for address in addresses:
            run(["ip", "-n", self.namespace, "address", "add", address, "dev", ifname])
        run(["ip", "-n", self.namespace, "link", "set", ifname, "up"])
        self.addresses[ifname] = addresses[0].split("/")[0]
        return ifname

    def ip(self, *words):
        """`ip ...` in this node's network namespace; returns what it printed."""
        return run(["ip", "-n", self.namespace, *words]).stdout

    def sysctl(self, **settings):
        """sysctl(net__ipv4__ip_forward=1): two underscores stand for a dot."""
        with _inside(self.namespace):
            for key, value in settings.items():
                _write_sysctl(key.replace("__", "."), value)

    def limit_mtu(self, prefix, ifname, mtu):
        """As a router: passes on nothing longer than this to a network, and says so (RFC 1191, 8201)."""
        words = ["-6", "route", "replace", prefix, "metric", "256"] if ":" in prefix else \
                ["route", "replace", prefix]
        self.ip(*words, "dev", ifname, "mtu", "lock", str(mtu))

    def mac(self, ifname="eth0"):
        """The hardware address of an interface."""
        return mac_of(self.addresses[ifname])

    def socket(self, *args, **kwargs):
        """A socket of this process that lives in this node's network namespace."""
        with _inside(self.namespace):
            made = socket.socket(*args, **kwargs)
        self._sockets.append(made)
        return made

    def capture(self, ifname="eth0", **kwargs):
        """Captures from now on; see Capture."""
        return Capture(self, ifname, **kwargs)

    def injector(self, ifname="eth0"):
        """Sends frames as they are; see Injector."""
        return Injector(self, ifname)

    def wait_port(self, port, address="127.0.0.1", timeout=10):
        """Waits until something accepts TCP connections in this node."""

        def listening():
            with contextlib.closing(self.socket(socket.AF_INET, socket.SOCK_STREAM)) as s:
                s.settimeout(1)
                return s.connect_ex((address, port)) == 0

        wait_until(listening, timeout, f"port {port} of {self.name} to accept connections")

    # --- Servers ----------------------------------------------------------------------------------

    def add_loopback_address(self, address):
        """Owns an address without ever answering for it on a segment (direct return).

        With IPv6 the kernel answers solicitations for addresses of the interface that hears them only.
        """
        if ":" in address:
            self.ip("address", "add", f"{address}/128", "dev", "lo")
            return
        self.sysctl(net__ipv4__conf__all__arp_ignore=1, net__ipv4__conf__all__arp_announce=2)
        self.ip("address", "add", f"{address}/32", "dev", "lo")

    def decapsulate(self, kind):
        """Takes packets out of ipip or gre tunnels from now on; returns the process that does."""
        self.sysctl(net__ipv4__conf__all__rp_filter=0, net__ipv4__conf__default__rp_filter=0)
        name = f"un{kind}"
        process = self._program("lab.decap", kind, name)
        said = process.stdout.readline()
        if said != "ready\n":
            raise LabError(f"no decapsulator on {self.name}: {said}{process.stdout.read()}")
        self.ip("link", "set", name, "up")
        return process

    def host_collocated(self, address, ifname="eth0", device="veldra"):
        """Owns a cluster address for what comes through the forwarder's tun device, and only that.

        The kernel sees each frame from the wire as well; it must not take it a second time.
        """
        self.add_loopback_address(address)
        self.sysctl(net__ipv4__conf__all__rp_filter=0, **{f"net__ipv4__conf__{device}__rp_filter": 0})
        self.ip("link", "set", device, "up")
        ip = "ip6" if ":" in address else "ip"
        self.run(["nft", f"add table {ip} once; add chain {ip} once wire "
                  "{ type filter hook prerouting priority raw; }; "
                  f"add rule {ip} once wire iifname {ifname} {ip} daddr {address} drop"])

    def start_web(self, ports=(80,), body=0, body_per_s=0):
        """nginx that answers every request with the node's name; its log: web_log().

        /body is a file of that many bytes, all alike, sent no faster than that many a second.
        """
        place = self.root / "web"
        place.mkdir(exist_ok=True)
        (place / "body").write_bytes(b"x" * body)
        hosts = ["", "[::]:"] if self.ipv6 else [""]
        listens = "".join(f"listen {h}{p} backlog=4096; " for p in ports for h in hosts)
        temps = "".join(f"{kind}_temp_path /web/{kind}; "
                        for kind in ("client_body", "proxy", "fastcgi", "uwsgi", "scgi"))
        (place / "nginx.conf").write_text(f"""daemon off; master_process off; pid /web/pid;
worker_rlimit_nofile 20000;
events {{ worker_connections 8192; }}
http {{
  {temps}
  log_format seen '$remote_addr $remote_port $server_addr $server_port $status';
  access_log /web/access.log seen; error_log /web/error.log;
  server {{ {listens} keepalive_requests 1000000;
            location = /body {{ root /web; limit_rate {body_per_s}; }}
            location / {{ default_type text/plain; return 200 "{self.name}\\n"; }} }}
}}
""", encoding="ascii")
        with open(place / "stdout.log", "wb") as out:
            server = self.popen(["nginx", "-c", "/web/nginx.conf", "-e", "/web/error.log"],
                                stdout=out, stderr=subprocess.STDOUT)
        try:
            self.wait_port(ports[0])
        except LabError as e:
            text = (place / "stdout.log").read_text(encoding="utf-8", errors="replace")
            raise LabError(f"{e}\nnginx: {text}") from e
        return server

    def web_log(self):
        """The requests that this node's nginx answered: (client, client port, address, port, status)."""
        found = []
        with contextlib.suppress(FileNotFoundError):
            for line in (self.root / "web/access.log").read_text(encoding="ascii").splitlines():
                client, client_port, address, port, status = line.split()
                found.append((client, int(client_port), address, int(port), int(status)))
        return found

    def clear_web_log(self):
        """Starts the log of requests afresh (nginx appends, so cutting is safe)."""
        with contextlib.suppress(FileNotFoundError):
            os.truncate(self.root / "web/access.log", 0)

    def forget(self):
        """Closes this process's sockets in the node; its processes are the lab's to end."""
        for made in self._sockets:
            made.close()
        self._sockets = []


def enter_shell(ident, node, run_dir):
    """Replaces this process by a shell in a node of a living lab."""
    holder = int((run_dir / ident / f"{node}.pid").read_text(encoding="ascii"))
    os.kill(holder, 0)
    signal.signal(signal.SIGINT, signal.SIG_DFL)
    env = dict(os.environ, PS1=f"({node}) \\w# ", PATH="/build:/usr/sbin:/usr/bin:/sbin:/bin", HOME="/")
    os.execvpe("nsenter", ["nsenter", "-t", str(holder), "-n", "-i", "-m", "bash", "--norc"], env)
