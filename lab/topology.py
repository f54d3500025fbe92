"""The standard topologies; drawn at the top of the package.

Addresses are class attributes, nodes are attributes of the object. An object that was made with
ipv6=True has dual-stack segments, and IPv6 addresses in place of the class's. Configuration of the
daemon is the caller's, except for what start_daemon() says.
"""

import socket

from lab.core import wait_until
from lab.daemon import BackgroundDaemon, Daemon
from lab.node import Node, Segment, ipv6_of


class Basic:
    """Client, forwarder and servers on one segment; the client is its own client gateway."""

    CLUSTER = "10.0.0.100"
    GATEWAY = "10.0.0.1"
    FORWARDER = "10.0.0.2"
    CLIENT = "10.0.0.1"
    SERVERS = "10.0.0.1{}"  # with the server's number

    def __init__(self, lab, servers=3, ipv6=False):
        self.lab = lab
        self.ipv6 = ipv6
        self.family = socket.AF_INET6 if ipv6 else socket.AF_INET  # of the addresses here
        self.net = self._make_segment()
        self.forwarder = self._add_forwarder("fwd", self.FORWARDER)
        self._add_wires()
        self.servers = [self._add_server(number) for number in range(1, servers + 1)]
        self._add_clients()
        self.daemon = None
        if ipv6:  # Everything stands; from here on it is spoken to by its other addresses.
            for name in ("CLUSTER", "GATEWAY", "FORWARDER", "CLIENT", "SERVERS", "ROUTER", "FRONT",
                         "FAR", "BACK", "RETURN"):
                if hasattr(self, name):
                    setattr(self, name, ipv6_of(getattr(self, name)))

    def _add_node(self, name, *cables):
        """A node with its cables: segment, IPv4 address, segment, IPv4 address..."""
        node = Node(self.lab, name, self.ipv6)
        for segment, address in zip(cables[0::2], cables[1::2]):
            second = [f"{ipv6_of(address)}/64"] if self.ipv6 else []
            node.attach(segment, f"{address}/24", *second)
        return node

    def _add_route(self, node, via, network=None):
        """The default route, or one to a network, of each IP version; by IPv4 addresses."""
        node.ip("route", "add", network or "default", "via", via)
        if self.ipv6:
            node.ip("-6", "route", "add", ipv6_of(network) if network else "default", "via", ipv6_of(via))

    def _make_segment(self):
        return Segment(self.lab, "net")

    def _add_forwarder(self, name, address):
        """The host of a daemon, whose kernel leaves the packets to it."""
        node = self._add_node(name, self.net, address)
        node.sysctl(net__ipv4__ip_forward=0, net__ipv4__conf__all__rp_filter=0,
                    net__ipv4__conf__eth0__rp_filter=0,
                    net__ipv4__conf__all__accept_redirects=0,
                    net__ipv6__conf__all__forwarding=0,
                    net__ipv6__conf__eth0__accept_redirects=0)
        return node

    def _add_wires(self):
        """Segments and routers that must be there before the servers."""

    def server_address(self, number):
        """The address of server 1, 2, 3..."""
        return self.SERVERS.format(number)

    def _add_server(self, number):
        return self._own_cluster(self._add_node(f"server{number}", self.net,
                                                self.server_address(number)))

    def _own_cluster(self, server):
        server.add_loopback_address(self.CLUSTER)
        if self.ipv6:
            server.add_loopback_address(ipv6_of(self.CLUSTER))
        return server

    def _add_clients(self):
        self.client = self._add_node("client", self.net, self.CLIENT)

    def start_web(self, ports=(80,)):
        """nginx on every server."""
        for server in self.servers:
            server.start_web(ports)

    def host(self, address=None):
        """The cluster's address, or another one, as it stands in a URL or before a port."""
        address = address or self.CLUSTER
        return f"[{address}]" if ":" in address else address

    def gateway_words(self):
        """How the client gateway is set: words of `executor set`."""
        return ["--client-gateway-ipv6" if self.ipv6 else "--client-gateway", self.GATEWAY]

    def start_daemon(self, workers=4, mask=0x200, sync=True, **kwargs):
        """The daemon, with the host's interfaces and the client gateway told to it (sync)."""
        self.daemon = Daemon(self.forwarder, workers, mask, **kwargs).start()
        if sync:
            self.daemon.ctl("interface", "sync")
            self.daemon.ctl("executor", "set", *self.gateway_words())
        return self.daemon

    def configure(self, port=80, algorithm="hash", weights=None, servers=None):
        """A cluster with one port and servers (1, 2, ...; default all) behind it, all reachable.

        A cluster that is there already gets one more port.
        """
        cluster, endpoint = self.CLUSTER, f"{self.host()}:{port}"
        servers = range(1, len(self.servers) + 1) if servers is None else servers
        if cluster not in (one["cluster"] for one in self.daemon.ctl_json("show")["clusters"]):
            self.daemon.ctl("cluster", "add", cluster)
        self.daemon.ctl("port", "add", endpoint, "--algorithm", algorithm)
        for place, number in enumerate(servers):
            weight = ["--weight", weights[place]] if weights else []
            self.daemon.ctl("server", "add", endpoint, self.server_address(number), *weight)
        for number in servers:
            self.daemon.wait_neighbour(self.server_address(number))


