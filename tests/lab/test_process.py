"""The daemon as a process: command line, guard, signals, command socket, log, and what it makes of
frames before the stack sees them.

Everything runs in nodes of the lab. The node "quiet" has no cable at all, so that nothing but a
signal can end a receive there; "fwd" and "peer" share a wire.
"""

import collections
import contextlib
import os
import pathlib
import re
import signal
import socket
import subprocess
import time

import pytest

from lab import BackgroundDaemon, Daemon, Lab, Node, Segment, command, wait_until
from lab.node import DAEMON

HOST = 0x4000000  # log mask: the host runtime
RUNNING = "vellb2 process is already running!!!!\n"
LINE = re.compile(r"-?\d+\.\d{6} (\w+\.\w+:\d+ .+|hatype \d+ \([0-9a-f]+\)|ERROR: \w+\.\w+:\d+ .+)")


@pytest.fixture(name="lab", scope="module")
def _lab():
    with Lab() as lab:
        yield lab


@pytest.fixture(name="quiet", scope="module")
def _quiet(lab):
    return Node(lab, "quiet")


@pytest.fixture(name="wire", scope="module")
def _wire(lab):
    segment = Segment(lab, "wire")
    fwd, peer = Node(lab, "fwd"), Node(lab, "peer")
    fwd.attach(segment, "10.0.0.2/24")
    peer.attach(segment, "10.0.0.1/24")
    return fwd, peer


@contextlib.contextmanager
def running(node, mask=HOST, words=None, **kwargs):
    """A daemon in the foreground, with words for a command line of its own, ended by force if the
    test did not end it."""
    daemon = Daemon(node, mask=mask, **kwargs)
    if words is not None:
        daemon.argv = [DAEMON, "-f", *words]
    try:
        yield daemon.start()
    finally:
        if daemon.alive():
            daemon.kill()


def workers_of(daemon):
    """How many receive workers a daemon has; its threads are named."""
    names = [path.read_text(encoding="ascii").strip()
             for path in pathlib.Path(f"/proc/{daemon.pid}/task").glob("*/comm")]
    return names.count("vellb2-recv")


def answers(path):
    """Whether the daemon serves a command now; its queue of connections may be full."""
    with contextlib.suppress(OSError):
        return command.call(path, command.GET, command.config_key())["rc"] == 1
    return False


def segments(node):
    """The shared-memory segments of the node."""
    return [line for line in node.run(["ipcs", "-m"]).stdout.splitlines() if line.startswith("0x")]


# --- Command line ---------------------------------------------------------------------------------

FATAL = {
    "workers missing": (["-n"], "Error:  option -n needs decimal argument\n"),
    "facility missing": (["-l"], "Error:  option -l needs decimal argument\n"),
    "facility with a tail": (["-l", "3x"], "Error: Invalid argument to option -l\n"),
    "facility is a word": (["-l", "local3"], "Error: Invalid argument to option -l\n"),
    "mask missing": (["-m"], "Error: Option -m needs hex argument\n"),
    "mask negative": (["-m", "-1"], "Error: Argument for -m option cannot be negative\n"),
    "mask is no number": (["-m", "xyz"], "Error: Invalid argument for option -m xyz\n"),
    "mask with a tail": (["-m", "12g"], "Error: Invalid argument for option -m 12g\n"),
    "mask too long": (["-m", "f" * 18], f"Error: Out of range argument for option -m {'f' * 18}\n"),
    "what went before is said too": (["-n", "99", "-", "-n"],
                                     "Warning: Invalid value (99) for -n,setting to default 4\n"
                                     "arg 5 val - bad\n"
                                     "Error:  option -n needs decimal argument\n"),
}


@pytest.mark.parametrize("name", FATAL)
def test_bad_command_line_ends_with_255(quiet, name):
    args, words = FATAL[name]
    done = quiet.run([DAEMON, "-f", "-r", *args], check=False)
    assert (done.returncode, done.stderr, done.stdout) == (255, words, "")


