"""Long-lived TCP sessions that carry numbered data, so that loss, mixing and an end show.

The client is one process in the client's node, the echo servers are one in each server's node; see
lab.session_program. The lab ends them.
"""

import collections
import json
import pathlib
import subprocess

from lab.core import LabError

PROGRAM = pathlib.Path(__file__).with_name("session_program.py")
Session = collections.namedtuple("Session", "server port blocks ended")


def _start(node, *words, **kwargs):
    source = PROGRAM.read_text(encoding="utf-8")
    return node.popen(["/usr/bin/python3", "-c", source, *words], stdout=subprocess.PIPE, text=True, **kwargs)


class LongSessions:
    """Echo servers on every server of a topology, and a client for them."""

    def __init__(self, net, ports, patience_s=6):
        any_address = "::" if ":" in net.CLUSTER else "0.0.0.0"
        self._servers = [_start(server, "serve", server.name, any_address, *ports)
                         for server in net.servers]
        for server in self._servers:
            if server.stdout.readline() != "ready\n":
                raise LabError("an echo server did not start; what it said stands above")
        self._client = _start(net.client, "drive", net.CLUSTER, str(patience_s),
                              stdin=subprocess.PIPE)

    def _ask(self, *words):
        print(*words, file=self._client.stdin, flush=True)
        answer = self._client.stdout.readline()
        if not answer:
            raise LabError("the client of the sessions ended; what it said stands above")
        return json.loads(answer)

    def open(self, port, count, source=""):
        """Opens sessions, from an address if one is given: how they are, once they have begun."""
        return [Session(**found) for found in self._ask("open", port, count, source)]

    def visit(self, port, count, source=""):
        """How many of `count` short connections, from an address if one is given, each server took."""
        return collections.Counter(self._ask("visit", port, count, source))

    def show(self):
        """Every session in the order in which they were opened."""
        return [Session(**found) for found in self._ask("show")]

    def pauses(self):
        """The longest time that each session was silent since this was last asked, in seconds."""
        return self._ask("pauses")
