"""The demonstration of a pair: a download goes on while the active node is killed under it."""

import subprocess
import time

import steps
from lab import LabError, Pair, Pings, wait_until
from lab.failover import ECHO, PORTS, WEB, Clients

BODY = 20 << 20
KILLED_AT_S = 3
SESSIONS = 12
BAR = 40


def configure(net, command):
    """Both nodes, from empty daemons; the second one's words are shown where they differ."""
    print("\n  The configuration, as typed on the first node, the primary:\n")
    net.start_node(0, tell=command)
    print("\n  On the second node the same, but:\n")
    first = net.commands(0)
    net.start_node(1, tell=lambda node, words: command(node, words, show=words not in first))
    net.wait_states("active", "standby")
    print()


def standings(net):
    """The nodes' states as words."""
    return [net.state(which) or "killed" for which in (0, 1)]


def report_progress(begin, net, size):
    """One line of the picture."""
    bar = "#" * (BAR * size // BODY)
    states = "  ".join(f"{state:<8}" for state in standings(net))
    print(f"  {time.monotonic() - begin:>5.1f} s   {states}"
          f"  {bar:<{BAR}} {size / (1 << 20):>5.1f} MB", flush=True)


def download(net):
    """A download with the active node's end in the middle: the seconds of silence, and of it all."""
    into = net.client.root / "download"
    begin, shown, killed = time.monotonic(), 0.0, False
    pings = Pings(net.client, net.CLUSTER)
    curl = net.client.popen(["curl", "-sS", "-N", "-o", "/download",
                             f"http://{net.host()}:{WEB}/body"], stdout=subprocess.PIPE,
                            stderr=subprocess.STDOUT, text=True)
    while curl.poll() is None:
        now = time.monotonic()
        if not killed and now - begin >= KILLED_AT_S:
            killed = True
            words = f"fwd# kill -9 {net.daemons[0].pid}"
            print(f"          {steps.paint(words, 'red')}", flush=True)
            net.daemons[0].kill()
        if now - shown >= 0.5:
            shown = now
            report_progress(begin, net, into.stat().st_size if into.exists() else 0)
        if now - begin > 60:
            raise steps.StepFailed("the download did not end within a minute")
        time.sleep(0.05)
    report_progress(begin, net, into.stat().st_size)
    if curl.returncode != 0 or into.stat().st_size != BODY:
        raise steps.StepFailed(f"the download failed: curl ended with status {curl.returncode}: "
                               f"{curl.stdout.read().strip()}")
    return pings.stop(), time.monotonic() - begin


def expect_sessions(clients, when):
    """Every session is there and carries data."""
    ended = clients.progress()
    if ended:
        raise steps.StepFailed(f"{len(ended)} of {SESSIONS} sessions ended {when}: "
                               f"{ended[0].ended}")


def run(lab, command):
    """The whole demonstration."""
    with steps.Step("lab: a client, two forwarders' hosts and three nginx servers in namespaces"):
        net = Pair(lab, PORTS)
    configure(net, command)
    with steps.Step(f"{SESSIONS} sessions opened, each with data on its way all the time"):
        clients = Clients(net, {ECHO: SESSIONS}, BODY)
    print(f"\n  client# curl http://{net.host()}/body\n\n"
          f"  {'':>7}   {'fwd':<8}  {'fwd2':<8}  received")
    silence, took = download(net)
    expect_sessions(clients, "when the active node was killed")
    said = net.daemons[1].wait_log("HA TAKEOVER.*").group()
    print(f"\n  fwd2's log: {said}")
    with steps.Step("the first node started again: by its strategy, manual, it stands by"):
        net.start_node(0)
        net.wait_states("standby", "active")
    command(net.forwarders[0], "ha takeover")
    try:
        wait_until(lambda: standings(net) == ["active", "standby"], 10, "the second node to yield")
    except LabError as e:
        raise steps.StepFailed(f"the nodes are {standings(net)} after the takeover") from e
    expect_sessions(clients, "when the first node was told to take over")
    print()
    for line in command(net.forwarders[0], "ha show").splitlines():
        print(f"    {line}".rstrip())
    print(f"""
  What happened: fwd, the active node, told fwd2 of every connection. When it was killed, fwd2 heard
  nothing of it for longer than the time-out of 2 s, took {net.CLUSTER} over and announced it. For
  {silence:.1f} s no echo request was answered; then the download went on and was whole after
  {took:.0f} s, and {SESSIONS} sessions carried on, too. When fwd came back it waited to be told, and learned all
  connections from fwd2.""")
    for which in (0, 1):
        net.daemons[which].stop()