WORKERS = "Warning: Invalid value ({}) for -n,setting to default 4"
FACILITY = "Warning: Invalid parameter to option -l,setting to default LOG_LOCAL3"
TOLERATED = {
    "most workers, the last one counts": (["-n", "3", "-n", "15"], None, 15),
    "too many workers": (["-n", "16"], WORKERS.format(16), 4),
    "no workers": (["-n", "0"], WORKERS.format(0), 4),
    "workers in words": (["-n", "two"], WORKERS.format("two"), 4),
    "facility too high": (["-l", "8"], FACILITY, 4),
    "facility negative": (["-l", "-1"], FACILITY, 4),
    "lone dash": (["-"], "arg 3 val - bad", 4),
    "empty word": ([""], "arg 3 val  bad", 4),
    "unknown": (["--help", "-n", "1"], "Error: Unrecognized option --help", 1),
    "two characters decide": (["-nonsense", "5", "-rubbish", "-fxyz"], None, 5),
}


@pytest.mark.parametrize("name", TOLERATED)
def test_tolerated_command_line_runs(quiet, name):
    words, warning, workers = TOLERATED[name]
    with running(quiet, words=["-r", *words]) as daemon:
        assert workers_of(daemon) == workers
        said = [line for line in daemon.log_text().splitlines() if re.match("Warning:|Error:|arg ", line)]
        assert said == ([warning] if warning else [])


@pytest.mark.parametrize("text,shown", [("0x100", True), ("F" * 16, True), ("200", False)])
def test_mask_decides_what_is_logged(quiet, text, shown):
    with running(quiet, words=["-r", "-m", text]) as daemon:
        assert daemon.stop() == 0
    # Before there is an executor everything is shown.
    assert re.search(r"vellb2 \S+ .* init$", daemon.log_text(), re.M)
    assert bool(re.search(r"vellb2 \S+ .* exit$", daemon.log_text(), re.M)) is shown


@pytest.mark.parametrize("words,policy", [(["-r"], os.SCHED_OTHER), ([], os.SCHED_FIFO)])
def test_priority(quiet, words, policy):
    with running(quiet, words=words) as daemon:
        said = re.search(r"^sched_setscheduler\(0,fifo,prio=99\) returned 0 $", daemon.log_text(),
                         re.M)
        assert bool(said) is (policy == os.SCHED_FIFO)
        for task in os.listdir(f"/proc/{daemon.pid}/task"):
            assert os.sched_getscheduler(int(task)) == policy
        assert daemon.stop() == 0


def test_without_rights_it_says_so_and_ends_with_1(quiet):
    # The rights go, the user stays: the guard's segment may be looked at by its owner alone.
    done = quiet.run(["setpriv", "--bounding-set=-all", "--inh-caps=-all", "--", DAEMON, "-f", "-r"],
                     check=False)
    assert done.returncode == 1
    assert "Error, couldn't open packet socket\n: Operation not permitted" in done.stderr
    assert re.search(r"^0\.000000 lx_entry.cpp:\d+ ERROR: could not open packet socket$", done.stdout,
                     re.M)


def test_socket_path_in_the_way_ends_with_1(quiet):
    (quiet.root / "vellb2").mkdir()
    try:
        done = quiet.run([DAEMON, "-f", "-r"], check=False)
    finally:
        (quiet.root / "vellb2").rmdir()
    assert done.returncode == 1
    assert "Error, couldn't bind to domain socket: Address already in use" in done.stderr
    assert "ERROR: could not bind to domain socket" in done.stdout


def test_thread_that_cannot_be_started_stops_the_others(quiet):
    # Room for a few threads' stacks of 8 MB, not for fifteen.
    done = quiet.run(["prlimit", f"--as={100 << 20}", "--", DAEMON, "-f", "-r", "-n", "15"], check=False,
                     timeout=10)
    assert done.returncode == 1
    assert re.search(r"ERROR: could not start thread vellb2-recv, error 11, stopping$", done.stdout, re.M)
    assert not (quiet.root / "vellb2").exists() and segments(quiet) == []


