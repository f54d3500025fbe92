"""What demo, test and check share: steps with a tick each, logged commands, builds with progress.

A step's output goes to its log file; the terminal gets one line. When a step fails, the end of the
log is shown with its path.
"""

import os
import pathlib
import re
import shlex
import signal
import subprocess
import sys
import textwrap
import time

REPO = pathlib.Path(__file__).resolve().parents[2]
TTY = sys.stdout.isatty()
CORES = os.cpu_count() or 1


class StepFailed(Exception):
    """A step did not succeed; the text is for people, the log (if any) says more."""

    def __init__(self, text, log=None):
        super().__init__(text)
        self.log = log


class Stopped(KeyboardInterrupt):
    """SIGTERM or SIGHUP."""

    def __init__(self, signum):
        super().__init__(signal.Signals(signum).name)
        self.signum = signum


def catch_signals():
    """Has SIGTERM and SIGHUP end the script like Ctrl-C does: with everything cleaned up."""

    def stop(signum, _frame):
        raise Stopped(signum)

    signal.signal(signal.SIGTERM, stop)
    signal.signal(signal.SIGHUP, stop)
    # A shell starts background jobs with Ctrl-C ignored; a script that cleans up wants to hear it.
    signal.signal(signal.SIGINT, signal.default_int_handler)


def paint(text, colour):
    """The text in a colour where there is a terminal."""
    code = {"green": 32, "red": 31, "dim": 2, "bold": 1}[colour]
    return f"\033[{code}m{text}\033[0m" if TTY else text


class Step:
    """One line on the terminal: what is done, how far it is, a tick and the time it took."""

    def __init__(self, title):
        self.title = title
        self.begin = time.monotonic()
        self._shown = 0.0
        self.note = ""

    def __enter__(self):
        if TTY:
            print(f"  {self.title} ...", end="", flush=True)
        return self

    def progress(self, text):
        """Shows how far the step is: at once on a terminal, every ten seconds in a log."""
        now = time.monotonic()
        if TTY:
            print(f"\r\033[K  {self.title} ... {text}", end="", flush=True)
        elif now - max(self._shown, self.begin) >= 10:
            print(f"  {self.title} ... {text}", flush=True)
            self._shown = now

    def __exit__(self, kind, *_):
        took = time.monotonic() - self.begin
        clear = "\r\033[K" if TTY else ""
        mark = paint("✓", "green") if kind is None else paint("✗", "red")
        note = f"  {self.note}" if self.note else ""
        print(f"{clear}{mark} {self.title}{note}  {paint(f'{took:.1f} s', 'dim')}", flush=True)


def end_of(path, count=25):
    """The last lines of a log, indented."""
    lines = pathlib.Path(path).read_text(encoding="utf-8", errors="replace").splitlines()
    return "\n".join(f"    {line}" for line in lines[-count:])


def logged(argv, log, on_line=None, env=None, append=False, cwd=REPO):
    """Runs a command with its output in a file; on_line sees each line. Raises StepFailed."""
    log = pathlib.Path(log)
    log.parent.mkdir(parents=True, exist_ok=True)
    command = textwrap.shorten(shlex.join(str(a) for a in argv), 400, placeholder=" ...")
    with open(log, "a" if append else "w", encoding="utf-8") as out:
        out.write(f"$ {command}\n")
        out.flush()
        try:
            child = subprocess.Popen([str(a) for a in argv], stdin=subprocess.DEVNULL, cwd=cwd,
                                     stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True,
                                     errors="replace", env=env)
        except FileNotFoundError as e:
            raise StepFailed(f"{argv[0]} is not installed; run script/bootstrap") from e
        try:
            for line in child.stdout:
                out.write(line)
                if on_line:
                    on_line(line.rstrip("\n"))
            status = child.wait()
        except BaseException:
            child.terminate()
            child.wait()
            raise
    if status != 0:
        raise StepFailed(f"exit status {status}: {command}\n{end_of(log)}", log)


def bootstrap():
    """Installs what is missing; silent and quick when nothing is."""
    subprocess.run([REPO / "script/bootstrap"], check=True)


def build(preset, targets=(), step=None, log=None):
    """Configures (if need be) and builds a preset. Unknown targets are the caller's to avoid."""
    directory = REPO / "build" / preset
    log = log or directory / "build.log"
    if not (directory / "build.ninja").exists():
        if step:
            step.progress("configuring")
        logged(["cmake", "--preset", preset], log)

    def on_line(line):
        found = re.match(r"\[(\d+)/(\d+)\]", line)
        if found and step:
            step.progress(f"{found[1]} of {found[2]}")

    argv = ["cmake", "--build", "--preset", preset, "-j", CORES]
    for target in targets:
        argv += ["--target", target]
    logged(argv, log, on_line, append=True)


def targets_of(preset):
    """The names of what a configured preset can build."""
    directory = REPO / "build" / preset
    out = subprocess.run(["ninja", "-C", directory, "-t", "targets", "all"], capture_output=True,
                         text=True, check=False).stdout
    return {line.rpartition(":")[0].strip() for line in out.splitlines()}


def configure(preset, step=None):
    """Configures a preset afresh or again, so that targets_of() knows what there is."""
    if step:
        step.progress("configuring")
    logged(["cmake", "--preset", preset], REPO / "build" / preset / "build.log")


def finish(main):
    """Runs a script's main and turns what went wrong into a message and an exit status."""
    catch_signals()
    try:
        sys.exit(main())
    except StepFailed as e:
        print(f"\nscript/{pathlib.Path(sys.argv[0]).stem}: {e}", file=sys.stderr)
        if e.log:
            print(f"the whole log: {e.log}", file=sys.stderr)
        sys.exit(1)
    except subprocess.CalledProcessError as e:
        print(f"\nscript/{pathlib.Path(sys.argv[0]).stem}: {e}", file=sys.stderr)
        sys.exit(1)
    except KeyboardInterrupt as e:
        print("\nstopped", file=sys.stderr)
        sys.exit(128 + getattr(e, "signum", signal.SIGINT))
