"""The standard topologies; drawn at the top of the package.

Addresses are class attributes, nodes are attributes of the object. Configuration of the daemon is
the caller's, except for what start_daemon() says.
"""

from lab.daemon import Daemon
from lab.node import Node, Segment


class Basic:
    """Client, forwarder and servers on one segment; the client is its own client gateway."""

    CLUSTER = "10.0.0.100"
    GATEWAY = "10.0.0.1"
    FORWARDER = "10.0.0.2"
    CLIENT = "10.0.0.1"

    def __init__(self, lab, servers=3):
        self.lab = lab
        self.net = Segment(lab, "net")
        self.forwarder = Node(lab, "fwd")
        self.forwarder.attach(self.net, f"{self.FORWARDER}/24")
        self.forwarder.sysctl(net__ipv4__ip_forward=0, net__ipv4__conf__all__rp_filter=0,
                              net__ipv4__conf__eth0__rp_filter=0,
                              net__ipv4__conf__all__accept_redirects=0)
        self._add_wires()
        self.servers = [self._add_server(number) for number in range(1, servers + 1)]
        self._add_clients()
        self.daemon = None

    def _add_wires(self):
        """Segments and routers that must be there before the servers."""

    @staticmethod
    def server_address(number):
        """The address of server 1, 2, 3..."""
        return f"10.0.0.{10 + number}"

    def _add_server(self, number):
        server = Node(self.lab, f"server{number}")
        server.attach(self.net, f"{self.server_address(number)}/24")
        server.add_loopback_address(self.CLUSTER)
        return server

    def _add_clients(self):
        self.client = Node(self.lab, "client")
        self.client.attach(self.net, f"{self.CLIENT}/24")

    def start_web(self, ports=(80,)):
        """nginx on every server."""
        for server in self.servers:
            server.start_web(ports)

    def start_daemon(self, workers=4, mask=0x200, sync=True, **kwargs):
        """The daemon, with the host's interfaces and the client gateway told to it (sync)."""
        self.daemon = Daemon(self.forwarder, workers, mask, **kwargs).start()
        if sync:
            self.daemon.ctl("interface", "sync")
            self.daemon.ctl("executor", "set", "--client-gateway", self.GATEWAY)
        return self.daemon

    def configure(self, port=80, algorithm="hash", weights=None, servers=None):
        """A cluster with one port and servers (1, 2, ...; default all) behind it, all reachable.

        A cluster that is there already gets one more port.
        """
        cluster = self.CLUSTER
        servers = range(1, len(self.servers) + 1) if servers is None else servers
        if cluster not in (one["cluster"] for one in self.daemon.ctl_json("show")["clusters"]):
            self.daemon.ctl("cluster", "add", cluster)
        self.daemon.ctl("port", "add", f"{cluster}:{port}", "--algorithm", algorithm)
        for place, number in enumerate(servers):
            weight = ["--weight", weights[place]] if weights else []
            self.daemon.ctl("server", "add", f"{cluster}:{port}", self.server_address(number), *weight)
        for number in servers:
            self.daemon.wait_neighbour(self.server_address(number))


class Routed(Basic):
    """Clients on another segment, behind a router that is the client gateway."""

    CLIENT = "192.168.7.10"
    ROUTER = "192.168.7.1"

    def _add_clients(self):
        self.front = Segment(self.lab, "front")
        self.router = Node(self.lab, "router")
        self.router.attach(self.net, f"{self.GATEWAY}/24")
        self.router.attach(self.front, f"{self.ROUTER}/24")
        self.router.sysctl(net__ipv4__ip_forward=1, net__ipv4__conf__all__send_redirects=0,
                           net__ipv4__conf__eth0__send_redirects=0)
        self.client = Node(self.lab, "client")
        self.client.attach(self.front, f"{self.CLIENT}/24")
        self.client.ip("route", "add", "default", "via", self.ROUTER)
        self._add_routes()

    def _add_routes(self):
        for node in [self.forwarder, *self.servers]:
            node.ip("route", "add", "default", "via", self.GATEWAY)


class Far(Routed):
    """Routed, with the servers on a segment of their own ("back") behind the router `far`.

    They are reached by NAT or, with a decapsulator on each, by a tunnel. Every server has the
    cluster address as well, which only tunnels need.
    """

    FAR = "10.0.0.9"
    BACK = "10.1.0.0/24"
    BACK_GATEWAY = "10.1.0.1"
    RETURN = "10.0.0.50"  # NAT's return address; no node has it

    @staticmethod
    def server_address(number):
        """The address of server 1, 2, 3..."""
        return f"10.1.0.{10 + number}"

    def _add_wires(self):
        self.back = Segment(self.lab, "back")
        self.far = Node(self.lab, "far")
        self.far.attach(self.net, f"{self.FAR}/24")
        self.far.attach(self.back, f"{self.BACK_GATEWAY}/24")
        self.far.sysctl(net__ipv4__ip_forward=1, net__ipv4__conf__all__rp_filter=0,
                        net__ipv4__conf__eth0__rp_filter=0, net__ipv4__conf__eth1__rp_filter=0,
                        net__ipv4__conf__all__send_redirects=0,
                        net__ipv4__conf__eth0__send_redirects=0)
        self.far.ip("route", "add", "default", "via", self.GATEWAY)

    def _add_server(self, number):
        server = Node(self.lab, f"server{number}")
        server.attach(self.back, f"{self.server_address(number)}/24")
        server.add_loopback_address(self.CLUSTER)
        server.ip("route", "add", "default", "via", self.BACK_GATEWAY)
        return server

    def _add_routes(self):
        self.forwarder.ip("route", "add", "default", "via", self.GATEWAY)
        self.forwarder.ip("route", "add", self.BACK, "via", self.FAR)

    def configure_far(self, mode, port=80, algorithm="connection", servers=None):
        """One more port whose servers (1, 2, ...; default all) are reached by nat, gre or ipip."""
        words = {"nat": ["--nat", "--return-address", self.RETURN, "--router-address", self.FAR],
                 "gre": ["--encap", "gre"], "ipip": ["--encap", "ipip"]}[mode]
        servers = servers or range(1, len(self.servers) + 1)
        self.configure(port, algorithm, servers=[])
        for number in servers:
            address = self.server_address(number)
            self.daemon.ctl("server", "add", f"{self.CLUSTER}:{port}", address, *words)
            if mode == "nat":
                self.daemon.wait_neighbour(address)
