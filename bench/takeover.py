"""Kills the active node of a pair again and again, and asks the clients what they felt.

lab.failover has the clients: sessions that stay open all the time, a download for each kill, echo
requests. After each kill the node is started again and told to take over, so that the sessions pass
through every kill.
"""

import statistics

from lab import Lab, Pair
from lab.failover import ECHO, ESTABLISHED_S, PORTS, Clients, kill, tell

SESSIONS = 200


def run(rounds, progress):
    """The figures of so many rounds."""
    with Lab() as lab:
        net = Pair(lab, PORTS)
        net.start_pair()
        clients = Clients(net, {ECHO: SESSIONS})
        felt, told = [], []
        for number in range(1, rounds + 1):
            felt.append(clients.outage(lambda: kill(net, 0)))
            net.start_node(0)
            net.wait_states("standby", "active")
            clients.sessions.pauses()
            tell(net, 0)
            clients.progress()
            told.append(max(clients.sessions.pauses()))
            progress(f"kill {number} of {rounds}")
        lost = len([s for s in clients.sessions.show() if s.ended])
        for which in (0, 1):
            net.daemons[which].stop()
    return {"rounds": rounds, "sessions": SESSIONS, "established_s": ESTABLISHED_S,
            "lost": lost, "downloads_failed": sum(f.download_s is None for f in felt),
            "silence_s": _spread([f.silence_s for f in felt]),
            "pause_s": _spread([f.pause_s for f in felt]), "told_pause_s": _spread(told)}


def _spread(values):
    return {"median": statistics.median(values), "worst": max(values), "all": values}
