"""Shows vellb2 at work: HTTP requests from a client to a cluster address that no host owns are
spread over three real web servers; then long sessions stay with their servers while one of these is
drained.

--mode says how packets get to the servers, and the demonstration what to look at: "direct" by their
hardware addresses on the same segment, the answers straight to the client; "nat" with translated
addresses through a router and back; "gre" and "ipip" inside other packets through a router, the
answers straight to the client. -6 shows it over IPv6, which goes with "direct" and "nat".

--ha shows a pair of forwarders instead: a download goes on while the active one is killed.
--control shows the control server: one file, changed under load, and a forwarder that is killed.

Needs root. Installs missing packages, builds the daemon and vellbctl, makes a small network of
namespaces on this machine, and takes it away again. Nothing is plugged into the host's network.
"""

import argparse
import collections
import os
import shlex
import signal
import sys

sys.dont_write_bytecode = True
import steps  # noqa: E402

sys.path.insert(0, str(steps.REPO))
import demo_control  # noqa: E402
import demo_ha  # noqa: E402
from demo_modes import MODES, WEIGHTS  # noqa: E402
from lab import Lab, LabError, mac_of, wait_until  # noqa: E402
from lab.core import RUN  # noqa: E402
from lab.sessions import LongSessions  # noqa: E402

LOGS = steps.REPO / "build/demo"
ECHO, SESSIONS, VISITS = 7, 12, 30
DRAINED = "server2"


def command(node, words, show=True):
    """Runs a vellbctl command in a node and shows it as a person would type it."""
    if show:
        print(f"    {steps.paint(node.name + '#', 'dim')} vellbctl {words}", flush=True)
    done = node.run(["/build/vellbctl", *shlex.split(words)], check=False)
    if done.returncode != 0:
        raise steps.StepFailed(f"exit status {done.returncode}: vellbctl {words}\n"
                               f"{done.stdout}{done.stderr}")
    return done.stdout


def configure(net, mode):
    """From an empty daemon to a served port."""
    node, port = net.forwarder, f"{net.host()}:80"
    lines = ["interface sync", f"executor set {' '.join(net.gateway_words())}",
             f"cluster add {net.CLUSTER}", f"port add {port} --algorithm {mode.algorithm}"]
    lines += [f"server add {port} {net.server_address(i)} --weight {weight} {mode.words(net)}".rstrip()
              for i, weight in enumerate(WEIGHTS, start=1)]
    for line in lines:
        command(node, line)


def request(net, count, step):
    """Sends the requests, each on a connection of its own: [(server's name, client port)]."""
    answers = []
    for start in range(1, count + 1, 500):
        end = min(start + 499, count)
        done = net.client.run(
            ["curl", "-sS", "-H", "Connection: close", "--connect-timeout", "3", "--max-time", "5",
             "-w", "%{http_code} %{local_port}\n", f"http://{net.host()}/[{start}-{end}]"],
            check=False)
        words = done.stdout.split()
        for name, status, port in zip(words[0::3], words[1::3], words[2::3]):
            if status == "200":
                answers.append((name, int(port)))
        if done.returncode != 0 or len(answers) != end:
            raise steps.StepFailed(f"{end - len(answers)} of {end} requests failed: "
                                   f"{done.stderr.splitlines()[0] if done.stderr else ''}")
        step.progress(f"{end} of {count}")
    return answers


def chosen_by(port):
    """The server that a client port stands for: the port modulo the sum of the weights."""
    rest = port % sum(WEIGHTS)
    for number, weight in enumerate(WEIGHTS, start=1):
        if rest < weight:
            return f"server{number}"
        rest -= weight
    raise AssertionError


