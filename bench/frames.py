"""Frames through the forwarders: measures each way of bench.bed in turn, round after round.

Two questions a way and round. Flat out: the generator offers far more than any forwarder takes;
how many frames a second arrive at the sink, and what does each cost? At a moderate rate: how many
of those that were sent are missing at the sink, and what does each cost? Rounds are interleaved, so
that what disturbs the machine for a while disturbs all ways alike; figures are medians of them.
"""

import json
import statistics
import subprocess
import time

from bench.bed import Bed
from lab import Lab, LabError, wait_until

MODERATE_RATE = 100_000


class Times:
    """How long things take: warming up, the window that is measured, how many rounds."""

    def __init__(self, quick):
        self.rounds = 3 if quick else 7
        self.warm = 0.2 if quick else 0.3
        self.window = 0.4 if quick else 1.0


class Snapshot:
    """Counters and run times of a way at one moment."""

    def __init__(self, bed, way):
        self.when = time.monotonic()
        self.received, self.offered = bed.received(way), bed.offered(way)
        self.napi_ns, self.process_ns = way.napi_ns(), way.process_ns()


def _settled(bed, way):
    """Waits until nothing arrives any more; the sink's count then."""
    last = [bed.received(way)]

    def still():
        time.sleep(0.02)
        last.append(bed.received(way))
        return last[-1] == last[-2]

    wait_until(still, 5, f"{way.title} to forward what it still holds")
    return last[-1]


def measure(bed, way, rate, times):
    """One measurement: the figures of the window, and what the whole run lost."""
    before = _settled(bed, way)
    pump = bed.pump(way, rate, times.warm + times.window + 0.2, stdout=subprocess.PIPE, text=True)
    wait_until(lambda: bed.received(way) > before, 5, "the first frame at the sink", interval=0.002)
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
    missing = said["sent"] - (_settled(bed, way) - before)
    napi_us = (end.napi_ns - begin.napi_ns) / received / 1000
    process_us = (end.process_ns - begin.process_ns) / received / 1000
    return {"engine": said["engine"], "late": said["late"], "received_per_s": received / seconds,
            "offered_per_s": (end.offered - begin.offered) / seconds,
            "loss": max(missing, 0) / said["sent"],
            "us_per_frame": napi_us + process_us, "us_napi": napi_us, "us_process": process_us,
            "core_busy": (napi_us + process_us) * received / seconds / 1e6}


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
        titles = [way.title for way in bed.ways]
    return {"rounds": times.rounds, "window_s": times.window, "moderate_rate": MODERATE_RATE,
            "ways": [{"title": title, "flat_out": _summary(taken[title, "flat_out"]),
                      "moderate": _summary(taken[title, "moderate"])} for title in titles]}
