"""Frames by hand: captures and injections on an interface of a node.

A capture is a packet socket with a large buffer: the kernel queues from the moment it is made, and
whoever looks, reads then; no thread, no file, no waiting for a tool to get ready. Neither needs
scapy, but takes and gives what scapy takes and gives: bytes of whole frames.
"""

import select
import socket
import struct
import time

from lab.core import LabError

ETH_P_ALL = 3
SOL_PACKET = 263
PACKET_STATISTICS = 6
PACKET_IGNORE_OUTGOING = 23
SO_RCVBUFFORCE = 33


class Capture:
    """The frames that arrive at an interface (with outgoing=True: and those that it sends)."""

    def __init__(self, node, ifname="eth0", outgoing=False, buffer=32 << 20):
        self.what = f"{node.name}/{ifname}"
        self.socket = node.socket(socket.AF_PACKET, socket.SOCK_RAW, 0)
        self.socket.setsockopt(socket.SOL_SOCKET, SO_RCVBUFFORCE, buffer)
        if not outgoing:
            self.socket.setsockopt(SOL_PACKET, PACKET_IGNORE_OUTGOING, 1)
        self.socket.bind((ifname, ETH_P_ALL))
        self.socket.setblocking(False)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()

    def close(self):
        """Ends the capture."""
        self.socket.close()

    def next(self, timeout):
        """The next frame, or None when none came in time."""
        ready, _, _ = select.select([self.socket], [], [], max(0, timeout))
        return self.socket.recv(65536) if ready else None

    def drain(self, quiet=0):
        """Every frame that is queued now, or that comes before `quiet` seconds without any."""
        frames = []
        while quiet and (frame := self.next(quiet)) is not None:
            frames.append(frame)
        while True:
            try:
                frames.append(self.socket.recv(65536))
            except BlockingIOError:
                return frames

    def until(self, match, timeout=3, what="the frame"):
        """Reads up to the first frame for which match(bytes) is true: (frames before it, it)."""
        before = []
        deadline = time.monotonic() + timeout
        while True:
            frame = self.next(deadline - time.monotonic())
            if frame is None:
                raise LabError(f"{self.what}: {what} did not come within {timeout} s; "
                               f"{len(before)} other frames came")
            if match(frame):
                return before, frame
            before.append(frame)

    def wait(self, match, timeout=3, what="the frame"):
        """The first frame for which match(bytes) is true; the others are thrown away."""
        return self.until(match, timeout, what)[1]

    def count(self, match, want, timeout):
        """Counts matching frames until there are `want` of them or the time is over."""
        found = 0
        deadline = time.monotonic() + timeout
        while found < want:
            frame = self.next(deadline - time.monotonic())
            if frame is None:
                break
            found += bool(match(frame))
        return found

    def lost(self):
        """How many frames the kernel could not queue since the last call."""
        raw = self.socket.getsockopt(SOL_PACKET, PACKET_STATISTICS, 8)
        return struct.unpack("II", raw)[1]


class Injector:
    """Sends whole frames out of an interface."""

    def __init__(self, node, ifname="eth0"):
        self.socket = node.socket(socket.AF_PACKET, socket.SOCK_RAW, 0)
        self.socket.bind((ifname, 0))

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()

    def close(self):
        """Ends the injector."""
        self.socket.close()

    def send(self, *frames):
        """Sends each frame (bytes, or anything that bytes() turns into a frame)."""
        for frame in frames:
            self.socket.send(bytes(frame))
