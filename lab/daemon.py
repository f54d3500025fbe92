"""Running programs, the daemon and the control server: start, stop, log; and vellbctl beside them.

One thread per program reads its output, stamps every line with the time since the start, and keeps
it in memory and in a file. The log is also where a sanitizer speaks: `trouble()` finds its words.
"""

import collections
import contextlib
import json
import os
import re
import select
import shlex
import signal
import socket
import struct
import subprocess
import threading
import time

from lab import command
from lab.core import LabError, build_dir, wait_until
from lab.node import DAEMON

TROUBLE = re.compile(r"AddressSanitizer|LeakSanitizer|ThreadSanitizer|UndefinedBehavior|runtime error:"
                     r"|lock order|Assertion|terminate called")
LogLine = collections.namedtuple("LogLine", "when text")


class Program:
    """A program in a node, whose output is read. Not started yet."""

    def __init__(self, node, name, argv, env=None, log=None):
        self.node = node
        self.name = name
        self.env = env
        self.argv = argv
        self.log_path = log or node.lab.dir / f"{node.name}-{name}.log"
        self.process = None
        self.lines = []
        self._grown = threading.Condition()
        self._reader = None

    @property
    def pid(self):
        """The daemon's process number."""
        return self.process.pid

    def _launch(self):
        self.process = self.node.popen(self.argv, env=self.env, stdout=subprocess.PIPE,
                                       stderr=subprocess.STDOUT)
        self._start_reading(self.process.stdout)

    def _start_reading(self, lines):
        self._reader = threading.Thread(target=self._read, args=(lines,), daemon=True)
        self._reader.start()

    def stop(self, signum=signal.SIGTERM, timeout=10):
        """Asks it to stop; its exit status. A sanitizer's word in its log is an error."""
        if self.process.poll() is None:
            self.process.send_signal(signum)
        try:
            status = self.process.wait(timeout)
        except subprocess.TimeoutExpired as e:
            raise LabError(f"{self.name} is still there {timeout} s after signal {signum}\n"
                           + self.tail()) from e
        self._reader.join(5)
        if self.trouble():
            raise LabError(f"the log of {self.name} has a word of trouble:\n"
                           + "\n".join(self.trouble()))
        return status

    def kill(self):
        """kill -9."""
        self.process.kill()
        self.process.wait(10)

    def alive(self):
        """Whether the process is there."""
        return self.process is not None and self.process.poll() is None

    def rss_kb(self):
        """Resident memory."""
        with open(f"/proc/{self.pid}/status", encoding="ascii") as status:
            return next(int(line.split()[1]) for line in status if line.startswith("VmRSS:"))

    # --- Log --------------------------------------------------------------------------------------

    def _read(self, lines):
        begin = time.monotonic()
        with open(self.log_path, "a", encoding="utf-8") as out:
            for raw in lines:
                line = LogLine(time.monotonic(), raw.decode("utf-8", "replace").rstrip("\n"))
                out.write(f"{line.when - begin:10.3f}  {line.text}\n")
                out.flush()
                with self._grown:
                    self.lines.append(line)
                    self._grown.notify_all()

    def mark(self):
        """A place in the log, for wait_log(since=...)."""
        return len(self.lines)

    def wait_log(self, pattern, timeout=5, since=0):
        """Waits for a line that the pattern is found in; the match object."""
        wanted = re.compile(pattern)
        deadline = time.monotonic() + timeout
        at = since
        with self._grown:
            while True:
                for at in range(at, len(self.lines)):
                    found = wanted.search(self.lines[at].text)
                    if found:
                        return found
                at = len(self.lines)
                left = deadline - time.monotonic()
                if left <= 0 or not self._grown.wait(left):
                    raise LabError(f"no line like {pattern!r} in the log of {self.name} within "
                                   f"{timeout} s\n{self.tail()}")

    def log_text(self, since=0):
        """The log from a mark on."""
        return "\n".join(line.text for line in self.lines[since:])

    def tail(self, count=30):
        """The last lines of the log, for error messages."""
        return "\n".join(f"  | {line.text}" for line in self.lines[-count:]) or "  | (no output)"

    def trouble(self):
        """Lines in which a sanitizer or an assertion speaks."""
        return [line.text for line in self.lines if TROUBLE.search(line.text)]


