"""Configuration: vellbctl and the raw protocol on one side, what the kernel says on the other."""

import ipaddress
import json
import struct

import pytest

from lab import Basic, command, mac_of

CLUSTER = "10.0.0.100"
MANY = 1168  # addresses of one interface that a GET can list


def make_net(lab):
    """Dual-stack: `interface sync` reads both kinds of addresses."""
    return Basic(lab, ipv6=True)


def iface_block(mac="02:00:00:00:00:99", mtu=1500):
    """An interface's settable block: MAC, both MTUs, up, up, ARP, no loopback, not point-to-point."""
    return struct.pack("=6s2xII5B3x4x", bytes.fromhex(mac.replace(":", "")), mtu, mtu, 1, 1, 1, 2, 2)


def names_of(children):
    """Interface names and addresses of child keys."""
    return [(key[:32].rstrip(b"\0").decode(), str(ipaddress.IPv4Address(key[40:44]))) for key in children]


@pytest.fixture(name="tree")
def _tree(daemon):
    """A cluster with two ports, and two servers behind the first; taken away afterwards."""
    daemon.ctl("cluster", "add", CLUSTER)
    for port in (80, 443):
        daemon.ctl("port", "add", f"{CLUSTER}:{port}")
    for server in ("10.0.0.12", "10.0.0.11"):
        daemon.ctl("server", "add", f"{CLUSTER}:80", server)
    yield daemon
    daemon.ctl("cluster", "rm", CLUSTER, "--recursive", check=False)


# --- GET ------------------------------------------------------------------------------------------


def test_get_lists_children_in_the_order_of_their_adding(tree):
    for cluster in ("10.0.0.120", "10.0.0.101"):
        tree.ctl("cluster", "add", cluster)
    root = tree.command(command.GET, command.config_key())
    assert [k[8:12] for k in root["children"]] == [ipaddress.IPv4Address(a).packed
                                                   for a in (CLUSTER, "10.0.0.120", "10.0.0.101")]
    port = tree.command(command.GET, command.config_key(CLUSTER, 80))
    assert port["children"] == [command.config_key(CLUSTER, 80, 0, a) for a in ("10.0.0.12", "10.0.0.11")]
    cluster = tree.command(command.GET, command.config_key(CLUSTER))
    assert cluster["children"] == [command.config_key(CLUSTER, 80), command.config_key(CLUSTER, 443)]
    for cluster in ("10.0.0.120", "10.0.0.101"):
        tree.ctl("cluster", "rm", cluster)
    assert [s["server"] for s in tree.servers()] == ["10.0.0.12", "10.0.0.11"]


SIZES = {
    "executor": (command.config_key(), command.CONFIG, (0, 712, 280)),
    "cluster": (command.config_key(CLUSTER), command.CONFIG, (8, 280, 104)),
    "port": (command.config_key(CLUSTER, 80), command.CONFIG, (8, 24, 96)),
    "server": (command.config_key(CLUSTER, 80, 0, "10.0.0.11"), command.CONFIG, (56, 704, 96)),
    "collection": (command.iface_key(), command.IFACE, (0, 4, 4)),
    "interface": (command.iface_key("eth0"), command.IFACE, (0, 28, 4)),
    "address": (command.iface_key("eth0", "10.0.0.2", 24), command.IFACE, (0, 24, 4)),
}


@pytest.mark.parametrize("name", SIZES)
def test_blocks_have_their_sizes(tree, name):
    key, keytype, sizes = SIZES[name]
    answer = tree.command(command.GET, key, keytype)
    assert (answer["rc"], answer["key"]) == (1, key)
    assert (answer["addsize"], answer["setsize"], answer["getsize"]) == sizes


