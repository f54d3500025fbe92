"""Interfaces: what the daemon is told of them, and what the kernel says."""

import ipaddress
import json

from lab import Basic, mac_of


def make_net(lab):
    """Dual-stack: `interface sync` reads both kinds of addresses."""
    return Basic(lab, ipv6=True)


def kernel_view(node):
    """Interfaces but loopbacks as the kernel tells them: {name: (MAC, MTU, up, [address/prefix])}."""
    return {link["ifname"]: (link["address"], link["mtu"], "UP" in link["flags"],
                             sorted(f"{a['local']}/{a['prefixlen']}" for a in link["addr_info"]
                                    if not ipaddress.ip_address(a["local"]).is_multicast))
            for link in json.loads(node.ip("-json", "address", "show")) if link["link_type"] != "loopback"}


def daemon_view(daemon):
    """The same as the daemon has it."""
    return {i["interface"]: (i["mac"], i["mtu"], i["up"] in (True, "yes"),
                             sorted(f"{a['address']}/{a['prefix']}" for a in i["addresses"]))
            for i in daemon.ctl_json("interface show")["interfaces"]}


CHANGES = [
    ("an interface comes", ["link add eth1 address 02:00:00:00:01:01 type bridge",
                            "address add 10.1.0.2/24 dev eth1", "link set eth1 up"]),
    ("an address comes", ["address add 10.2.0.2/16 dev eth1"]),
    ("the MTU changes", ["link set eth1 mtu 1400"]),
    ("the hardware address changes", ["link set eth1 address 02:00:00:00:01:02"]),
    ("an address changes its prefix", ["address del 10.2.0.2/16 dev eth1", "address add 10.2.0.2/24 dev eth1"]),
    ("an address goes", ["address del 10.2.0.2/24 dev eth1"]),
    ("an IPv6 address comes", ["address add 2001:db8:2::2/64 dev eth1"]),
    ("an IPv6 address with a far end comes", ["address add 2001:db8:3::1 peer 2001:db8:3::2 dev eth1"]),
    ("an IPv6 address goes, and a group comes", ["address add ff02::1:ff00:100/128 dev eth1 autojoin",
                                                 "address del 2001:db8:2::2/64 dev eth1"]),
    ("the interface goes down", ["link set eth1 down"]),
    ("the interface is renamed", ["link set eth1 name uplink"]),
    ("the interface goes", ["link del uplink"]),
]


def test_sync_follows_the_kernel(net, daemon):
    node = net.forwarder
    own = ["10.0.0.2/24", "2001:db8::2/64", "fe80::aff:fe00:2/64"]
    assert daemon_view(daemon) == kernel_view(node) == {"eth0": (mac_of("10.0.0.2"), 1500, True, own)}
    for what, lines in CHANGES:
        for line in lines:
            node.ip(*line.split())
        assert daemon_view(daemon) != kernel_view(node), what
        planned = daemon.ctl_json("interface sync --dry-run")["steps"]
        assert planned and daemon_view(daemon) != kernel_view(node), what
        assert daemon.ctl_json("interface sync")["steps"] == planned, what
        assert daemon_view(daemon) == kernel_view(node), what
        assert daemon.ctl_json("interface sync")["steps"] == [], what