def report(net, mode, answers, capture):
    """Who answered what; raises when it is not what the forwarder promises."""
    per_server = collections.Counter(name for name, _ in answers)
    shown = mode.evidence(net, capture)
    width = max(12, *(len(net.server_address(number)) for number in (1, 2, 3)))
    print(f"\n  {'server':<9} {'address':<{width}} {'hardware address':<19} {'weight':>6} {'requests':>9} "
          f"{'share':>6}  {mode.header}")
    for number, weight in enumerate(WEIGHTS, start=1):
        name, address = f"server{number}", net.server_address(number)
        share = per_server[name] / len(answers)
        print(f"  {name:<9} {address:<{width}} {mac_of(address):<19} {weight:>6} {per_server[name]:>9} "
              f"{share:>6.0%}  {shown[number]}")
    print(f"  {'forwarder':<9} {net.FORWARDER:<{width}} {mac_of(net.FORWARDER):<19} {'':>6} {'':>9} {'':>6}  "
          f"{shown[0]}".rstrip())
    misplaced = [(name, port) for name, port in answers
                 if mode.algorithm == "hash" and name != chosen_by(port)]
    if misplaced:
        name, port = misplaced[0]
        raise steps.StepFailed(f"{len(misplaced)} requests went to the wrong server, the first from "
                               f"client port {port} to {name} instead of {chosen_by(port)}")
    if not all(per_server[f"server{i}"] for i in (1, 2, 3)):
        raise steps.StepFailed("not every server answered")


def configure_echo(net, mode):
    """A port whose connections keep their server."""
    command(net.forwarder, f"port add {net.host()}:{ECHO} --algorithm connection")
    for number in (1, 2, 3):
        command(net.forwarder, f"server add {net.host()}:{ECHO} {net.server_address(number)} --weight 1 "
                f"{mode.words(net)}".rstrip())


def look(net, sessions, title):
    """How things are: what the clients say, and what the forwarder counts."""
    before = sessions.show()
    new = sessions.visit(ECHO, VISITS)
    try:
        wait_until(lambda: all(now.ended or now.blocks > then.blocks + 1
                               for then, now in zip(before, sessions.show())), 10, "data")
    except LabError as e:
        raise steps.StepFailed("a session no longer carries data") from e
    found = sessions.show()
    ended = [s.ended for s in found if s.ended]
    if ended:
        raise steps.StepFailed(f"{len(ended)} of {len(found)} sessions ended: {ended[0]}")
    open_on = collections.Counter(s.server for s in found)

    def counted():
        shown = net.daemon.ctl_json("server", "show", f"{net.host()}:{ECHO}")["servers"]
        active = {s["server"]: s["connections"]["active"] for s in shown}
        return active if sum(active.values()) == len(found) else None

    active = wait_until(counted, 10, "the short connections to be over")
    return {"title": title, "sessions": open_on, "new": new, "active": active,
            "carried": sum(s.blocks for s in found)}


def report_sessions(net, looks):
    """What stayed and what moved; raises when it is not what the forwarder promises."""
    print("\n" + " " * 11 + "".join(f"   {one['title']:<23}" for one in looks).rstrip())
    print(f"  {'server':<9}" + f"   {'sessions':>8} {'(active)':>8} {'new':>5}" * len(looks))
    for number in (1, 2, 3):
        name, address = f"server{number}", net.server_address(number)
        print(f"  {name:<9}" + "".join(f"   {one['sessions'][name]:>8} {one['active'][address]:>8} "
                                       f"{one['new'][name]:>5}" for one in looks))
    before, drained, back = looks
    if not before["sessions"] == drained["sessions"] == back["sessions"]:
        raise steps.StepFailed("sessions changed their server")
    if drained["new"][DRAINED] or not (before["new"][DRAINED] and back["new"][DRAINED]):
        raise steps.StepFailed(f"new connections went where they should not: {drained['new']}")
    for one in looks:
        if any(one["active"][net.server_address(i)] != one["sessions"][f"server{i}"] for i in (1, 2, 3)):
            raise steps.StepFailed(f"the forwarder counts other sessions than there are: {one['active']}")
    print(f"""
  What happened: {SESSIONS} sessions carried {back['carried']} blocks of numbered data without a fault. {DRAINED}'s weight
  fell to 0 and came back; its sessions stayed with it, as the clients say and as the forwarder counts
  (active), while {VISITS} new connections each time went to those with weight.""")


def show_sessions(net, mode):
    """The second scene: long sessions, and a server that is drained under them."""
    print("\n  Connections that stay: a second port, whose algorithm remembers each connection's server.\n")
    configure_echo(net, mode)
    weight = f"server set {net.host()}:{ECHO} {net.server_address(int(DRAINED[-1]))} --weight"
    with steps.Step(f"{SESSIONS} sessions opened, each with data on its way all the time"):
        sessions = LongSessions(net, [ECHO])
        sessions.open(ECHO, SESSIONS)
    looks = [look(net, sessions, "before")]
    command(net.forwarder, f"{weight} 0")
    looks.append(look(net, sessions, f"{DRAINED} has weight 0"))
    for line in command(net.forwarder, f"server show {net.host()}:{ECHO}").splitlines():
        print(f"    {line}".rstrip())
    command(net.forwarder, f"{weight} 1")
    looks.append(look(net, sessions, "weight 1 again"))
    report_sessions(net, looks)


