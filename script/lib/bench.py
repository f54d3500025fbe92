"""Measures vellb2: what one packet costs in the stack, and what frames cost in a forwarder.

  script/bench              the next two, in about eight minutes
  script/bench micro        nanoseconds and allocations a packet, on the host in memory
  script/bench lab          frames a second and CPU time a frame, in namespaces, beside the kernel's
                            routing and an nftables balancer (needs root)
  script/bench ha           sessions and downloads while the active one of a pair is killed 20 times,
                            in about six minutes (needs root)
  script/bench --quick      fewer rounds and shorter ones: a look, not a figure to quote
  script/bench --json PATH  all figures into a file, too
  script/bench --update-doc write the tables into docs/performance.md, if the machine was quiet

Fails when a packet allocates memory on its way. docs/performance.md explains the figures. Measure on
a machine that does nothing else.
"""

import argparse
import contextlib
import io
import json
import os
import pathlib
import platform
import re
import sys
import time

sys.dont_write_bytecode = True
import steps  # noqa: E402

sys.path.insert(0, str(steps.REPO))
from bench import frames, takeover  # noqa: E402
from lab import LabError  # noqa: E402

BUILD = steps.REPO / "build/release"
DOC = steps.REPO / "docs/performance.md"
# Between which lines of the document the figures of a whole measurement stand.
DOC_MARKS = {"all": ("<!-- figures: script/bench --update-doc -->\n", "<!-- end of figures -->\n"),
             "ha": ("<!-- figures: script/bench ha --update-doc -->\n",
                    "<!-- end of figures of ha -->\n")}
KILLS, KILLS_QUICK = 20, 3
QUIET = 0.1  # cores' worth of other work that is still called quiet
NANOSECONDS = {"ns": 1, "us": 1e3, "ms": 1e6, "s": 1e9}
TARGETS = {"micro": ["vell_bench"], "lab": ["vellb2", "vellbctl", "vell_pump"],
           "ha": ["vellb2", "vellbctl"]}
TARGETS["all"] = TARGETS["micro"] + TARGETS["lab"]


def machine():
    """What the figures were taken on."""
    text = pathlib.Path("/proc/cpuinfo").read_text(encoding="utf-8")
    model = re.search(r"^model name\s*:\s*(.*)$", text, re.MULTILINE)
    return {"cpu": model[1] if model else platform.machine(), "cores": len(os.sched_getaffinity(0)),
            "virtual": " hypervisor" in text, "kernel": platform.release()}


def cores_busy(seconds=1.0):
    """How many cores' worth of other work there is now."""

    def busy_ticks():
        line = pathlib.Path("/proc/stat").read_text(encoding="ascii").splitlines()[0]
        ticks = [int(word) for word in line.split()[1:]]
        return sum(ticks) - ticks[3] - ticks[4]  # less idle and waiting for disks

    before = busy_ticks()
    time.sleep(seconds)
    return (busy_ticks() - before) / os.sysconf("SC_CLK_TCK") / seconds


def table(title, heads, rows):
    """Prints a table: the first column to the left, numbers to the right."""
    widths = [max(len(row[i]) for row in [heads, *rows]) for i in range(len(heads))]
    print(f"\n{steps.paint(title, 'bold')}")
    for row in [heads, *rows]:
        cells = [cell.ljust(width) if i == 0 else cell.rjust(width)
                 for i, (cell, width) in enumerate(zip(row, widths))]
        print("  " + "  ".join(cells).rstrip())


# --- Micro ----------------------------------------------------------------------------------------

def run_micro(quick, step):
    """Runs vell_bench; [{name, ns, spread, allocs}]. Threads' figures are wall-clock time."""
    out = BUILD / "bench-micro.json"
    seen = set()

    def on_line(line):
        if "/" in line.split(" ", 1)[0]:
            seen.add(line.split(" ", 1)[0])
            step.progress(line.split(" ", 1)[0])

    steps.logged([BUILD / "vell_bench", "--benchmark_out_format=json", f"--benchmark_out={out}",
                  f"--benchmark_min_time={0.02 if quick else 0.2}",
                  f"--benchmark_repetitions={3 if quick else 7}",
                  *(["--benchmark_filter=-one-client-port/.*000000"] if quick else []),
                  "--benchmark_report_aggregates_only=true"], BUILD / "bench-micro.log", on_line)
    rows = {}
    for entry in json.loads(out.read_text(encoding="utf-8"))["benchmarks"]:
        name = re.sub(r"/(real_time|manual_time|iterations:\d+|repeats:\d+)", "", entry["run_name"])
        row = rows.setdefault(entry["run_name"], {"name": name})
        wall = "threads:" in entry["run_name"] or "/manual_time" in entry["run_name"]
        clock = "real_time" if wall else "cpu_time"
        aggregate = entry.get("aggregate_name", "median")  # the only run of those that take long
        if aggregate == "median":
            row["ns"] = entry[clock] * NANOSECONDS[entry["time_unit"]]
            row.update({key: entry[key] for key in ("allocs", "bytes/record") if key in entry})
        elif aggregate == "cv":
            row["spread"] = entry[clock]
    step.note = f"{len(rows)} rows"
    return list(rows.values())


