"""TCP between the client and whatever server the cluster's port leads to."""

import contextlib
import select
import socket
import time


class Connector:
    """Makes connections from the client to a port of the cluster, on which servers listen."""

    def __init__(self, net, port, servers):
        self.net, self.port = net, port
        self.listeners = []
        for server in servers:
            self.listeners.append(server.socket(net.family, socket.SOCK_STREAM))
            self.listeners[-1].bind(("", port))
            self.listeners[-1].listen()

    def __call__(self, *options):
        """Both ends of a new one, and the server's place; `options` are set at the client's end."""
        client = self.net.client.socket(self.net.family, socket.SOCK_STREAM)
        client.settimeout(5)
        for option in options:
            client.setsockopt(*option)
        client.connect((self.net.CLUSTER, self.port))
        ready = select.select(self.listeners, [], [], 5)[0][0]
        accepted, _ = ready.accept()
        accepted.settimeout(5)
        return client, accepted, self.listeners.index(ready)


def transfer(sender, receiver, data, timeout=10):
    """Sends all data through a connection in full frames; it must arrive whole."""
    sender.setblocking(False)
    sent, got, end = 0, bytearray(), time.monotonic() + timeout
    while len(got) < len(data) and time.monotonic() < end:
        with contextlib.suppress(BlockingIOError):
            sent += sender.send(data[sent:sent + 200_000])
        got += receiver.recv(1 << 20)
    sender.settimeout(5)
    assert bytes(got) == data