# --- One instance ---------------------------------------------------------------------------------

def test_second_instance_ends_with_99_and_leaves_the_first_alone(quiet):
    with running(quiet) as first:
        inode = os.stat(first.socket).st_ino
        second = quiet.run([DAEMON, "-f", "-r"], check=False)
        assert (second.returncode, second.stderr) == (99, RUNNING)
        assert os.stat(first.socket).st_ino == inode
        assert first.command(command.GET, command.config_key())["rc"] == 1
        assert first.stop() == 0


# --- Stopping -------------------------------------------------------------------------------------

@pytest.mark.parametrize("workers", [1, 15])
@pytest.mark.parametrize("signum", [signal.SIGTERM, signal.SIGINT])
def test_silent_host_stops_within_two_seconds_and_leaves_nothing(quiet, signum, workers):
    with running(quiet, workers=workers) as daemon:
        assert len(segments(quiet)) == 1
        begin = time.monotonic()
        assert daemon.stop(signum) == 0
        assert time.monotonic() - begin < 2
        assert not daemon.socket.exists() and segments(quiet) == []


def test_removing_the_executor_stops_it_after_the_answer(quiet):
    with running(quiet) as daemon:
        begin = time.monotonic()
        assert daemon.command(command.RM, command.config_key())["rc"] == 1
        assert daemon.process.wait(5) == 0
        assert time.monotonic() - begin < 2
        assert not daemon.socket.exists()


def test_stalled_client_does_not_delay_the_stop(quiet):
    with running(quiet) as daemon:
        mark = daemon.mark()  # before it connects, or the daemon may have said so already
        with command.connect(daemon.socket) as stalled:
            stalled.sendall(b"x" * 1000)
            daemon.wait_log("calling accept", since=mark)
            begin = time.monotonic()
            assert daemon.stop() == 0
            assert time.monotonic() - begin < 2


def test_closed_output_does_not_kill_it(quiet):
    process = quiet.popen([DAEMON, "-f", "-r", "-m", f"{HOST:x}"], stdout=subprocess.PIPE)
    process.stdout.readline()
    process.stdout.close()
    try:
        wait_until(lambda: answers(quiet.root / "vellb2"), 5, "an answer")
        process.send_signal(signal.SIGTERM)
        assert process.wait(5) == 0
    finally:
        process.kill()


# --- As a daemon ----------------------------------------------------------------------------------

@contextlib.contextmanager
def detached(node, *words):
    """A daemon in the background."""
    daemon = BackgroundDaemon(node)
    daemon.argv = [DAEMON, "-r", *words]
    try:
        yield daemon.start()
    finally:
        daemon.stop()


@pytest.mark.parametrize("args,facility", [([], 19), (["-l", "0"], 16), (["-l", "7"], 23),
                                           (["-l", "8"], 19)])
def test_daemon_logs_to_the_chosen_facility(quiet, args, facility):
    with detached(quiet, *args) as daemon:
        assert os.readlink(f"/proc/{daemon.pid}/cwd") == "/"
        assert os.readlink(f"/proc/{daemon.pid}/fd/1") == "/dev/null"
    priority = facility * 8 + 6
    assert all(record.startswith(f"<{priority}>") for record in daemon.records)
    assert re.fullmatch(r"<\d+>.{15} vellb2: 0\.000000 vellb2 \S+ .* init\n?", daemon.records[0])
    assert not daemon.socket.exists()