def show_micro(rows):
    """The table of run_micro()."""
    table("One packet through the stack, on the host in memory (median; nanoseconds of CPU time)",
          ["", "ns", "spread", "allocations"],
          [[r["name"], f"{r['ns']:,.1f}", f"±{100 * r['spread']:.0f}%" if "spread" in r else "",
            f"{r['allocs']:.0f}" if "allocs" in r else ""] for r in rows])
    print("""
  forward   from the link-layer dispatch to the frame handed to the host, three servers of weight 1;
            the last cluster and port of as many as the row says (lists are walked from the front)
  intact    a packet to an address that is nobody's; it walks the whole list of clusters
  host      the test host's own share: once a packet, and once a lock
  threads   nanoseconds of wall-clock time a packet, all threads together
  connection/look-up  the mean of 1,000; one-client-port: every record in one bucket
  connection/expiry   one tick that retires all of them""")
    taken = [r["bytes/record"] for r in rows if "bytes/record" in r]
    if taken:
        print(f"\n  a connection record takes {max(taken):.0f} bytes")


# --- Lab ------------------------------------------------------------------------------------------

def show_lab(lab):
    """The tables of frames.run()."""
    routing = next(w for w in lab["ways"] if w["title"] == "kernel routing")

    def ratio(way, kind, figure):
        return f"{way[kind][figure] / routing[kind][figure]:.2f}"

    table(f"Flat out, the forwarder on one core (medians of {lab['rounds']} rounds of "
          f"{lab['window_s']:g} s; {routing['flat_out']['offered_per_s'] / 1e6:.1f} million frames a "
          "second offered)",
          ["", "frames/s", "lowest", "highest", "x routing", "CPU us/frame", "x routing"],
          [[w["title"], f"{w['flat_out']['received_per_s']:,.0f}",
            f"{w['flat_out']['received_per_s_min']:,.0f}", f"{w['flat_out']['received_per_s_max']:,.0f}",
            ratio(w, "flat_out", "received_per_s"), f"{w['flat_out']['us_per_frame']:.2f}",
            ratio(w, "flat_out", "us_per_frame")] for w in lab["ways"]])
    table(f"At {lab['moderate_rate']:,} frames a second",
          ["", "lost", "most", "CPU us/frame", "lowest", "highest", "x routing"],
          [[w["title"], f"{100 * w['moderate']['loss']:.3f}%", f"{100 * w['moderate']['loss_max']:.3f}%",
            *(f"{w['moderate'][f]:.2f}" for f in ("us_per_frame", "us_per_frame_min", "us_per_frame_max")),
            ratio(w, "moderate", "us_per_frame")] for w in lab["ways"]])
    table("Highest rate at which no more than 0.1% is lost",
          ["", "frames/s", "x routing"],
          [[w["title"], f"{'over ' if w['no_loss_bound'] else ''}{w['no_loss_per_s']:,.0f}",
            "" if w["no_loss_bound"] or routing["no_loss_bound"] else
            f"{w['no_loss_per_s'] / routing['no_loss_per_s']:.2f}"] for w in lab["ways"]])
    print("""
  frames/s      frames that reached the sink; over: the generator reached no higher rate
  CPU us/frame  run time of the forwarder's threads (the kernel's receiving one, and vellb2), divided
                by those frames""")
    late = max(w["moderate"]["late"] for w in lab["ways"])
    if late:
        print(f"\n  The generator fell behind up to {late:.0f} times in a round: the machine was busy "
              "with something else.")


def show_share(result):
    """How much of the daemon's time is its own code."""
    forward = next(r for r in result["micro"] if r["name"].startswith("forward/udp/hash"))
    host = next(r for r in result["micro"] if r["name"] == "host/receive")
    way = result["lab"]["ways"][0]
    own, whole = (forward["ns"] - host["ns"]) / 1000, way["moderate"]["us_per_frame"]
    print(f"\n  Of {whole:.2f} us that a frame costs {way['title']} at the moderate rate, the stack's own "
          f"code is {own:.2f} us\n  ({100 * own / whole:.0f}%); the rest is the kernel: receiving, "
          "sending, waking up.")
    result["own_share"] = own / whole


