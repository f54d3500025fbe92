"""Builds the release and runs the tests: all of them, or those that a word names.

  script/test               packages, build, unit and stack tests, tests in the lab
  script/test lb_neigh      the tests of a file (tests/**/*lb_neigh*)
  script/test Checksum      the tests whose name has the word in it
  script/test test_arp      one file of the lab's tests

The stack's tests run anywhere; the lab's need root, because they make network namespaces.
"""

import argparse
import json
import os
import pathlib
import re
import subprocess
import sys
import tempfile

sys.dont_write_bytecode = True
import steps  # noqa: E402

# VELL_BUILD=build/asan runs a named test on what that preset builds.
PRESET = pathlib.Path(os.environ.get("VELL_BUILD", "build/release")).name
BUILD = steps.REPO / "build" / PRESET
# Where the tests of each program are.
PROGRAMS = {"vell_tests": ("unit", "stack"), "vell_fuzz": ("fuzz",), "vell_threads": ("threads",)}
NO_TEST_RAN = 5  # pytest's exit status
PYTEST = [sys.executable, "-m", "pytest", "-q", "-p", "no:cacheprovider"]


def run_ctest():
    """Every program's tests; a passing test prints nothing."""

    def show(line):
        if not re.match(r"(Test project|Internal ctest|\s*Start\s|\s*\d+/\d+ Test\s.* Passed\s|$)", line):
            print(line, flush=True)

    steps.logged(["ctest", "--test-dir", BUILD, "-j", steps.CORES, "--output-on-failure"],
                 BUILD / "ctest.log", show)


def run_pytest(arguments):
    """The lab's tests, straight to the terminal."""
    env = dict(os.environ, PYTHONDONTWRITEBYTECODE="1")
    return subprocess.run([*PYTEST, *arguments], cwd=steps.REPO, env=env, check=False).returncode


def run_all():
    """Everything; the exit status of the whole."""
    steps.bootstrap()
    with steps.Step(f"build {PRESET}") as step:
        steps.build(PRESET, step=step)
    failed = False
    try:
        run_ctest()
    except steps.StepFailed as e:
        print(f"{e.args[0].splitlines()[0]}; the whole log: {e.log}")
        failed = True
    status = run_pytest(["tests/lab"])
    return 1 if failed else status


def gtest_filter(program, word):
    """The tests of a program whose file or name has the word in it."""
    with tempfile.NamedTemporaryFile(suffix=".json") as out:
        subprocess.run([program, "--gtest_list_tests", f"--gtest_output=json:{out.name}"], check=True,
                       stdout=subprocess.DEVNULL)
        listing = json.load(open(out.name, encoding="utf-8"))
    names = []
    for suite in listing["testsuites"]:
        for case in suite["testsuite"]:
            name = f"{suite['name']}.{case['name']}"
            stem = pathlib.Path(case.get("file", "")).stem
            if word.lower() in name.lower() or word.lower() in stem.lower():
                names.append(name)
    return names


def matching_files(word, *directories):
    """Test files whose name has the word in it."""
    return [path for d in directories for path in sorted((steps.REPO / "tests" / d).glob("*"))
            if path.suffix in (".py", ".cpp") and word.lower() in path.stem.lower()]


def run_gtests(programs, word):
    """The matching tests of some programs: (whether there was one, exit status)."""
    found, status = False, 0
    env = {"VELL_STRESS_SECONDS": "5", **os.environ}
    for program in programs:
        names = gtest_filter(BUILD / program, word)
        if names:
            found = True
            status = subprocess.run([BUILD / program, "--gtest_brief=1", f"--gtest_filter={':'.join(names)}"],
                                    env=env, check=False).returncode or status
    return found, status


def run_named(word):
    """What a word names; builds only what that needs."""
    lab_files = matching_files(word, "lab")
    programs = [p for p, directories in PROGRAMS.items() if matching_files(word, *directories)]
    by_name = not lab_files and not programs  # no file is called so: perhaps a test is
    if by_name:
        programs = ["vell_tests", "vell_fuzz"]
    with steps.Step(f"build {PRESET}") as step:
        running = ["vellb2", "vellbctl", "cpserver"] if lab_files or by_name else []
        steps.build(PRESET, programs + running, step)
    found, status = run_gtests(programs, word)
    if lab_files:
        found, status = True, run_pytest(lab_files) or status
    elif by_name:
        lab_status = run_pytest(["tests/lab", "-k", word])
        if lab_status != NO_TEST_RAN:
            found, status = True, lab_status or status
    if not found:
        raise steps.StepFailed(f"no test is called anything like '{word}'")
    return status


def main():
    """The command line."""
    parser = argparse.ArgumentParser(prog="script/test", description=__doc__,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("word", nargs="*", help="part of the name of a test or of its file")
    args = parser.parse_args()
    if not args.word:
        return run_all()
    return max(run_named(word) for word in args.word)


if __name__ == "__main__":
    steps.finish(main)