def keep(net, lab):
    """Stays up until Ctrl-C."""
    print(f"""
  The lab stays up. In another terminal, as root, in {steps.REPO}:

    python3 -m lab shell client     then: curl http://{net.host()}/
    python3 -m lab shell fwd        then: vellbctl show; vellbctl --help
    ip netns exec {lab.name('server1')} tshark -i eth0
    tail -f {net.daemon.log_path}

  Ctrl-C takes it away.""", flush=True)
    signal.pause()


def show(args):
    """The demonstration proper."""
    mode = MODES[args.mode]
    log = LOGS / "daemon.log"
    log.unlink(missing_ok=True)
    with Lab() as lab:
        try:
            with steps.Step("lab: a client, the forwarder's host and three nginx servers in namespaces"):
                net = mode.make(lab, args.ipv6)
            with steps.Step("vellb2 started"):
                net.start_daemon(sync=False, log=log)
            print("\n  The configuration, as typed on the forwarder's host:\n")
            configure(net, mode)
            print()
            with mode.watch(net) as capture:
                with steps.Step(f"{args.requests} requests: client# curl http://{net.host()}/") as step:
                    answers = request(net, args.requests, step)
                report(net, mode, answers, capture)
            print()
            for line in command(net.forwarder, "show").splitlines():
                print(f"    {line}")
            print(mode.explain(net))
            show_sessions(net, mode)
            if args.keep:
                keep(net, lab)
            status = net.daemon.stop()
            if status != 0:
                raise steps.StepFailed(f"vellb2 ended with status {status}", log)
        except (LabError, steps.StepFailed) as e:
            raise steps.StepFailed(str(e), log if log.exists() else None) from e
    with steps.Step("everything taken away"):
        if (RUN / lab.ident).exists():
            raise steps.StepFailed(f"{RUN / lab.ident} is still there")


def show_other(scene):
    """The demonstration of a pair or of the control server."""
    with Lab() as lab:
        try:
            scene.run(lab, command)
        except LabError as e:
            raise steps.StepFailed(str(e)) from e
    with steps.Step("everything taken away"):
        if (RUN / lab.ident).exists():
            raise steps.StepFailed(f"{RUN / lab.ident} is still there")


def main():
    """The command line."""
    parser = argparse.ArgumentParser(prog="script/demo", description=__doc__,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--mode", choices=MODES, default="direct",
                        help="how packets get to the servers (default direct)")
    parser.add_argument("-6", "--ipv6", action="store_true", help="over IPv6 (direct and nat)")
    parser.add_argument("--ha", action="store_true",
                        help="show a pair of forwarders, one of which is killed")
    parser.add_argument("--control", action="store_true", help="show the control server")
    parser.add_argument("--requests", type=int, default=1000, metavar="N",
                        help="how many HTTP requests the client sends (default 1000)")
    parser.add_argument("--keep", action="store_true", help="leave the lab up until Ctrl-C")
    args = parser.parse_args()
    if not 10 <= args.requests <= 100000:
        parser.error(f"argument --requests: {args.requests} is not from 10 to 100000")
    if args.ipv6 and not MODES[args.mode].ipv6:
        parser.error(f"argument -6/--ipv6: {args.mode} tunnels carry IPv4 only")
    if args.ha + args.control + (args.keep or args.ipv6 or args.mode != "direct") > 1:
        parser.error("--ha and --control go with nothing else but --requests")
    if os.geteuid() != 0:
        raise steps.StepFailed("network namespaces need root: run it as root")
    steps.bootstrap()
    with steps.Step("packages"):
        pass
    os.environ.pop("VELL_BUILD", None)
    with steps.Step("build (build/release)") as step:
        steps.build("release", ["vellb2", "vellbctl", "cpserver"], step, LOGS / "build.log")
    if args.ha or args.control:
        show_other(demo_ha if args.ha else demo_control)
    else:
        show(args)
    return 0


if __name__ == "__main__":
    steps.finish(main)