def test_loud_place_is_silenced_towards_syslog_and_owned_up_to(wire):
    fwd, peer = wire
    frames = 700
    with detached(fwd, "-m", f"{HOST:x}") as daemon, peer.injector() as wire_end:
        # One second's worth at once, from the start of a second of the daemon's clock.
        time.sleep(1 - time.clock_gettime(time.CLOCK_MONOTONIC) % 1)
        wire_end.send(*[unknown_frame(fwd, peer)] * frames)

        def counted():
            """How many lines of one place were shown, and how many it owned up to."""
            text = daemon.log_text()
            shown = re.findall(r"(lx_recv\.cpp:\d+) ethertype 34997 invalid", text)
            place = re.escape(shown[0]) if shown else "nowhere"
            omitted = re.findall(place + r" (\d+) more lines within one second were left out", text)
            return len(shown), sum(map(int, omitted))

        wait_until(lambda: sum(counted()) >= frames, 5, "all lines to be accounted for")
        seen, left_out = counted()
        assert seen + left_out == frames
        assert 100 <= seen <= 200  # the burst may straddle two seconds
        daemon.wait_log(r"hatype \d+ more lines within one second were left out")


# --- Command socket -------------------------------------------------------------------------------

@pytest.fixture(name="served", scope="module")
def _served(lab):
    node = Node(lab, "served")
    with running(node) as daemon:
        yield daemon
        assert daemon.stop() == 0


def full_of(action, key, **kwargs):
    """A request whose payload has something in every byte."""
    head = command.request(action, key, **kwargs)[:command.HEADER.size]
    return head + bytes(i % 251 for i in range(command.SIZE - len(head)))


UNTOUCHED = {
    "older version": (dict(version=0x0805050A), 10),
    "version of the other byte order": (dict(version=0x0B050508), 10),
    "key type 0": (dict(keytype=0), 10),
    "key type 3": (dict(keytype=3), 10),
    "key type 255": (dict(keytype=255), 10),
    "action 5": (dict(action=5), 2),
    "action 0": (dict(action=0), 2),
}


@pytest.mark.parametrize("name", UNTOUCHED)
def test_refusal_changes_nothing_but_the_code(served, name):
    changes, code = UNTOUCHED[name]
    sizes = dict(addsize=11, setsize=22, getsize=33, listsize=44, rc=55)
    sent = full_of(**{"action": command.SET, "key": command.config_key(), **sizes, **changes})
    got = command.exchange(served.socket, sent)
    assert command.parse(got)["rc"] == code
    assert got[:70] == sent[:70] and got[72:] == sent[72:]


@pytest.mark.parametrize("cuts,pause", [([1, 71, 73, 40000], 0.05), ([65535], 1.3), ([10, 20], 1.1)])
def test_buffer_in_pieces_is_served_once_whole(served, cuts, pause):
    sent = command.request(command.GET, command.config_key())
    with command.connect(served.socket) as client:
        for begin, end in zip([0, *cuts], [*cuts, command.SIZE]):
            client.sendall(sent[begin:end])
            if end < command.SIZE:
                client.settimeout(pause)
                with pytest.raises(TimeoutError):  # no answer before the end
                    client.recv(1)
                client.settimeout(5)
        assert command.parse(command.receive(client))["rc"] == 1


@pytest.mark.parametrize("length", [0, 1, 72, command.SIZE - 1])
def test_short_buffer_is_never_executed(served, length):
    mark = served.mark()
    with command.connect(served.socket) as client:
        # A whole one would stop the daemon.
        client.sendall(command.request(command.RM, command.config_key())[:length])
        client.shutdown(socket.SHUT_WR)
        assert client.recv(1) == b""
    served.wait_log(r"ERROR: lx_command\.cpp:\d+ read EOF from domain socket$", since=mark)
    assert answers(served.socket)


def test_client_that_leaves_before_its_answer(served):
    mark = served.mark()
    with command.connect(served.socket) as first:  # served first, and half a command keeps it so
        first.sendall(b"\0" * 100)
        with command.connect(served.socket) as second:
            second.sendall(command.request(command.GET, command.config_key()))
    served.wait_log(r"write command response: Broken pipe|ERROR: \S+ write to domain socket rc: -1",
                    since=mark)
    assert answers(served.socket)


