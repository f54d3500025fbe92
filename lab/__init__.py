"""A network laboratory in namespaces: the forwarder, its clients and its servers on one machine.

        segment "front" 192.168.7.0/24              (only in the topology Routed)
     +----------------+
     |  client        |  192.168.7.10        +----------+
     +----------------+ ---------------------|  router  |
                                             +----------+
                                                  | 10.0.0.1    (topology Basic: the client itself
                                                  |              sits here and has this address)
        segment "net" 10.0.0.0/24                 |
     ---+--------------+------------------+-------+----------+--------------------+--------------
        | 10.0.0.2     | 10.0.0.11        | 10.0.0.12        | 10.0.0.13          :
     +-----+        +---------+        +---------+        +---------+             :
     | fwd |        | server1 |        | server2 |        | server3 |        10.0.0.100
     +-----+        +---------+        +---------+        +---------+        the cluster address:
     vellb2          nginx              nginx              nginx             on no interface but
                     lo 10.0.0.100      lo 10.0.0.100      lo 10.0.0.100     the servers' lo

In the topology Far the servers stand on a third segment, behind a router of their own, and are
reached by NAT or by a tunnel:

        segment "net"                        segment "back" 10.1.0.0/24
     --+-----------------+------+       +------+------------------+------------------+-----------
       | 10.0.0.2        | .0.9 |  far  | 10.1.0.1                | 10.1.0.11        | 10.1.0.12
     +-----+             +------+-------+                    +---------+        +---------+
     | fwd |  NAT's return address 10.0.0.50:                | server1 |        | server2 |
     +-----+  on no interface                                +---------+        +---------+

Either is dual-stack if asked for, Basic(lab, ipv6=True): every host has an IPv6 address beside its
IPv4 one, 2001:db8::11 beside 10.0.0.11 ("front" is 2001:db8:7::/64, "back" 2001:db8:1::/64), and
what the object says of itself (CLUSTER, GATEWAY, server_address(), ...) and configures is IPv6.

In the topology Pair a second forwarder stands beside the first, and both have a link of their own
for heartbeats. The bridges know from the start who is where: a node of a pair forwards whatever
reaches it, so a flooded frame would be forwarded twice.

        segment "net" 10.0.0.0/24: client, servers as above
     --+------------------+--------------------
       | 10.0.0.2         | 10.0.0.3
     +-----+           +------+
     | fwd |           | fwd2 |      the primary and the backup
     +-----+           +------+
       | 10.9.0.1         | 10.9.0.2
     --+------------------+--------------------
        segment "beat" 10.9.0.0/24

A server takes packets out of tunnels with a small program (lab.decap): a raw socket in, a tun
device out, so that no tunnel devices of the kernel are needed. Routers pass on less than their links
carry where a test says so (Node.limit_mtu).

A node is a network namespace, an IPC namespace and a private root directory, because the daemon's
command socket and its single-instance guard are machine-wide names. A segment is a bridge in a
namespace of its own; nothing is ever plugged into the host. Every name begins with "vb", the
process number and "-", every file lies below /run/vellb2-lab/<process number>.

The lab takes away what it made whatever happens: at the end of the `with` block, on Ctrl-C, SIGTERM
and SIGHUP, and, when the lab itself was killed, at the start of the next one (a lab is dead when
nobody holds the lock of its directory). `python3 -m lab clean` does the last by hand.

    with Lab() as lab:
        net = Basic(lab)
        net.start_web()
        daemon = net.start_daemon()
        daemon.ctl("cluster", "add", net.CLUSTER)
        net.client.run(["curl", "-s", f"http://{net.CLUSTER}/"])
"""

from lab.core import Lab, LabError, Terminated, build_dir, sanitized, wait_until
from lab.daemon import BackgroundDaemon, Control, Daemon, Program
from lab.frames import Capture, Injector
from lab.node import Node, Segment, ipv6_of, mac_of
from lab.ping import Pings
from lab.topology import Basic, Far, Pair, Routed

__all__ = ["BackgroundDaemon", "Basic", "Capture", "Control", "Daemon", "Far", "Injector", "Lab",
           "LabError", "Node", "Pair", "Pings", "Program", "Routed", "Segment", "Terminated",
           "build_dir", "ipv6_of", "mac_of", "sanitized", "wait_until"]