class Daemon(Program):
    """vellb2 in the foreground in a node. Not started yet; start() does that."""

    def __init__(self, node, workers=4, mask=0x200, args=(), log=None, env=None):
        words = ["-f", "-r", "-n", workers, "-m", f"{mask:x}", *args]
        super().__init__(node, "daemon", [DAEMON, *words], env, log)
        self.socket = node.root / "vellb2"  # Left behind by a daemon that was killed.

    def start(self, timeout=20):
        """Starts it and waits until it answers a command."""
        if not (build_dir() / "vellb2").exists():
            raise LabError(f"no daemon in {build_dir()}: build it (cmake --preset release && "
                           "cmake --build --preset release) or set VELL_BUILD")
        self._launch()

        def answers():
            if self.process.poll() is not None:
                self._reader.join(5)
                raise LabError(f"the daemon ended with status {self.process.returncode} at its start\n"
                               + self.tail())
            with contextlib.suppress(OSError):
                return command.call(self.socket, command.GET, command.config_key())["rc"] == 1
            return False

        wait_until(answers, timeout, f"the daemon in {self.node.name} to answer a command")
        self.wait_log(r" init$", timeout)  # Whatever it had to say of its options stands before.
        return self

    # --- Commands ---------------------------------------------------------------------------------

    def ctl(self, *words, check=True, timeout=30):
        """Runs vellbctl in the daemon's node. One string is split like a shell would."""
        if len(words) == 1:
            words = shlex.split(words[0])
        return self.node.run(["/build/vellbctl", *words], check=check, timeout=timeout)

    def ctl_json(self, *words):
        """vellbctl --json, parsed."""
        if len(words) == 1:
            words = shlex.split(words[0])
        return json.loads(self.ctl("--json", *words).stdout)

    def counters(self, protocol="ipv4"):
        """The executor's counters of a protocol."""
        return self.ctl_json("executor show")["executor"]["counters"][protocol]

    def servers(self):
        """Every server of every port, as vellbctl's JSON shows them."""
        return self.ctl_json("server show")["servers"]

    def wait_neighbour(self, address, state="reachable", timeout=5):
        """Waits until every server entry of an address shows a state of its neighbour."""

        def there():
            states = {s["neighbour"] for s in self.servers() if s["server"] == address}
            return states == {state}

        wait_until(there, timeout, f"{address} to be {state}", interval=0.05)

    def clear(self):
        """Removes every object and waits until their memory is free: what is left, leaked."""
        self.ctl("executor", "set", "--log-mask", "+reaping", "--client-gateway", "none",
                 "--client-gateway-ipv6", "none")
        shown = self.ctl_json("show")
        for cluster in shown["clusters"]:
            self.ctl("cluster", "rm", cluster["cluster"], "--recursive")
        for interface in shown["interfaces"]:
            self.ctl("interface", "rm", interface["interface"], "--recursive")
        # Servers are freed after three seconds, what they referred to three seconds after that.
        mark = self.mark()
        idle = re.compile("reaping 0 nodes")
        wait_until(lambda: sum(bool(idle.search(line.text)) for line in self.lines[mark:]) >= 12, 30,
                   "twelve ticks with nothing to free")

    def command(self, *args, **kwargs):
        """One command by hand, see lab.command.request; the parsed answer."""
        return command.call(self.socket, *args, **kwargs)