def test_silent_client_is_closed_after_ten_seconds_and_the_next_one_served(served):
    mark = served.mark()
    with command.connect(served.socket, timeout=15) as silent:
        silent.sendall(b"\0" * 100)
        begin = time.monotonic()
        waiting = command.connect(served.socket, timeout=15)
        waiting.sendall(command.request(command.GET, command.config_key()))
        assert silent.recv(1) == b""
        assert 9.5 < time.monotonic() - begin < 12
    with waiting:
        assert command.parse(command.receive(waiting))["rc"] == 1
    served.wait_log(r"ERROR: lx_command\.cpp:\d+ client moved no byte for 10 seconds", since=mark)


# --- Frames ---------------------------------------------------------------------------------------

def header(to, source, ethertype):
    macs = bytes.fromhex((to.mac() + source.mac()).replace(":", ""))
    return macs + ethertype.to_bytes(2, "big")


def unknown_frame(to, source, length=60):
    """A frame of a local experimental type (0x88B5)."""
    return header(to, source, 0x88B5).ljust(length, b"\0")


def test_own_and_loopback_frames_never_reach_the_stack(wire):
    fwd, peer = wire
    with running(fwd) as daemon, peer.injector() as wire_end, fwd.injector() as own_end:
        mark = daemon.mark()
        own_end.send(*[unknown_frame(peer, fwd)] * 5)
        talk = fwd.socket(socket.AF_INET, socket.SOCK_DGRAM)
        talk.sendto(b"to myself", ("127.0.0.1", 9))
        wire_end.send(unknown_frame(fwd, peer))
        daemon.wait_log("ethertype 34997 invalid$", since=mark)
        assert len(re.findall("hatype", daemon.log_text(mark))) == 1
        assert daemon.stop() == 0


def test_frame_too_long_is_left_to_the_host_and_reported_once_a_minute(wire):
    fwd, peer = wire
    for node in wire:
        node.ip("link", "set", "eth0", "mtu", "9000")
    longest = 1568
    try:
        subprocess.run(["ip", "netns", "exec", fwd.lab.segments["wire"].namespace, "sh", "-c",
                        "for l in br0 fwd peer; do ip link set $l mtu 9000; done"], check=True)
        with running(fwd) as daemon, peer.injector() as wire_end:
            mark = daemon.mark()
            wire_end.send(unknown_frame(fwd, peer, longest))
            daemon.wait_log("ethertype 34997 invalid$", since=mark)
            mark = daemon.mark()
            report = "frames longer than 1568 bytes on eth0 are left to the host"
            wire_end.send(*[unknown_frame(fwd, peer, longest + 1)] * 3)
            daemon.wait_log(report, since=mark)
            wire_end.send(header(fwd, peer, 0x8100).ljust(60, b"\0"))  # the end of the test
            daemon.wait_log("ethertype 33024 invalid$", since=mark)
            assert daemon.stop() == 0  # other workers may have been behind
            text = daemon.log_text(mark)
            assert "34997" not in text and text.count(report) == 1
            assert "ethtool -K eth0 gro off lro off" in text
    finally:
        for node in wire:
            node.ip("link", "set", "eth0", "mtu", "1500")


def test_lines_of_many_threads_never_mix(wire):
    fwd, peer = wire
    frames = 3000
    with running(fwd, workers=15) as daemon, peer.injector() as wire_end:
        mark = daemon.mark()
        for sent in range(200, frames + 1, 200):
            wire_end.send(*[unknown_frame(fwd, peer)] * 200)
            wait_until(lambda: daemon.mark() - mark >= 2 * sent, 10, "two lines for each frame")
        assert daemon.stop() == 0
    texts = [line.text for line in daemon.lines[mark:]]
    odd = [text for text in texts if not LINE.fullmatch(text)]
    assert [text for text in odd if not re.fullmatch(r"[\d.]+ vellb2 .* exit", text)] == []
    kinds = collections.Counter(re.sub(r"^\S+ ", "", text) for text in texts)
    assert kinds["hatype 1 (1)"] == frames
