"""The lab itself: names, commands, signals and the clean-up that holds whatever happens.

Owns /run/vellb2-lab/<ident> and every namespace called vb<ident>-*. A lab holds an exclusive lock
on its directory's "lock" file for as long as it lives; the kernel drops the lock with the process,
so whoever can take it may sweep that lab away. Never touches a process outside its namespaces.
"""

import atexit
import contextlib
import fcntl
import os
import pathlib
import re
import shutil
import signal
import subprocess
import threading
import time

RUN = pathlib.Path("/run/vellb2-lab")
PREFIX = "vb"
REPO = pathlib.Path(__file__).resolve().parent.parent


class LabError(Exception):
    """Something the lab needed did not happen; the text says which command failed and how."""


class Terminated(KeyboardInterrupt):
    """SIGTERM or SIGHUP. Of KeyboardInterrupt's kind, so that test runners stop for it too."""

    def __init__(self, signum):
        super().__init__(signal.Signals(signum).name)
        self.signum = signum


def build_dir():
    """Where the daemon and vellbctl come from: $VELL_BUILD, else build/release."""
    path = pathlib.Path(os.environ.get("VELL_BUILD", "build/release"))
    return path if path.is_absolute() else REPO / path


def sanitized():
    """Whether the programs carry a sanitizer: they are slower then, and find leaks when they end."""
    cache = build_dir() / "CMakeCache.txt"
    return cache.exists() and re.search(r"^VELL_SANITIZE:\w+=\S", cache.read_text(encoding="utf-8"),
                                        re.MULTILINE) is not None


def run(argv, check=True, timeout=60, **kwargs):
    """Runs a command to its end and returns it with its output as text; a failure tells all."""
    argv = [str(a) for a in argv]
    kwargs.setdefault("stdin", None if "input" in kwargs else subprocess.DEVNULL)
    if "input" in kwargs:
        kwargs.pop("stdin")
    try:
        done = subprocess.run(argv, capture_output=True, text=True, errors="replace",
                              timeout=timeout, start_new_session=True, **kwargs)
    except FileNotFoundError as e:
        raise LabError(f"{argv[0]}: not found; run script/bootstrap") from e
    except subprocess.TimeoutExpired as e:
        text = "".join(o.decode(errors="replace") if isinstance(o, bytes) else o
                       for o in (e.stdout, e.stderr) if o)
        raise LabError(f"not done after {timeout} s: {' '.join(argv)}\n{text}") from e
    if check and done.returncode != 0:
        raise LabError(f"exit status {done.returncode}: {' '.join(argv)}\n"
                       f"{done.stdout}{done.stderr}".rstrip())
    return done


def wait_until(condition, timeout, what, interval=0.01):
    """Polls until condition() is true and returns its value; says what it waited for if in vain."""
    deadline = time.monotonic() + timeout
    while True:
        value = condition()
        if value:
            return value
        if time.monotonic() >= deadline:
            raise LabError(f"waited {timeout:g} s in vain for {what}")
        time.sleep(interval)


def _namespaces():
    out = run(["ip", "netns", "list"], check=False).stdout
    return [line.split()[0] for line in out.splitlines() if line.strip()]


def _kill_inside(namespace):
    def pids():
        out = run(["ip", "netns", "pids", namespace], check=False).stdout
        found = [int(p) for p in out.split() if int(p) != os.getpid()]
        for pid in found:
            with contextlib.suppress(ProcessLookupError):
                os.kill(pid, signal.SIGKILL)
        return found

    wait_until(lambda: not pids(), 10, f"the processes in {namespace} to die")


def _sweep(ident):
    """Takes away everything that the lab `ident` made. The caller owns it or knows it is dead."""
    for namespace in _namespaces():
        if namespace.startswith(f"{PREFIX}{ident}-"):
            _kill_inside(namespace)
            run(["ip", "netns", "del", namespace])
    shutil.rmtree(RUN / ident, ignore_errors=True)