class BackgroundDaemon(Daemon):
    """vellb2 as it runs in production: in the background, with syslog for its log.

    There it outlives a broken invariant. Its exit status is nobody's to know.
    """

    def __init__(self, node, *args, **kwargs):
        super().__init__(node, *args, **kwargs)
        self.argv.remove("-f")
        self.records = []  # What syslog was sent, as it came.
        self._syslog = None

    def _launch(self):
        path = self.node.root / "log"
        path.unlink(missing_ok=True)
        self._syslog = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self._syslog.bind(str(path))
        self.node.run(["ln", "-sf", "/log", "/dev/log"])
        self._start_reading(self._records())
        self.node.run(self.argv, env=self.env)
        self.process = _Orphan(wait_until(self._listener, 10,
                                          f"the daemon in {self.node.name} to listen"))

    def _listener(self):
        """The process number of who listens on the command socket, or None."""
        with contextlib.suppress(OSError), command.connect(self.socket) as connection:
            peer = connection.getsockopt(socket.SOL_SOCKET, socket.SO_PEERCRED,
                                         struct.calcsize("3i"))
            connection.sendall(command.request(command.GET, command.config_key()))
            command.receive(connection)
            return struct.unpack("3i", peer)[0]
        return None

    def _records(self):
        """Lines as they would stand on standard output; ends with the daemon."""
        self._syslog.settimeout(0.5)
        while self.process is None or self.process.poll() is None:
            with contextlib.suppress(TimeoutError):
                record = self._syslog.recv(65536)
                self.records.append(record.decode())
                yield record.partition(b"vellb2: ")[2]
        self._syslog.close()


class _Orphan:
    """A process that is not this one's child, with the words of subprocess.Popen."""

    def __init__(self, pid):
        self.pid = pid
        self.returncode = None
        self._fd = os.pidfd_open(pid)

    def __del__(self):
        os.close(self._fd)

    def poll(self):
        """None while it is there; 0 once it has ended, however it did."""
        return self._look(0)

    def wait(self, timeout=None):
        """Waits for its end."""
        if self._look(timeout) is None:
            raise subprocess.TimeoutExpired(str(self.pid), timeout)
        return self.returncode

    def _look(self, timeout):
        if self.returncode is None and select.select([self._fd], [], [], timeout)[0]:
            self.returncode = 0
        return self.returncode

    def send_signal(self, signum):
        """Sends it a signal."""
        signal.pidfd_send_signal(self._fd, signum)

    def kill(self):
        """kill -9."""
        self.send_signal(signal.SIGKILL)


class Control(Program):
    """cpserver in a node, with its configuration /etc-cp/cpserver.yaml there."""

    DIRECTORY = "etc-cp"

    def __init__(self, node, text, args=(), env=None):
        words = ["-c", f"/{self.DIRECTORY}/cpserver.yaml", *args]
        super().__init__(node, "cpserver", ["/build/cpserver", *words], env)
        self.directory = node.root / self.DIRECTORY
        (self.directory / "conf.d").mkdir(parents=True, exist_ok=True)
        self.file = self.directory / "cpserver.yaml"
        self.write(text)

    def write(self, text, name="cpserver.yaml"):
        """A new file in the place of an old one, at once."""
        fresh = self.directory / f".{self.file.name}.new"
        fresh.write_text(text, encoding="utf-8")
        fresh.rename(self.directory / name)

    def launch(self):
        """Starts it."""
        self._launch()
        return self

    def start(self, timeout=10):
        """Starts it and waits until it has made the daemon what the file says."""
        mark = self.mark()
        self._launch()
        self.wait_log(r"start: nothing to do|commands? carried out", timeout, mark)
        return self

    def change(self, text, timeout=10, name="cpserver.yaml"):
        """Writes a file and waits until what it says has been carried out."""
        mark = self.mark()
        self.write(text, name)
        self.wait_log(r"changed: nothing to do|commands? carried out", timeout, mark)

    def once(self, *args, check=True, timeout=60):
        """Runs cpserver for one of the things that it does without a loop."""
        return self.node.run([*self.argv, *args], check=check, timeout=timeout)

    def differences(self):
        """What an apply would do now: commands, one a line."""
        return self.once("--dry-run").stdout.splitlines()
