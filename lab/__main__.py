"""python3 -m lab up|shell|list|clean: the lab for people."""

import argparse
import signal
import sys

from lab.core import RUN, Lab, LabError, build_dir, clean_leftovers, live_labs
from lab.node import enter_shell
from lab.topology import Basic, Routed


def up(args):
    """Brings a topology up, configured, and stays until Ctrl-C."""
    with Lab() as lab:
        net = (Routed if args.routed else Basic)(lab, ipv6=args.ipv6)
        net.start_web()
        if not args.no_daemon:
            net.start_daemon()
            net.configure()
        print(f"""lab {lab.ident} is up, with the programs of {build_dir()}.
In another terminal, for instance:

  python3 -m lab shell client            then: curl http://{net.host()}/
  python3 -m lab shell fwd               then: vellbctl show
  ip netns exec {lab.name('server1')} tshark -i eth0

nodes: {', '.join(lab.nodes)}
daemon's log: {'none' if args.no_daemon else net.daemon.log_path}
Ctrl-C takes everything away.""", flush=True)
        signal.pause()


def shell(args):
    """A shell in a node of a living lab."""
    for ident in reversed(live_labs()):
        if args.lab in (None, ident) and (RUN / ident / f"{args.node}.pid").exists():
            enter_shell(ident, args.node, RUN)
    raise LabError(f"no living lab has a node {args.node}; python3 -m lab list shows what there is")


def list_labs(_args):
    """What is up."""
    for ident in live_labs():
        print(ident, *sorted(p.stem for p in (RUN / ident).glob("*.pid")))


def clean(_args):
    """Removes what dead labs left."""
    swept = clean_leftovers()
    print("removed: " + " ".join(swept) if swept else "nothing to remove")


def main():
    """The command line."""
    parser = argparse.ArgumentParser(prog="python3 -m lab", description=__doc__)
    commands = parser.add_subparsers(required=True, metavar="COMMAND")
    one = commands.add_parser("up", help="bring a lab up and stay until Ctrl-C")
    one.add_argument("--routed", action="store_true", help="put the client behind a router")
    one.add_argument("-6", "--ipv6", action="store_true", help="dual-stack, the cluster of IPv6")
    one.add_argument("--no-daemon", action="store_true", help="leave the forwarder's host empty")
    one.set_defaults(function=up)
    one = commands.add_parser("shell", help="a shell in a node of a lab that is up")
    one.add_argument("node")
    one.add_argument("--lab", help="which lab, if several are up")
    one.set_defaults(function=shell)
    commands.add_parser("list", help="the labs that are up, and their nodes").set_defaults(function=list_labs)
    commands.add_parser("clean", help="remove what dead labs left").set_defaults(function=clean)
    args = parser.parse_args()
    try:
        args.function(args)
    except LabError as e:
        sys.exit(f"lab: {e}")
    except KeyboardInterrupt as e:
        sys.exit(128 + getattr(e, "signum", signal.SIGINT))


if __name__ == "__main__":
    main()