def _try_lock(path):
    """The descriptor of the locked file, or None while somebody else holds it."""
    fd = os.open(path, os.O_RDWR | os.O_CREAT | os.O_CLOEXEC, 0o600)
    try:
        fcntl.flock(fd, fcntl.LOCK_EX | fcntl.LOCK_NB)
    except BlockingIOError:
        os.close(fd)
        return None
    return fd


def clean_leftovers():
    """Removes what dead labs left behind; returns their idents. Living labs are left alone."""
    swept = []
    RUN.mkdir(mode=0o755, exist_ok=True)
    known = set()
    for entry in sorted(RUN.iterdir()):
        if entry.name.startswith("."):  # A lab being born, or one that died at that.
            if time.time() - entry.stat().st_mtime > 60:
                shutil.rmtree(entry, ignore_errors=True)
            continue
        known.add(entry.name)
        try:
            fd = _try_lock(entry / "lock")
        except FileNotFoundError:  # Its owner removed it meanwhile.
            continue
        if fd is None:
            continue
        _sweep(entry.name)
        os.close(fd)
        swept.append(entry.name)
    for namespace in _namespaces():
        found = re.match(rf"{PREFIX}(\d+[a-z]*)-", namespace)
        if found and found[1] not in known and not (RUN / found[1]).exists():
            _sweep(found[1])
            swept.append(found[1])
            known.add(found[1])
    return swept


def live_labs():
    """The idents of the labs that are up."""
    labs = []
    for entry in sorted(RUN.iterdir()) if RUN.exists() else []:
        if not entry.name.startswith(".") and (entry / "lock").exists():
            fd = _try_lock(entry / "lock")
            if fd is None:
                labs.append(entry.name)
            else:
                os.close(fd)
    return labs


class Lab:
    """Nodes and segments that live as long as the `with` block."""

    _count = 0

    def __init__(self):
        if os.geteuid() != 0:
            raise LabError("the lab makes network namespaces: run this as root")
        self.nodes = {}
        self.segments = {}
        self._children = []
        self._fd = None
        self._old_handlers = {}
        number = Lab._count
        Lab._count += 1
        self.ident = f"{os.getpid()}{'' if number == 0 else _letters(number)}"
        self.dir = RUN / self.ident

    def __enter__(self):
        self._catch_signals()
        try:
            clean_leftovers()
            newborn = RUN / f".{self.ident}"
            shutil.rmtree(newborn, ignore_errors=True)
            newborn.mkdir(mode=0o755)
            self._fd = _try_lock(newborn / "lock")
            atexit.register(self.close)
            newborn.rename(self.dir)
        except BaseException:
            self.close()
            raise
        return self

    def __exit__(self, *_):
        self.close()

    def name(self, short):
        """The namespace's name for a node or segment of this lab."""
        return f"{PREFIX}{self.ident}-{short}"

    def adopt(self, process):
        """Has the clean-up wait for a child process that runs inside one of the namespaces."""
        self._children.append(process)

    def close(self):
        """Takes the lab away. Signals are held off meanwhile; a second call does nothing."""
        if self._fd is None:
            self._restore_signals()
            return
        held = {signal.SIGINT, signal.SIGTERM, signal.SIGHUP}
        old = signal.pthread_sigmask(signal.SIG_BLOCK, held)
        try:
            for node in self.nodes.values():
                node.forget()
            _sweep(self.ident)
            for child in self._children:
                child.wait(timeout=10)
        finally:
            os.close(self._fd)
            self._fd = None
            atexit.unregister(self.close)
            self._restore_signals()
            signal.pthread_sigmask(signal.SIG_SETMASK, old)

    def _catch_signals(self):
        if threading.current_thread() is not threading.main_thread():
            return

        def stop(signum, _frame):
            raise Terminated(signum)

        for signum in (signal.SIGTERM, signal.SIGHUP):
            self._old_handlers[signum] = signal.signal(signum, stop)

    def _restore_signals(self):
        for signum, handler in self._old_handlers.items():
            signal.signal(signum, handler)
        self._old_handlers = {}


def _letters(number):
    text = ""
    while number:
        number, digit = divmod(number - 1, 26)
        text = chr(ord("a") + digit) + text
    return text