class Pair(Basic):
    """Basic with a second forwarder, and a link of their own between the two for heartbeats.

    Both are told the same cluster and the same ports (`ports`: number -> algorithm), whose
    connections and clients are replicated; the servers of some (`nat_ports`) are reached by NAT.
    They run in the background, where a broken invariant ends nothing.
    """

    FORWARDERS = ("10.0.0.2", "10.0.0.3")
    BEATS = ("10.9.0.1", "10.9.0.2")
    ROLES = ("primary", "backup")
    BEAT_PORT = 4647
    RETURN = "10.0.0.50"  # NAT's return address; no node has it
    REPLICATION = {"connection": "connections", "affinity": "affinity", "conn-affin": "both"}

    def __init__(self, lab, ports, nat_ports=(), **kwargs):
        self.ports = ports
        self.nat_ports = nat_ports
        self.daemons = [None, None]
        super().__init__(lab, **kwargs)

    def _make_segment(self):
        return Segment(self.lab, "net", pinned=True)

    def _add_wires(self):
        self.forwarders = [self.forwarder, self._add_forwarder("fwd2", self.FORWARDERS[1])]
        self.beat = Segment(self.lab, "beat", pinned=True)
        for node, address in zip(self.forwarders, self.BEATS):
            node.attach(self.beat, f"{address}/24")
            # No socket is bound to the port: without this the kernel would answer each heartbeat
            # with an ICMP error.
            node.run(["nft", "add table ip ha; "
                      "add chain ip ha in { type filter hook input priority 0; }; "
                      f"add rule ip ha in udp dport {self.BEAT_PORT} drop"])

    def commands(self, which, takeover="manual"):
        """What node 0 (the primary) or 1 (the backup) must be told, as vellbctl's words.

        The role comes before the cluster, which a node without one would announce at once, and
        automatic last: as soon as it hears the partner the node takes over with what it knows.
        """
        lines = ["interface sync", f"executor set {' '.join(self.gateway_words())}",
                 f"heartbeat add {self.BEATS[which]} {self.BEATS[1 - which]}",
                 f"ha set --role {self.ROLES[which]} --port {self.BEAT_PORT} "
                 "--replication connections",
                 f"cluster add {self.CLUSTER}"]
        for port, algorithm in self.ports.items():
            there = f"{self.host()}:{port}"
            lines.append(f"port add {there} --algorithm {algorithm} "
                         f"--replication {self.REPLICATION[algorithm]}")
            for number in range(1, len(self.servers) + 1):
                server = self.server_address(number)
                nat = f" --nat --return-address {self.RETURN} --router-address {server}"
                lines.append(f"server add {there} {server} --weight 1"
                             + (nat if port in self.nat_ports else ""))
        return lines + ([] if takeover == "manual" else [f"ha set --takeover {takeover}"])

    def start_node(self, which, takeover="manual", mask=0x300, tell=None, **kwargs):
        """Starts a node's daemon and tells it what commands() say, by tell(node, words) if given."""
        daemon = self.launch(which, mask, **kwargs)
        for line in self.commands(which, takeover):
            if tell:
                tell(self.forwarders[which], line)
            else:
                daemon.ctl(line)
        for number in range(1, len(self.servers) + 1):
            daemon.wait_neighbour(self.server_address(number))
        return daemon

    def launch(self, which, mask=0x300, **kwargs):
        """Starts a node's daemon, which knows nothing yet."""
        self.daemons[which] = BackgroundDaemon(self.forwarders[which], mask=mask, **kwargs).start()
        return self.daemons[which]

    def start_pair(self, **kwargs):
        """Starts both; returns once the primary is active and the backup stands by."""
        for which in (0, 1):
            self.start_node(which, **kwargs)
        self.wait_states("active", "standby")
        return self.daemons

    def state(self, which):
        """What a node says of itself: active, standby, n/a; None while it is not there."""
        daemon = self.daemons[which]
        if daemon is None or not daemon.alive():
            return None
        return daemon.ctl_json("ha", "show")["high_availability"]["state"]

    def wait_states(self, *states, timeout=15):
        """Waits until the nodes are in these states; None stands for a dead one."""
        wait_until(lambda: tuple(self.state(which) for which in (0, 1)) == states, timeout,
                   f"the nodes to be {states}", interval=0.05)