def test_1168_addresses_of_an_interface_fit_one_get(daemon):
    daemon.command(command.ADD, command.iface_key("many"), command.IFACE, settings=iface_block())
    wanted = [("many", str(ipaddress.IPv4Address("172.20.0.0") + 7 * i)) for i in range(MANY + 1)]
    try:
        for _, address in wanted[:MANY]:
            key = command.iface_key("many", address, 16)
            assert daemon.command(command.ADD, key, command.IFACE, settings=bytes(24))["rc"] == 1
        answer = daemon.command(command.GET, command.iface_key("many"), command.IFACE)
        assert answer["listsize"] == MANY * 56
        assert names_of(answer["children"]) == wanted[:MANY]
        # One more finds no room and is left out; the others are still there.
        key = command.iface_key("many", wanted[MANY][1], 16)
        assert daemon.command(command.ADD, key, command.IFACE, settings=bytes(24))["rc"] == 1
        answer = daemon.command(command.GET, command.iface_key("many"), command.IFACE)
        assert names_of(answer["children"]) == wanted[:MANY]
    finally:
        for _, address in wanted:
            daemon.command(command.RM, command.iface_key("many", address), command.IFACE)
        assert daemon.command(command.RM, command.iface_key("many"), command.IFACE)["rc"] == 1


# --- Answer codes ---------------------------------------------------------------------------------

BAD_ADDRESS = struct.pack("=BB6x16s", 5, 0, bytes(16))
RAW = {
    "done": ((command.GET, command.config_key()), 1),
    "no such action": ((5, command.config_key()), 2),
    "action 0": ((0, command.config_key()), 2),
    "the executor is there": ((command.ADD, command.config_key()), 3),
    "the collection is there": ((command.ADD, command.iface_key(), command.IFACE), 3),
    "cluster twice": ((command.ADD, command.config_key(CLUSTER)), 4),
    "server twice": ((command.ADD, command.config_key(CLUSTER, 80, 0, "10.0.0.11")), 4),
    "port of no cluster": ((command.ADD, command.config_key("10.0.0.109", 80)), 5),
    "server of no port": ((command.ADD, command.config_key(CLUSTER, 81, 0, "10.0.0.11")), 5),
    "address of no interface": ((command.ADD, command.iface_key("eth7", "10.7.0.1", 24), command.IFACE), 5),
    "get what is not there": ((command.GET, command.config_key("10.0.0.109")), 6),
    "set what is not there": ((command.SET, command.config_key(CLUSTER, 81)), 6),
    "remove what is not there": ((command.RM, command.config_key(CLUSTER, 80, 0, "10.0.0.14")), 6),
    "cluster with ports": ((command.RM, command.config_key(CLUSTER)), 7),
    "port with servers": ((command.RM, command.config_key(CLUSTER, 80)), 7),
    "interface with addresses": ((command.RM, command.iface_key("eth0"), command.IFACE), 7),
    "key type 0": ((command.GET, command.config_key(), 0), 10),
    "key type 3": ((command.GET, command.config_key(), 3), 10),
    "address of no version": ((command.GET, BAD_ADDRESS + bytes(32)), 10),
    "heartbeat between IP versions": ((command.ADD, command.config_key("10.0.0.2", 0, 0, "2001:db8::3")),
                                      10),
    "settings one byte short": ((command.SET, command.config_key(CLUSTER, 80), command.CONFIG, b"",
                                 bytes(23)), 10),
    "settings one byte long": ((command.SET, command.config_key(CLUSTER, 80), command.CONFIG, b"",
                                bytes(25)), 10),
}


@pytest.mark.parametrize("name", RAW)
def test_answer_code(tree, name):
    arguments, code = RAW[name]
    before = tree.ctl("--json", "cluster", "show").stdout, tree.ctl("--json", "interface", "show").stdout
    answer = tree.command(*arguments)
    assert answer["rc"] == code
    if code != 1 and arguments[0] in (command.ADD, command.RM, command.SET) and name[:8] != "key type":
        assert [answer[k] for k in ("addsize", "setsize", "getsize", "listsize")] == [0, 0, 0, 0]
    assert before == (tree.ctl("--json", "cluster", "show").stdout,
                      tree.ctl("--json", "interface", "show").stdout)


OVERSIZED = {"an ADD that names a list": {"listsize": 56}, "an ADD that names readings": {"getsize": 4},
             "blocks beyond the payload": {"addsize": 65400}}


