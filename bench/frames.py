"""Frames through the forwarders: measures each way of bench.bed in turn, round after round.

Three questions a way and round. Flat out: the generator offers far more than any forwarder takes;
how many frames a second arrive at the sink, and what does each cost? At a moderate rate: how many
of those that were sent are missing at the sink, and what does each cost? And up to which rate does
(almost) nothing get lost, as RFC 2544, 26.1, asks? Rounds are interleaved, so that what disturbs the
machine for a while disturbs all ways alike; figures are medians of them.
"""

import json
import statistics
import subprocess
import time

from bench.bed import Bed
from lab import Lab, LabError, wait_until

MODERATE_RATE = 100_000
LOWEST_RATE, HIGHEST_RATE = 50_000, 1_000_000  # of the search for the highest rate without loss
LOSS_ALLOWED = 0.001


class Times:
    """How long things take: warming up, the window that is measured, how many rounds."""

    def __init__(self, quick):
        self.rounds = 3 if quick else 5
        self.warm = 0.2 if quick else 0.3
        self.window = 0.4 if quick else 1.0
        self.trials = 4 if quick else 6
        self.trial = 0.3 if quick else 0.4


class Snapshot:
    """Counters and run times of a way at one moment."""

    def __init__(self, bed, way):
        self.when = time.monotonic()
        self.received, self.offered = way.received(), bed.offered(way)
        self.napi_ns, self.process_ns = way.napi_ns(), way.process_ns()


def _settled(way):
    """Waits until nothing arrives any more; the sink's count then."""
    last = [way.received()]

    def still():
        time.sleep(0.02)
        last.append(way.received())
        return last[-1] == last[-2]

    wait_until(still, 5, f"{way.title} to forward what it still holds")
    return last[-1]


def measure(bed, way, rate, times):
    """One measurement: the figures of the window, and what the whole run lost."""
    before = _settled(way)
    pump = bed.pump(way, rate, times.warm + times.window + 0.2, stdout=subprocess.PIPE, text=True)
    wait_until(lambda: way.received() > before, 5, "the first frame at the sink", interval=0.002)
    time.sleep(times.warm)
    begin = Snapshot(bed, way)
    time.sleep(times.window)
    end = Snapshot(bed, way)
    said, _ = pump.communicate(timeout=20)
    if pump.returncode != 0:
        raise LabError(f"the generator ended with status {pump.returncode}")
    said = json.loads(said)
    received = end.received - begin.received
    if received == 0:
        raise LabError(f"{way.title}: no frame reached the sink during the measurement")
    seconds = end.when - begin.when
    missing = said["sent"] - (_settled(way) - before)
    napi_us = (end.napi_ns - begin.napi_ns) / received / 1000
    process_us = (end.process_ns - begin.process_ns) / received / 1000
    return {"engine": said["engine"], "late": said["late"], "received_per_s": received / seconds,
            "offered_per_s": (end.offered - begin.offered) / seconds,
            "loss": max(missing, 0) / said["sent"],
            "us_per_frame": napi_us + process_us, "us_napi": napi_us, "us_process": process_us,
            "core_busy": (napi_us + process_us) * received / seconds / 1e6}


def _trial(bed, way, rate, seconds):
    """Sends at a rate: what part was lost, and the rate that the generator reached."""
    before = _settled(way)
    pump = bed.pump(way, int(rate), seconds, stdout=subprocess.PIPE, text=True)
    said = json.loads(pump.communicate(timeout=20)[0])
    lost = said["sent"] - (_settled(way) - before)
    return max(lost, 0) / said["sent"], said["sent"] / said["seconds"]


def search(bed, way, times):
    """The highest rate at which no more than LOSS_ALLOWED is lost, by halving the interval (on a
    logarithmic scale); `bound` says that the generator, not the forwarder, was the limit."""
    low, high, bound = LOWEST_RATE, HIGHEST_RATE, False
    for _ in range(times.trials):
        rate = (low * high) ** 0.5
        loss, reached = _trial(bed, way, rate, times.trial)
        if loss > LOSS_ALLOWED:
            high, bound = rate, False
        elif reached < 0.97 * rate:
            low, high, bound = max(low, reached), rate, True
        else:
            low = rate
    return {"no_loss_per_s": low, "bound": bound}


def _summary(rounds):
    """Medians of every figure, and the spread of the one that matters."""
    figures = {key: statistics.median(r[key] for r in rounds)
               for key in rounds[0] if key != "engine"}
    figures["engine"] = rounds[0]["engine"]
    figures["us_per_frame_min"] = min(r["us_per_frame"] for r in rounds)
    figures["us_per_frame_max"] = max(r["us_per_frame"] for r in rounds)
    figures["received_per_s_min"] = min(r["received_per_s"] for r in rounds)
    figures["received_per_s_max"] = max(r["received_per_s"] for r in rounds)
    figures["loss_max"] = max(r["loss"] for r in rounds)
    return figures


def run(quick=False, progress=lambda text: None):
    """Everything; a dictionary that goes into JSON as it is."""
    times = Times(quick)
    taken = {}
    with Lab() as lab:
        progress("making the network")
        bed = Bed(lab, quick)
        for number in range(1, times.rounds + 1):
            for way in bed.ways:
                progress(f"round {number} of {times.rounds}: {way.title}")
                for kind, rate in (("flat_out", 0), ("moderate", MODERATE_RATE)):
                    taken.setdefault((way.title, kind), []).append(measure(bed, way, rate, times))
                taken.setdefault((way.title, "search"), []).append(search(bed, way, times))
        titles = [way.title for way in bed.ways]
    return {"rounds": times.rounds, "window_s": times.window, "moderate_rate": MODERATE_RATE,
            "ways": [{"title": title, "flat_out": _summary(taken[title, "flat_out"]),
                      "moderate": _summary(taken[title, "moderate"]),
                      "no_loss_per_s": statistics.median(t["no_loss_per_s"] for t in taken[title, "search"]),
                      "no_loss_bound": any(t["bound"] for t in taken[title, "search"])}
                     for title in titles]}
