"""What clients feel when the nodes of a pair change places: open sessions, a long download and a
stream of echo requests, all at once.
"""

import collections
import subprocess
import time

from lab.core import LabError, wait_until
from lab.ping import Pings
from lab.sessions import LongSessions

ECHO, WEB = 7, 80
PORTS = {ECHO: "connection", WEB: "connection"}
ESTABLISHED_S = 2  # a record is told to the partner at the next tick but one, at the latest
BODY = 16 << 20
BODY_PER_S = 2 << 20  # so that the download begins before an outage and ends after it
PATIENCE_S = 20  # TCP waits for longer and longer between its attempts

# silence_s: the longest time without an echo reply. pause_s: the longest pause of any session, in
# which TCP's own waiting is included. lost: sessions that ended. download_s: None if it failed.
Outage = collections.namedtuple("Outage", "silence_s pause_s lost download_s")


class Clients:
    """The sessions of a pair's client, and what else it does during an outage."""

    def __init__(self, net, counts, body=BODY):
        """Opens sessions: counts says how many on which port."""
        self.net = net
        for server in net.servers:
            server.start_web((WEB,), body, BODY_PER_S)
        self.sessions = LongSessions(net, tuple(counts), patience_s=PATIENCE_S)
        for port, count in counts.items():
            ended = [s.ended for s in self.sessions.open(port, count) if s.ended]
            if ended:
                raise LabError(f"{len(ended)} of {count} sessions to port {port} did not open: "
                               f"{ended[0]}")

    def progress(self, blocks=3):
        """Waits until every session has carried some more or ended; those that ended."""
        before = self.sessions.show()
        now = wait_until(lambda: self._moved(before, blocks), PATIENCE_S + 10,
                         "every session to carry data", interval=0.1)
        return [s for s in now if s.ended]

    def _moved(self, before, blocks):
        now = self.sessions.show()
        moved = all(n.ended or n.blocks >= b.blocks + blocks for b, n in zip(before, now))
        return now if moved else None

    def outage(self, change):
        """Has the pair change places under load, change() says how; what the clients felt."""
        lost_before = len([s for s in self.sessions.show() if s.ended])
        begin = time.monotonic()
        download = self.net.client.popen(
            ["curl", "-sS", "-o", "/dev/null", "-w",
             "%{http_code} %{size_download}", f"http://{self.net.host()}:{WEB}/body"],
            stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
        # Time itself is what is waited for: only what is older than this must outlive the change.
        time.sleep(max(0, begin + ESTABLISHED_S - time.monotonic()))
        self.sessions.pauses()
        pings = Pings(self.net.client, self.net.CLUSTER)
        wait_until(lambda: time.monotonic() - begin > ESTABLISHED_S + 0.5, 2,
                   "pings before the change")
        change()
        ended = self.progress()
        said, _ = download.communicate(timeout=BODY / BODY_PER_S + PATIENCE_S + 10)
        whole = said == f"200 {BODY}"
        return Outage(pings.stop(), max(self.sessions.pauses()), len(ended) - lost_before,
                      time.monotonic() - begin if whole else None)


def kill(net, which):
    """kill -9 to the active node; returns when the other one is active."""
    net.daemons[which].kill()
    states = [None, None]
    states[1 - which] = "active"
    net.wait_states(*states)


def tell(net, which):
    """Tells a standby to take over; returns when both have changed."""
    net.daemons[which].ctl("ha", "takeover")
    states = ["standby", "standby"]
    states[which] = "active"
    net.wait_states(*states)