# --- A pair ---------------------------------------------------------------------------------------

def show_ha(pair):
    """The table of takeover.run()."""
    rounds, figures = pair["rounds"], {"no echo reply came for": "silence_s",
                                       "a session's longest pause, after a kill": "pause_s",
                                       "a session's longest pause, after ha takeover": "told_pause_s"}
    table(f"The active node of a pair killed {rounds} times, under {pair['sessions']} sessions and a "
          "download", ["", "median", "worst"],
          [[title, f"{pair[key]['median']:.2f} s", f"{pair[key]['worst']:.2f} s"]
           for title, key in figures.items()])
    print(f"""
  sessions lost: {pair['lost']} of {pair['sessions']}, each through {rounds} kills and takeovers by hand
  downloads lost: {pair['downloads_failed']} of {rounds}, each begun {pair['established_s']} s before a \
kill""")


def measure(args, result):
    """Runs what was asked for."""
    if args.what == "ha":
        with steps.Step("clients of a pair") as step:
            try:
                result["ha"] = takeover.run(KILLS_QUICK if args.quick else KILLS, step.progress)
            except LabError as e:
                raise steps.StepFailed(str(e)) from e
        return
    if args.what != "lab":
        with steps.Step("packets through the stack") as step:
            result["micro"] = run_micro(args.quick, step)
    if args.what != "micro":
        with steps.Step("frames through the forwarders") as step:
            try:
                result["lab"] = frames.run(args.quick, step.progress)
            except LabError as e:
                raise steps.StepFailed(str(e)) from e


def show(result):
    """Every table that there are figures for."""
    told = result["machine"]
    print(f"\n{told['cpu']}, {told['cores']} cores{', virtual' if told['virtual'] else ''}, "
          f"Linux {told['kernel']}")
    if "micro" in result:
        show_micro(result["micro"])
    if "lab" in result:
        show_lab(result["lab"])
    if "micro" in result and "lab" in result:
        show_share(result)
    if "ha" in result:
        show_ha(result["ha"])


def update_doc(result, marks):
    """Puts the tables between the marks in the document."""
    text = io.StringIO()
    with contextlib.redirect_stdout(text):
        show(result)
    plain = re.sub(r"\033\[\d+m", "", text.getvalue()).strip("\n")
    head, begin, rest = DOC.read_text(encoding="utf-8").partition(marks[0])
    _, end, tail = rest.partition(marks[1])
    if not begin or not end:
        raise steps.StepFailed(f"{DOC} has lost the marks that the figures stand between")
    DOC.write_text(f"{head}{begin}```\n{plain}\n```\n{end}{tail}", encoding="utf-8")


def main():
    """The command line."""
    parser = argparse.ArgumentParser(prog="script/bench", description=__doc__,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("what", nargs="?", choices=["micro", "lab", "ha", "all"], default="all")
    parser.add_argument("--quick", action="store_true", help="less of everything, within a minute")
    parser.add_argument("--json", metavar="PATH", help="write all figures into this file")
    parser.add_argument("--update-doc", action="store_true",
                        help="write the tables into docs/performance.md")
    args = parser.parse_args()
    if args.update_doc and (args.quick or args.what not in DOC_MARKS):
        parser.error("--update-doc wants the whole measurement")
    if args.what != "micro" and os.geteuid() != 0:
        raise steps.StepFailed("the lab makes network namespaces: run this as root, or script/bench micro")
    result = {"machine": machine(), "quick": args.quick}
    steps.bootstrap()
    with steps.Step("build release") as step:
        steps.build("release", TARGETS[args.what], step)
    busy = result["machine"]["cores_busy_before"] = cores_busy()
    if busy > QUIET:
        print(f"The machine is busy with something else ({busy:.1f} cores): take these figures for "
              "noise.", flush=True)
        if args.update_doc:
            raise steps.StepFailed("the document wants figures from a quiet machine")
    measure(args, result)
    show(result)
    if args.update_doc:
        update_doc(result, DOC_MARKS[args.what])
    if args.json:
        pathlib.Path(args.json).write_text(json.dumps(result, indent=2) + "\n", encoding="utf-8")
    return 0


if __name__ == "__main__":
    steps.finish(main)
