"""Checks what tests do not: format, lint, lock analysis, sanitizers, stress, fuzz replays.

  script/check              every stage, in this order
  script/check asan tsan    these stages

  format   clang-format, sh -n, Python's own compiler over every tracked file
  tidy     clang-tidy over what is installed, warnings as errors
  clang    everything built by clang; -Wthread-safety is an error
  asan     unit, stack, fuzz and thread tests, and in the lab removal under load and the
           control server, under AddressSanitizer and UndefinedBehaviorSanitizer
  tsan     unit, stack, fuzz and thread tests under ThreadSanitizer
  fuzz     each fuzz target for a minute, from its corpus, as many at once as there are cores

The thread tests run for VELL_STRESS_SECONDS each, 30 unless set.

Each stage has its log in build/check/ and its own build directory.
"""

import argparse
import concurrent.futures
import os
import pathlib
import re
import subprocess
import sys
import time

sys.dont_write_bytecode = True
import steps  # noqa: E402

LOGS = steps.REPO / "build/check"
PROGRAMS = ["vell_tests", "vell_fuzz", "vell_threads"]  # under the sanitizers
ASAN_LAB = ("removal", "cpserver")
# What is installed, and the test host.
LINTED = ("lbstack", "os", "libvellb", "libhost", "config", "vellbctl", "cpserver")


def tracked(*patterns):
    """Files under version control that match, as paths from the top."""
    out = subprocess.run(["git", "ls-files", "--", *patterns], cwd=steps.REPO, check=True,
                         capture_output=True, text=True).stdout
    return [path for path in out.splitlines() if (steps.REPO / path).is_file()]


def first_line(path):
    """The first line of a file."""
    with open(steps.REPO / path, "rb") as f:
        return f.readline()


def check_format(step):
    """Layout of C++, syntax of everything else."""
    log = LOGS / "format.log"
    sources = tracked("*.cpp", "*.h")
    steps.logged(["clang-format", "--dry-run", "-Werror", *sources], log)
    others = [p for p in tracked("script/*", ".ci/*", "lab/*", "tests/*", "bench/*")
              if pathlib.Path(p).suffix in ("", ".py", ".sh")]
    for path in others:
        top = first_line(path)
        if top.startswith((b"#!/bin/sh", b"#!/usr/bin/env bash", b"#!/bin/bash")):
            shell = "sh" if b"/sh" in top else "bash"
            steps.logged([shell, "-n", path], log, append=True)
        elif path.endswith(".py") or b"python3" in top:
            text = (steps.REPO / path).read_text(encoding="utf-8")
            try:
                compile(text, path, "exec")
            except SyntaxError as e:
                raise steps.StepFailed(f"{path}:{e.lineno}: {e.msg}") from e
    step.note = f"{len(sources)} C++ files, {len(others)} others"


def check_tidy(step):
    """clang-tidy over what clang compiles."""
    steps.configure("clang", step)
    sources = [p for p in tracked("*.cpp") if p.split("/")[0] in LINTED]
    done = 0

    def on_line(line):
        nonlocal done
        if line.startswith("clang-tidy"):
            done += 1
            step.progress(f"{done} of {len(sources)}")

    steps.logged(["run-clang-tidy", "-quiet", "-p", "build/clang", "-j", steps.CORES,
                  *[f"^{re.escape(str(steps.REPO / p))}$" for p in sources]],
                 LOGS / "tidy.log", on_line)
    step.note = f"{len(sources)} files"


def check_clang(step):
    """Everything, compiled by clang."""
    steps.build("clang", step=step)


def run_programs(preset, step, env, programs):
    """Builds and runs test programs; those that are not there (yet) are left out."""
    steps.configure(preset, step)
    present = [p for p in programs if p in steps.targets_of(preset)]
    steps.build(preset, present, step)
    counts = []
    for program in present:
        began = 0

        def on_line(line, program=program):
            nonlocal began
            if line.startswith("[ RUN "):
                began += 1
                step.progress(f"{program}: test {began}")
            elif line.startswith("[  PASSED  ]"):
                counts.append(f"{program}: {line[12:].strip()}")

        steps.logged([steps.REPO / "build" / preset / program], LOGS / f"{preset}-{program}.log",
                     on_line, env={"VELL_STRESS_SECONDS": "30", **os.environ, **env})
    step.note = ", ".join(counts)