@pytest.mark.parametrize("name", OVERSIZED)
def test_add_with_wrong_sizes_is_refused(tree, name):
    key = command.config_key("10.0.0.110")
    assert tree.command(command.ADD, key, **OVERSIZED[name])["rc"] == 10
    assert tree.command(command.GET, key)["rc"] == 6


def test_an_add_is_possible_at_once_after_its_rm(tree):
    key = command.config_key(CLUSTER, 80, 0, "10.0.0.11")
    for _ in range(5):
        assert tree.command(command.RM, key)["rc"] == 1
        assert tree.command(command.GET, key)["rc"] == 6
        assert tree.command(command.ADD, key, add=bytes(56), settings=bytes(704))["rc"] == 1


# --- vellbctl -------------------------------------------------------------------------------------

REFUSED = {
    "cluster twice": (f"cluster add {CLUSTER}", "ALREADYEXISTS (4)"),
    "port of no cluster": ("port add 10.0.0.109:80", "PARENTDNE (5)"),
    "server that is not there": (f"server rm {CLUSTER}:80 10.0.0.14", "OBJNOTFOUND (6)"),
    "cluster with ports": (f"cluster rm {CLUSTER}", "HASCHILD (7)"),
}


@pytest.mark.parametrize("name", REFUSED)
def test_vellbctl_names_the_refusal(tree, name):
    words, code = REFUSED[name]
    done = tree.ctl(words, check=False)
    assert (done.returncode, done.stdout) == (1, "")
    assert code in done.stderr and len(done.stderr.strip()) > len(code) + 20  # and what to do
    answer = tree.ctl("--json " + words, check=False)
    assert answer.returncode == 1
    assert f"({json.loads(answer.stdout)['error']['code']})" in code


USAGE = {
    "unknown command": ("klaster add 10.0.0.1", "klaster"),
    "no address": ("cluster add 10.0.0.300", "10.0.0.300"),
    "no port": (f"port add {CLUSTER}", CLUSTER),
    "port out of range": (f"port add {CLUSTER}:70000", "70000"),
    "unknown algorithm": (f"port add {CLUSTER}:80 --algorithm random", "random"),
    "unknown option": (f"server add {CLUSTER}:80 10.0.0.11 --wieght 3", "--wieght"),
    "weight out of range": (f"server add {CLUSTER}:80 10.0.0.11 --weight 70000", "70000"),
    "word too many": (f"cluster add {CLUSTER} now", "now"),
}


@pytest.mark.parametrize("name", USAGE)
def test_vellbctl_names_the_wrong_word(tree, name):
    words, word = USAGE[name]
    done = tree.ctl(words, check=False)
    assert (done.returncode, done.stdout) == (2, "")
    assert word in done.stderr and "usage:" in done.stderr


def test_vellbctl_without_a_daemon(net, daemon):
    assert daemon.alive()
    done = net.forwarder.run(["vellbctl", "--socket", "/nowhere", "show"], check=False)
    assert (done.returncode, done.stdout) == (3, "")
    assert "/nowhere" in done.stderr


def test_even_weight_sum_is_warned_of(tree):
    tree.ctl("server", "set", f"{CLUSTER}:80", "10.0.0.11", "--weight", 1)
    done = tree.ctl("server", "set", f"{CLUSTER}:80", "10.0.0.12", "--weight", 1)
    assert done.returncode == 0 and "even" in done.stderr


def test_settings_come_back_as_set(tree):
    tree.ctl("executor", "set", "--client-gateway", "10.0.0.1", "--log-mask", "failures,forwarded")
    shown = tree.ctl_json("executor show")["executor"]
    assert shown["client_gateway"]["address"] == "10.0.0.1"
    assert shown["log_mask"] == 0x201
    tree.ctl("executor", "set", "--log-mask", "failures")
    tree.ctl("server", "set", f"{CLUSTER}:80", "10.0.0.11", "--weight", 7)
    weights = {s["server"]: s["weight"] for s in tree.servers()}
    assert weights == {"10.0.0.11": 7, "10.0.0.12": 10}


# --- interface sync -------------------------------------------------------------------------------


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