class Routed(Basic):
    """Clients on another segment, behind a router that is the client gateway."""

    CLIENT = "192.168.7.10"
    ROUTER = "192.168.7.1"
    FRONT = "192.168.7.0/24"

    def _add_clients(self):
        self.front = Segment(self.lab, "front")
        self.router = self._add_node("router", self.net, self.GATEWAY, self.front, self.ROUTER)
        self.router.sysctl(net__ipv4__ip_forward=1, net__ipv4__conf__all__send_redirects=0,
                           net__ipv4__conf__eth0__send_redirects=0,
                           net__ipv6__conf__all__forwarding=int(self.ipv6))
        self.client = self._add_node("client", self.front, self.CLIENT)
        self._add_route(self.client, self.ROUTER)
        self._add_routes()

    def _add_routes(self):
        for node in [self.forwarder, *self.servers]:
            self._add_route(node, self.GATEWAY)


class Far(Routed):
    """Routed, with the servers on a segment of their own ("back") behind the router `far`.

    They are reached by NAT or, with a decapsulator on each, by a tunnel. Every server has the
    cluster address as well, which only tunnels need.
    """

    FAR = "10.0.0.9"
    BACK = "10.1.0.0/24"
    BACK_GATEWAY = "10.1.0.1"
    RETURN = "10.0.0.50"  # NAT's return address; no node has it
    SERVERS = "10.1.0.1{}"

    def _add_wires(self):
        self.back = Segment(self.lab, "back")
        self.far = self._add_node("far", self.net, self.FAR, self.back, self.BACK_GATEWAY)
        self.far.sysctl(net__ipv4__ip_forward=1, net__ipv4__conf__all__rp_filter=0,
                        net__ipv4__conf__eth0__rp_filter=0, net__ipv4__conf__eth1__rp_filter=0,
                        net__ipv4__conf__all__send_redirects=0,
                        net__ipv4__conf__eth0__send_redirects=0,
                        net__ipv6__conf__all__forwarding=int(self.ipv6))
        self._add_route(self.far, self.GATEWAY)

    def _add_server(self, number):
        server = self._own_cluster(self._add_node(f"server{number}", self.back,
                                                  self.server_address(number)))
        self._add_route(server, self.BACK_GATEWAY)
        return server

    def _add_routes(self):
        self._add_route(self.forwarder, self.GATEWAY)
        self._add_route(self.forwarder, self.FAR, self.BACK)

    def configure_far(self, mode, port=80, algorithm="connection", servers=None):
        """One more port whose servers (1, 2, ...; default all) are reached by nat, gre or ipip."""
        words = {"nat": ["--nat", "--return-address", self.RETURN, "--router-address", self.FAR],
                 "gre": ["--encap", "gre"], "ipip": ["--encap", "ipip"]}[mode]
        servers = servers or range(1, len(self.servers) + 1)
        self.configure(port, algorithm, servers=[])
        for number in servers:
            address = self.server_address(number)
            self.daemon.ctl("server", "add", f"{self.host()}:{port}", address, *words)
            if mode == "nat":
                self.daemon.wait_neighbour(address)