def check_asan(step):
    """Memory errors and undefined behaviour, also of the real daemon under load."""
    env = {"ASAN_OPTIONS": "detect_leaks=1:detect_stack_use_after_return=1:strict_string_checks=1",
           "UBSAN_OPTIONS": "print_stacktrace=1"}
    run_programs("asan", step, env, PROGRAMS)
    if os.geteuid() == 0:
        steps.build("asan", ["vellb2", "vellbctl", "cpserver"], step)
        step.progress("in the lab")
        steps.logged([sys.executable, "-m", "pytest", "-q", "-p", "no:cacheprovider",
                      *[steps.REPO / "tests/lab" / f"test_{name}.py" for name in ASAN_LAB]],
                     LOGS / "asan-lab.log",
                     env=dict(os.environ, VELL_BUILD="build/asan", PYTHONDONTWRITEBYTECODE="1", **env))
        step.note += ", in the lab: " + ", ".join(ASAN_LAB)


def check_tsan(step):
    """Data races."""
    run_programs("tsan", step, {"TSAN_OPTIONS": "halt_on_error=0:second_deadlock_stack=1"}, PROGRAMS)


def check_fuzz(step):
    """Each fuzz target over its corpus, then for a minute from there."""
    steps.configure("fuzz", step)
    targets = sorted(t for t in steps.targets_of("fuzz") if re.fullmatch(r"fuzz_\w+", t))
    if not targets:
        step.note = "no targets"
        return
    steps.build("fuzz", targets, step)

    def run(target):
        name = target.removeprefix("fuzz_")
        step.progress(f"{name}, a minute")
        grown = LOGS / f"corpus-{name}"
        grown.mkdir(parents=True, exist_ok=True)
        steps.logged([steps.REPO / "build/fuzz" / target, "-max_total_time=60", "-timeout=10",
                      "-max_len=8192", f"-artifact_prefix={LOGS}/", "-print_final_stats=1", grown,
                      steps.REPO / "tests/fuzz/corpus" / name],
                     LOGS / f"fuzz-{name}.log")

    with concurrent.futures.ThreadPoolExecutor(steps.CORES) as pool:
        try:
            list(pool.map(run, targets))
        finally:
            pool.shutdown(cancel_futures=True)
    step.note = ", ".join(targets)


STAGES = {"format": check_format, "tidy": check_tidy, "clang": check_clang, "asan": check_asan,
          "tsan": check_tsan, "fuzz": check_fuzz}


def main():
    """The command line; a stage that fails does not keep the next from running."""
    parser = argparse.ArgumentParser(prog="script/check", description=__doc__,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("stage", nargs="*", help=", ".join(STAGES))
    args = parser.parse_args()
    unknown = [s for s in args.stage if s not in STAGES]
    if unknown:
        parser.error(f"no stage is called '{unknown[0]}'; there are {', '.join(STAGES)}")
    steps.bootstrap()
    LOGS.mkdir(parents=True, exist_ok=True)
    begin = time.monotonic()
    failures = []
    chosen = args.stage or list(STAGES)
    for name in chosen:
        try:
            with steps.Step(name) as step:
                STAGES[name](step)
        except steps.StepFailed as e:
            failures.append(name)
            print(f"{e}\nthe whole log: {e.log}", flush=True)
    print(f"{len(chosen) - len(failures)} of {len(chosen)} stages passed in "
          f"{time.monotonic() - begin:.0f} s" + (f"; failed: {', '.join(failures)}" if failures else ""))
    return 1 if failures else 0


if __name__ == "__main__":
    steps.finish(main)
